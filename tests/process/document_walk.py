#!/usr/bin/env python3
"""Runs a walk of the documentation as it stands and compares the answers that it shows.

Usage: document_walk.py DOCUMENT HEADING BUILD_DIRECTORY

The walk is what follows the heading up to the next one of its level: blocks of commands, each
followed by one with their answers.
"""

import os
import random
import re
import signal
import socket
import subprocess
import sys
import tempfile
from pathlib import Path

TIME_LIMIT_S = 240
PORTS = 3  # a walk may use PORT and as many as this from there


def steps(document, heading):
    """The commands of the walk, each with the lines shown as its answer."""
    walk = re.split(r"^## ", document.split(f"\n## {heading}\n")[1], flags=re.M)[0]
    blocks = re.findall(r"^```(sh|text)\n(.*?)^```$", walk, re.M | re.S)
    kinds = [kind for kind, _ in blocks]
    # Commands without an answer belong into the block before them.
    by_turns = ["sh", "text"] * (len(kinds) // 2)
    assert kinds and kinds == by_turns, f"not commands and answers by turns: {kinds}"
    texts = [text for _, text in blocks]
    return list(zip(texts[::2], texts[1::2]))


def is_free(port):
    with socket.socket() as probe:
        try:
            probe.bind(("127.0.0.1", port))
        except OSError:
            return False
    return True


def free_ports():
    """The first of some free ports in a row."""
    while True:
        # Below those that the system gives to whoever asks for any.
        first = random.randrange(10000, 30000)
        if all(is_free(first + i) for i in range(PORTS)):
            return first


def run(walk, build, home):
    """Runs all commands in one shell; the output of each step, and how the shell ended."""
    (home / "build").mkdir()
    (home / "build/release").symlink_to(build)
    parts = [f"exec >{home}/answer.{i} 2>&1\n{commands}" for i, (commands, _) in enumerate(walk)]
    environment = {"HOME": str(home), "TMPDIR": str(home), "PATH": os.environ["PATH"],
                   "PORT": str(free_ports())}
    environment.update({k: v for k, v in os.environ.items() if k.endswith("SAN_OPTIONS")})
    shell = subprocess.Popen(["bash", "-euo", "pipefail", "-c", "\n".join(parts)], cwd=home,
                             env=environment, start_new_session=True)
    try:
        status = shell.wait(TIME_LIMIT_S)
    except subprocess.TimeoutExpired:
        status = "no end in time"
    finally:
        try:
            os.killpg(shell.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
    files = [home / f"answer.{i}" for i in range(len(walk))]
    return [file.read_text() if file.exists() else "" for file in files], status


def differences(shown, answer):
    """Shown lines that the answer does not have; an ellipsis stands for anything."""
    lines = answer.splitlines()
    expected = shown.splitlines()
    if len(lines) != len(expected):
        return expected
    patterns = [".*".join(re.escape(part) for part in line.split("…")) for line in expected]
    return [line for line, pattern, got in zip(expected, patterns, lines)
            if not re.fullmatch(pattern, got)]


def main():
    document, build = Path(sys.argv[1]).read_text(), Path(sys.argv[3]).resolve()
    walk = steps(document, sys.argv[2])
    with tempfile.TemporaryDirectory() as directory:
        answers, status = run(walk, build, Path(directory))
    failed = status != 0
    for (commands, shown), answer in zip(walk, answers):
        wrong = differences(shown, answer)
        if wrong:
            failed = True
            print(f"After\n{commands}\nexpected\n" + "\n".join(wrong) + f"\nbut got\n{answer}")
    print(f"{len(walk)} steps, the shell ended with: {status}")
    return 1 if failed else 0


sys.exit(main())
