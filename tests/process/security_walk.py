#!/usr/bin/env python3
"""Runs the walk of docs/security.md as it stands and compares the answers that it shows.

Usage: security_walk.py SECURITY_MD BUILD_DIRECTORY
"""

import os
import re
import signal
import socket
import subprocess
import sys
import tempfile
from pathlib import Path

TIME_LIMIT_S = 120
HEADING = "## From an empty machine to a controller with accounts"


def steps(document):
    """The commands of the walk, each with the lines shown as its answer."""
    blocks = re.findall(r"^```(sh|text)\n(.*?)^```$", document.split(HEADING)[1], re.M | re.S)
    kinds = [kind for kind, _ in blocks]
    # Commands without an answer belong into the block before them.
    by_turns = ["sh", "text"] * (len(kinds) // 2)
    assert kinds and kinds == by_turns, f"not commands and answers by turns: {kinds}"
    texts = [text for _, text in blocks]
    return list(zip(texts[::2], texts[1::2]))


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def run(walk, build, home):
    """Runs all commands in one shell; the output of each step, and how the shell ended."""
    (home / "build").mkdir()
    (home / "build/release").symlink_to(build)
    parts = [f"exec >{home}/answer.{i} 2>&1\n{commands}" for i, (commands, _) in enumerate(walk)]
    environment = {"HOME": str(home), "TMPDIR": str(home), "PATH": os.environ["PATH"],
                   "PORT": str(free_port())}
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
    document, build = Path(sys.argv[1]).read_text(), Path(sys.argv[2]).resolve()
    walk = steps(document)
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
