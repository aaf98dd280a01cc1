"""The rows of the comparison. Each takes a Bench and yields the lines of the table."""

import subprocess
import time
from contextlib import contextmanager
from dataclasses import dataclass
from functools import partial
from statistics import median

from load import CHAT, Generator, wrk
from machine import BenchError, Machine
from report import ratio_line, value_line
from servers import MODEL, WORKERS, Servers

OPENAI_CHAT = "/v1/chat/completions"
CLUSTER_CHAT = "/api/v1/chat/completions"
CLUSTER_STREAM = "/api/v1/chat/completions/stream"
HEALTH = "/api/v1/health"
MANY_WORKERS = 10_000
IDLE_CONNECTIONS = 5_000
STREAMS = 200
AUTH_CLIENTS = 64
EVENTS_PER_SECOND = 50
MIB = 1 << 20


@dataclass
class Effort:
    """How long is measured."""

    pairs: int
    seconds: int  # of one wrk run
    stream_seconds: int
    leavers: int
    heartbeat_rounds: int
    clients: tuple  # of the chat rows
    many_clients: tuple  # of the rows with 10 000 workers


FULL = Effort(5, 3, 4, 100, 720, (16, 64), (16, 64))
QUICK = Effort(3, 1, 2, 30, 60, (16, 64), (64,))


class Bench:
    """What every row needs: a machine of its own, the servers and the clients."""

    def __init__(self, machine: Machine, build: str, effort: Effort):
        self.machine = machine
        self.effort = effort
        self.servers = Servers(machine, build)
        self.generator = Generator(self.servers.tool("tavrel-load-generator"))
        self.backend, self.backend_ports = self.servers.backend()

    def controller(self, **registered):
        """A controller that knows ten workers, or what `registered` says."""
        server = self.servers.controller()
        self.heartbeat(server, **registered)
        return server

    def heartbeat(self, server, **options):
        return self.generator.heartbeats(server, self.backend_ports, **options)

    def nginx(self, health_body="{}"):
        return self.servers.nginx(self.backend_ports, health_body)

    def alternate(self, ours, theirs, pairs=None):
        """Calls both in turn, each time in the other order, after a short run of each to warm up:
        whatever else changes on the machine meets both."""
        ours(seconds=1)
        theirs(seconds=1)
        measured = []
        for index in range(pairs or self.effort.pairs):
            if index % 2 == 0:
                a, b = ours(), theirs()
            else:
                b, a = theirs(), ours()
            measured.append((a, b))
        return measured

    def chat(self, server, path, clients, headers=None, registered=None):
        """A chat run against the server; the controller's workers are kept alive before each."""

        def run(seconds=self.effort.seconds):
            if registered is not None:
                self.heartbeat(server, register=0, **registered)
            return wrk(server.url(path), clients, seconds, CHAT, headers)

        return run


def health(bench):
    server = bench.controller()
    nginx = bench.nginx(server.program.await_http(server.port, HEALTH))
    for connections, reach in ((64, 0.65), (512, 0.60)):
        run = lambda one, seconds=bench.effort.seconds: wrk(one.url(HEALTH), connections, seconds)
        pairs = bench.alternate(partial(run, server), partial(run, nginx))
        yield ratio_line(
            f"GET {HEALTH}, {connections} connections", "nginx return 200", pairs, at_least=reach
        )


def auth(bench):
    """The same GET of a guarded route: by a key and by a token, beside a controller that asks
    nobody. Both count the request against a limit that is not reached."""
    path, limit, key = "/api/v1/auth/stats", "2000000000", "bench-key-0123456789"
    guarded = bench.servers.controller("--auth-mode", "admin", "--api-key", key, "--key-rpm", limit)
    open_to_all = bench.servers.controller("--guest-rpm", limit)
    token = guarded.post("/api/v1/auth/tokens/worker", {"worker_id": "w1"}, {"X-API-Key": key})
    credentials = {
        "API key": {"X-API-Key": key},
        "bearer token": {"Authorization": f"Bearer {token['token']}"},
    }
    for name, headers in credentials.items():
        run = lambda one, sent, seconds=bench.effort.seconds: wrk(
            one.url(path), AUTH_CLIENTS, seconds, headers=sent
        )
        pairs = bench.alternate(partial(run, guarded, headers), partial(run, open_to_all, None))
        yield ratio_line(
            f"GET {path}, {AUTH_CLIENTS} clients, {name}", "itself in mode none", pairs,
            at_least=0.95,
        )


def chat(bench):
    yield from _chat_beside_nginx(
        bench, CLUSTER_CHAT, "nginx, a connection per request", at_least=0.75
    )


def pooled(bench):
    yield from _chat_beside_nginx(
        bench, OPENAI_CHAT, "nginx, upstream keep-alive", at_least=0.40
    )


def _chat_beside_nginx(bench, path, beside, at_least):
    server, nginx = bench.controller(), bench.nginx()
    for clients in bench.effort.clients:
        pairs = bench.alternate(
            bench.chat(server, path, clients, registered={}), bench.chat(nginx, path, clients)
        )
        yield ratio_line(f"POST {path}, {clients} clients", beside, pairs, at_least=at_least)


def gateway(bench):
    server, other = bench.controller(), bench.servers.gateway()
    headers = {
        "x-portkey-provider": "openai",
        "x-portkey-custom-host": f"http://127.0.0.1:{bench.backend_ports[0]}/v1",
        "Authorization": "Bearer none",
    }
    for clients in bench.effort.clients:
        pairs = bench.alternate(
            bench.chat(server, OPENAI_CHAT, clients, registered={}),
            bench.chat(other, OPENAI_CHAT, clients, headers),
            pairs=3,
        )
        yield ratio_line(
            f"POST {OPENAI_CHAT}, {clients} clients", other.name, pairs, at_least=15
        )


def stream(bench):
    """Each path beside proxies that treat their connections to the workers as it does."""
    server, nginx = bench.controller(), bench.nginx()
    kept, fresh = (bench.servers.haproxy(bench.backend_ports, kept) for kept in (True, False))
    beside = {
        OPENAI_CHAT: {
            "nginx, proxy_buffering off": (nginx, "/stream"),
            "HAProxy, http-no-delay": (kept, OPENAI_CHAT),
        },
        CLUSTER_STREAM: {
            "nginx, proxy_buffering off, a connection per request": (nginx, "/stream-fresh"),
            "HAProxy, http-no-delay, a connection per request": (fresh, OPENAI_CHAT),
        },
    }
    for path, others in beside.items():
        ours, theirs = [], {name: [] for name in others}
        runs = [(ours, server, path)]
        runs += [(theirs[name], other, at) for name, (other, at) in others.items()]
        for index in range(bench.effort.pairs + 1):
            bench.heartbeat(server, register=0)
            for figures, one, at in runs if index % 2 else reversed(runs):
                measured = _streamed(bench, one, at)
                if index > 0:  # the first round warms up
                    figures.append(measured)
        for name, figures in theirs.items():
            yield from _stream_lines(path, ours, name, figures)


def _streamed(bench, server, path):
    """(p99 of the time to the first byte in ms, CPU seconds of the proxy, lost events)"""
    before = server.program.cpu_seconds()
    events = EVENTS_PER_SECOND * bench.effort.stream_seconds
    figures = bench.generator.run(
        "stream",
        port=server.port,
        path=path,
        model=MODEL,
        streams=STREAMS,
        events=events,
        rate=EVENTS_PER_SECOND,
        limit=bench.effort.stream_seconds * 5 + 10,
    )
    cpu = server.program.cpu_seconds() - before
    if server.name != "tavrel" and figures["complete"] != STREAMS:
        raise BenchError(f"{server.name} did not complete all streams: {figures}")
    lost = figures["expected"] - figures["events"]
    return figures["first_byte_ms"]["p99"], cpu, lost


def _stream_lines(path, ours, beside, theirs):
    work = f"{STREAMS} streams at {EVENTS_PER_SECOND} events/s, POST {path}"
    first = [(a[0], b[0]) for a, b in zip(ours, theirs)]
    cpu = [(a[1], b[1]) for a, b in zip(ours, theirs)]
    in_ms = [median(column) for column in zip(*first)]
    in_cpu = [median(column) for column in zip(*cpu)]
    yield ratio_line(
        f"{work}: first byte p99", beside, first, at_most=1.3,
        detail=f"{in_ms[0]:.1f} ms beside {in_ms[1]:.1f} ms",
    )
    yield ratio_line(
        f"{work}: CPU of the proxy", beside, cpu, at_most=2,
        detail=f"{in_cpu[0]:.2f} s beside {in_cpu[1]:.2f} s",
    )
    if beside.startswith("nginx"):  # once per path is enough: this is about ours alone
        yield value_line(f"{work}: events lost", [max(a[2] for a in ours)], "events", at_most=0)


def leave(bench):
    server = bench.controller()
    for path, streamed in ((OPENAI_CHAT, 1), (CLUSTER_STREAM, 1), (OPENAI_CHAT, 0), (CLUSTER_CHAT, 0)):
        bench.heartbeat(server, register=0)
        figures = bench.generator.run(
            "leave",
            port=server.port,
            backend_port=bench.backend_ports[0],
            path=path,
            model=MODEL,
            stream=streamed,
            count=bench.effort.leavers,
        )
        if figures["unnoticed"]:
            raise BenchError(f"{path}: the worker never saw {figures['unnoticed']} clients leave")
        kind = "streamed" if streamed else "plain"
        noticed = figures["noticed_ms"]
        yield value_line(
            f"client leaves, {kind} POST {path}: seen by the worker, p99",
            [noticed["p99"]], "ms", at_most=100,
            detail=f"p50 {noticed['p50']:.2f} ms, {noticed['samples']} clients",
        )


def workers(bench):
    few = bench.controller()
    kinds = (("all with the model", MANY_WORKERS), ("10 with the model", WORKERS))
    for kind, with_model in kinds:
        registered = {"workers": MANY_WORKERS, "with_model": with_model}
        many = bench.controller(**registered)
        for path in (OPENAI_CHAT, CLUSTER_CHAT):
            for clients in bench.effort.many_clients:
                pairs = bench.alternate(
                    bench.chat(many, path, clients, registered=registered),
                    bench.chat(few, path, clients, registered={}),
                )
                yield ratio_line(
                    f"POST {path}, {clients} clients, {MANY_WORKERS:,} workers, {kind}",
                    "itself with 10 workers", pairs, at_least=0.80,
                )
        bench.machine.stop(many.program)


def heartbeats(bench):
    """An hour of heartbeats, compressed. The histories of the workers are full after half of it, so
    the second half must not need more memory."""
    server = bench.servers.controller()
    half = max(1, bench.effort.heartbeat_rounds // 2)
    first = bench.heartbeat(server, workers=MANY_WORKERS, rounds=half)
    middle = server.program.resident_bytes()
    cpu = server.program.cpu_seconds()
    second = bench.heartbeat(server, workers=MANY_WORKERS, rounds=half, register=0)
    cpu = server.program.cpu_seconds() - cpu
    end = server.program.resident_bytes()
    work = f"heartbeats with full metrics, {MANY_WORKERS:,} workers"
    yield value_line(
        f"{work}: rate", [second["per_second"] / 1000], "thousand/s",
        detail=f"{first['heartbeats'] + second['heartbeats']:,} of {second['bytes_each']} bytes",
    )
    yield value_line(f"{work}: CPU of one", [cpu * 1e6 / second["heartbeats"]], "us")
    full = half >= 360  # samples kept per worker
    yield ratio_line(
        f"{work}: memory after {2 * half} rounds", f"itself after {half}", [(end, middle)],
        at_most=1.02 if full else None,
        detail=f"{end / MIB:.0f} MiB beside {middle / MIB:.0f} MiB"
        + ("" if full else " (histories still filling)"),
    )


def memory(bench):
    server = bench.servers.controller()
    time.sleep(2)
    idle = server.program.resident_bytes()
    yield value_line("resident memory, idle", [idle / MIB], "MiB", at_most=20)
    with _idle_connections(bench, server):
        with_connections = server.program.resident_bytes()
    each = (with_connections - idle) / IDLE_CONNECTIONS / 1024
    yield value_line(
        f"resident memory per idle connection ({IDLE_CONNECTIONS:,})", [each], "KiB", at_most=8,
        detail=f"{with_connections / MIB:.1f} MiB in all",
    )
    bench.machine.stop(server.program)
    many = bench.controller(workers=MANY_WORKERS)
    yield value_line(
        f"resident memory, {MANY_WORKERS:,} workers", [many.program.resident_bytes() / MIB], "MiB"
    )


@contextmanager
def _idle_connections(bench, server):
    command = bench.generator.command(
        "idle", port=server.port, path=HEALTH, connections=IDLE_CONNECTIONS, hold=60
    )
    with subprocess.Popen(
        command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True
    ) as client:
        try:
            if "ready" not in client.stdout.readline():
                raise BenchError("the idle connections could not be opened")
            time.sleep(1)
            yield
        finally:
            client.stdin.close()
            client.wait()


ROWS = {
    "health": health,
    "auth": auth,
    "chat": chat,
    "pooled": pooled,
    "gateway": gateway,
    "stream": stream,
    "leave": leave,
    "workers": workers,
    "heartbeats": heartbeats,
    "memory": memory,
}
