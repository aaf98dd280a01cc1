"""Processes of one benchmark run: started here, measured through /proc, stopped here."""

import ctypes
import os
import shutil
import signal
import socket
import subprocess
import tempfile
import time
import urllib.error
import urllib.request

_PR_SET_PDEATHSIG = 1
_TICKS_PER_SECOND = os.sysconf("SC_CLK_TCK")
_STOP_SECONDS = 10


class BenchError(Exception):
    """A measurement that could not be made; the text says why."""


def _die_with_parent():
    ctypes.CDLL(None).prctl(_PR_SET_PDEATHSIG, signal.SIGTERM)


def free_port():
    """A port nobody listened on a moment ago, for programs that cannot choose one themselves."""
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Program:
    """A running server with the processes it made."""

    def __init__(self, name, arguments, log_path, environment=None, quiet=True):
        self.name = name
        self.log_path = log_path
        with open(log_path, "ab") as log:
            self.process = subprocess.Popen(
                arguments,
                stdin=subprocess.DEVNULL,
                stdout=subprocess.DEVNULL if quiet else subprocess.PIPE,
                stderr=log,
                env=environment,
                preexec_fn=_die_with_parent,
                text=True,
            )

    def processes(self):
        """Ids of the program and of everything below it."""
        found, waiting = [], [self.process.pid]
        while waiting:
            pid = waiting.pop()
            found.append(pid)
            try:
                for thread in os.listdir(f"/proc/{pid}/task"):
                    with open(f"/proc/{pid}/task/{thread}/children", encoding="ascii") as file:
                        waiting += [int(child) for child in file.read().split()]
            except FileNotFoundError:
                pass
        return found

    def cpu_seconds(self):
        """User and system time used so far."""
        ticks = 0
        for pid in self.processes():
            try:
                with open(f"/proc/{pid}/stat", encoding="utf-8") as file:
                    fields = file.read().rpartition(")")[2].split()
            except (FileNotFoundError, ProcessLookupError):
                continue
            ticks += int(fields[11]) + int(fields[12])
        return ticks / _TICKS_PER_SECOND

    def resident_bytes(self):
        with open(f"/proc/{self.process.pid}/status", encoding="utf-8") as file:
            for line in file:
                if line.startswith("VmRSS:"):
                    return int(line.split()[1]) * 1024
        raise BenchError(f"{self.name} is not running")

    def await_http(self, port, path, seconds=30):
        """Waits until the program answers, and returns the body."""
        deadline = time.monotonic() + seconds
        while time.monotonic() < deadline:
            if self.process.poll() is not None:
                raise BenchError(f"{self.name} ended at once:\n{self.log_tail()}")
            try:
                with urllib.request.urlopen(f"http://127.0.0.1:{port}{path}", timeout=5) as reply:
                    return reply.read().decode()
            except urllib.error.HTTPError as answer:
                return answer.read().decode()
            except OSError:
                time.sleep(0.05)
        raise BenchError(f"{self.name} did not answer on port {port}:\n{self.log_tail()}")

    def log_tail(self):
        with open(self.log_path, encoding="utf-8", errors="replace") as log:
            return "".join(log.readlines()[-10:])

    def stop(self):
        if self.process.poll() is None:
            self.process.terminate()
            try:
                self.process.wait(_STOP_SECONDS)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()
        if self.process.stdout:
            self.process.stdout.close()


class Machine:
    """The scratch directory of a run and the programs in it. A context manager: leaving it stops
    every program and removes the directory, whatever happened."""

    def __init__(self):
        self.scratch = tempfile.mkdtemp(prefix="tavrel-bench-")
        self._programs = []
        self._number = 0

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for program in reversed(self._programs):
            program.stop()
        shutil.rmtree(self.scratch, ignore_errors=True)

    def directory(self, name):
        """A fresh directory."""
        self._number += 1
        path = os.path.join(self.scratch, f"{name}-{self._number}")
        os.makedirs(path)
        return path

    def start(self, name, arguments, environment=None, quiet=True):
        log = os.path.join(self.directory(name), "stderr")
        program = Program(name, arguments, log, environment, quiet)
        self._programs.append(program)
        return program

    def stop(self, program):
        self._programs.remove(program)
        program.stop()
