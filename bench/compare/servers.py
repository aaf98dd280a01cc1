"""The controller, the worker backend behind it and the programs it is compared with."""

import json
import os
import subprocess
import urllib.request
from dataclasses import dataclass

from machine import BenchError, Program, free_port

HERE = os.path.dirname(os.path.abspath(__file__))
MODEL = "bench-model"
WORKERS = 10
_NPM_SECONDS = 300


@dataclass
class Server:
    """A running program and the port it serves."""

    name: str
    port: int
    program: Program

    def url(self, path):
        return f"http://127.0.0.1:{self.port}{path}"

    def post(self, path, body, headers):
        """The answer's JSON."""
        request = urllib.request.Request(
            self.url(path),
            json.dumps(body).encode(),
            {"Content-Type": "application/json", **headers},
        )
        with urllib.request.urlopen(request, timeout=10) as reply:
            return json.load(reply)


class Servers:
    """Starts servers on the machine of one run."""

    def __init__(self, machine, build):
        self.machine = machine
        self.build = build

    def tool(self, name):
        path = os.path.join(self.build, name)
        if not os.access(path, os.X_OK):
            raise BenchError(f"{path} is missing: build the release preset first")
        return path

    def backend(self):
        """One process that plays ten workers. Returns (program, ports)."""
        program = self.machine.start(
            "backend", [self.tool("tavrel-bench-backend"), "--ports", str(WORKERS)], quiet=False
        )
        line = program.process.stdout.readline()
        if not line:
            raise BenchError(f"the backend did not start:\n{program.log_tail()}")
        return program, json.loads(line)["ports"]

    def controller(self, *more):
        """A controller as it is started by default, or with `more` arguments, with a home of its
        own. Its console goes to /dev/null, as the others' access logs are off."""
        home = self.machine.directory("home")
        port = free_port()
        environment = dict(os.environ, HOME=home)
        environment.pop("TAVREL_API_KEY", None)
        arguments = [
            self.tool("tavrel-controller"),
            *("--port", str(port), "--bind", "127.0.0.1"),
            *("--packages-dir", os.path.join(home, "packages")),
            # Nobody listens there: the run must not depend on the network.
            *("--agent-catalog-url", "http://127.0.0.1:9/catalog"),
            *more,
        ]
        program = self.machine.start("controller", arguments, environment)
        program.await_http(port, "/api/v1/health")
        return Server("tavrel", port, program)

    def nginx(self, ports, health_body):
        """Serves `health_body`, and proxies to the workers under the controller's paths."""
        directory = self.machine.directory("nginx-files")
        port = free_port()
        workers = "\n".join(f"    server 127.0.0.1:{worker};" for worker in ports)
        text = _template("nginx.conf").format(
            user="user root;" if os.geteuid() == 0 else "",
            directory=directory,
            port=port,
            workers=workers,
            health_body=health_body.replace("\\", "\\\\").replace("'", "\\'"),
        )
        path = os.path.join(directory, "nginx.conf")
        _write(path, text)
        program = self.machine.start("nginx", ["nginx", "-p", directory, "-c", path])
        program.await_http(port, "/api/v1/health")
        return Server("nginx", port, program)

    def haproxy(self, ports, kept):
        """Connections to the workers are `kept`, or made for each request."""
        directory = self.machine.directory("haproxy-kept" if kept else "haproxy-fresh")
        port = free_port()
        workers = "\n".join(
            f"    server w{index} 127.0.0.1:{worker}" for index, worker in enumerate(ports)
        )
        path = os.path.join(directory, "haproxy.cfg")
        connections = "http-reuse always" if kept else "option http-server-close"
        text = _template("haproxy.cfg").format(port=port, workers=workers, connections=connections)
        _write(path, text)
        program = self.machine.start("haproxy", ["haproxy", "-db", "-f", path])
        program.await_http(port, "/dev/stats")
        return Server("haproxy", port, program)

    def gateway(self):
        """@portkey-ai/gateway, installed once per build directory."""
        directory = os.path.join(self.build, "bench-gateway")
        start = os.path.join(
            directory, "node_modules", "@portkey-ai", "gateway", "build", "start-server.js"
        )
        if not os.path.exists(start):
            _install_gateway(directory)
        port = free_port()
        program = self.machine.start(
            "gateway",
            ["node", start, f"--port={port}", "--headless"],
            dict(os.environ, NODE_ENV="production"),
        )
        program.await_http(port, "/")
        return Server("@portkey-ai/gateway", port, program)


def _template(name):
    with open(os.path.join(HERE, name), encoding="utf-8") as file:
        return file.read()


def _write(path, text):
    with open(path, "w", encoding="utf-8") as file:
        file.write(text)


def _install_gateway(directory):
    os.makedirs(directory, exist_ok=True)
    with open(os.path.join(HERE, "gateway-package.json"), encoding="utf-8") as file:
        _write(os.path.join(directory, "package.json"), file.read())
    done = subprocess.run(
        ["npm", "install", "--no-audit", "--no-fund", "--omit=dev", "--ignore-scripts"],
        cwd=directory,
        stdin=subprocess.DEVNULL,
        capture_output=True,
        text=True,
        timeout=_NPM_SECONDS,
        check=False,
    )
    if done.returncode != 0:
        raise BenchError(f"npm install failed:\n{done.stderr[-2000:]}")
