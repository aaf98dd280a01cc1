"""Runs the comparison and prints its table. Use scripts/bench.sh, which builds first."""

import argparse
import os
import platform
import signal
import subprocess
import sys
import time

from machine import BenchError, Machine
from report import table
from rows import FULL, QUICK, ROWS, Bench


def main():
    arguments = parse()
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    print(about(arguments), flush=True)
    lines, failed = [], []
    began = time.monotonic()
    for name in arguments.only or ROWS:
        print(f"... {name}", file=sys.stderr, flush=True)
        try:
            # Servers of one row are gone before the next begins: nothing idles beside a measurement.
            with Machine() as machine:
                bench = Bench(machine, arguments.build, QUICK if arguments.quick else FULL)
                for line in ROWS[name](bench):
                    lines.append(line)
                    print(f"    {line.work} | {line.beside} | {line.figure}", file=sys.stderr, flush=True)
        except (BenchError, OSError, subprocess.SubprocessError) as error:
            failed.append(f"{name}: {error}")
    print(table(lines))
    print(f"\nTook {(time.monotonic() - began) / 60:.1f} minutes.")
    for failure in failed:
        print(f"NOT MEASURED: {failure}")
    return 1 if failed else 0


def parse():
    parser = argparse.ArgumentParser(
        prog="scripts/bench.sh",
        description="Measures the controller beside other programs and prints one table of ratios.",
        epilog="A figure is the median over pairs of short runs in alternating order, with the "
        "smallest and largest in parentheses. Client, proxy and worker backend share this "
        "machine's processors. Exit status 1 when a row could not be measured.",
    )
    parser.add_argument("--quick", action="store_true", help="fewer and shorter runs (< 5 minutes)")
    parser.add_argument(
        "--only", action="append", choices=list(ROWS), metavar="ROW",
        help="just this row, can be repeated: " + ", ".join(ROWS),
    )
    parser.add_argument("--build", default="build/release", help="directory with the binaries")
    arguments = parser.parse_args()
    arguments.build = os.path.abspath(arguments.build)
    return arguments


def about(arguments):
    """What the figures hold for."""
    commit = said_by("git", "describe", "--always", "--dirty")
    versions = [said_by("nginx", "-v"), said_by("haproxy", "-v"), said_by("wrk", "-v")]
    versions.append("node " + said_by("node", "--version"))
    effort = "quick" if arguments.quick else "full"
    return (
        f"{time.strftime('%Y-%m-%d %H:%M UTC', time.gmtime())}, commit {commit}, {effort} run\n"
        f"{os.cpu_count()} x {processor()}, Linux {platform.release()}\n{'; '.join(versions)}\n"
    )


def said_by(*command):
    try:
        done = subprocess.run(command, capture_output=True, text=True, timeout=10, check=False)
    except OSError:
        return f"no {command[0]}"
    lines = (done.stdout + done.stderr).strip().splitlines()
    return " ".join(lines[0].split()[:3]) if lines else command[0]


def processor():
    with open("/proc/cpuinfo", encoding="utf-8") as file:
        for line in file:
            if line.startswith("model name"):
                return line.partition(":")[2].strip()
    return platform.machine()


if __name__ == "__main__":
    sys.exit(main())
