"""Clients: wrk for plain requests, tavrel-load-generator for everything else."""

import json
import os
import subprocess

from machine import BenchError
from servers import HERE, MODEL, WORKERS

CHAT = {
    "model": MODEL,
    "messages": [{"role": "user", "content": "Say something short."}],
    "max_tokens": 64,
}
_WRK_THREADS = 2
_GENERATOR_SECONDS = 900


def wrk(url, connections, seconds, body=None, headers=None):
    """Requests per second. Every answer has to be a good one: a proxy that refuses is fast."""
    environment = dict(os.environ)
    environment.pop("BENCH_BODY", None)
    if body is not None:
        environment["BENCH_BODY"] = json.dumps(body, separators=(",", ":"))
    environment["BENCH_HEADERS"] = "\n".join(f"{k}: {v}" for k, v in (headers or {}).items())
    command = ["wrk", f"-t{_WRK_THREADS}", f"-c{connections}", f"-d{seconds}s", "--timeout", "10s"]
    command += ["-s", os.path.join(HERE, "wrk.lua"), url]
    output = _run(command, seconds + 60, environment)
    for line in output.splitlines():
        if line.startswith("BENCH "):
            figures = json.loads(line[len("BENCH ") :])
            break
    else:
        raise BenchError(f"wrk said nothing usable:\n{output}")
    if figures["bad_status"] or figures["broken"] or not figures["requests"]:
        raise BenchError(f"{url} answered badly: {figures}")
    return figures["requests"] / figures["seconds"]


class Generator:
    """tavrel-load-generator, one process per load."""

    def __init__(self, tool):
        self._tool = tool

    def run(self, load, **options):
        return json.loads(_run(self.command(load, **options), _GENERATOR_SECONDS))

    def command(self, load, **options):
        command = [self._tool, load]
        for name, value in options.items():
            command += ["--" + name.replace("_", "-"), str(value)]
        return command

    def heartbeats(self, server, backend_ports, **options):
        """Heartbeats with full metrics, after a registration unless told otherwise. Refusals are
        an error."""
        settings = {"workers": WORKERS, "rounds": 1, **options}
        ports = ",".join(map(str, backend_ports))
        figures = self.run(
            "heartbeats", port=server.port, backend_ports=ports, model=MODEL, **settings
        )
        if figures["refused"]:
            raise BenchError(f"{server.name} refused {figures['refused']} heartbeats")
        return figures


def _run(command, seconds, environment=None):
    done = subprocess.run(
        command,
        stdin=subprocess.DEVNULL,
        capture_output=True,
        text=True,
        timeout=seconds,
        env=environment,
        check=False,
    )
    if done.returncode != 0:
        raise BenchError(f"{' '.join(command[:2])} failed: {done.stderr.strip()[-500:]}")
    return done.stdout
