"""What is measured: each workload by its name, with the function that runs it and the servers it is for."""

from typing import Callable, NamedTuple

import clients
import extras
import memory
from process import settled
from servers import COUNTED, HOST

ALL = ("mivo", "nginx", "nginx unpooled", "haproxy", "floor")
PEERS = ("mivo", "nginx", "haproxy")
OWN = ("mivo",)


class Workload(NamedTuple):
    measure: Callable  # (bench, server, seconds) -> figures by name, the most telling one first
    servers: tuple
    tls: bool = False


def timed(load):
    """A workload of requests on a running server. `load(bench, server, seconds)` returns clients.Figures."""

    def measure(bench, server, seconds):
        server.reset_peak()
        before = server.processor()
        figures = load(bench, server, seconds)
        used = server.processor() - before
        if figures.failed or not figures.requests:
            raise RuntimeError(f"{figures.failed} of {figures.requests} requests failed")
        return {
            "processor_us_per_request": used.total * 1e6 / figures.requests,
            "user_seconds": used.user,
            "system_seconds": used.system,
            "requests_per_second": figures.requests / figures.seconds,
            "p50_ms": figures.p50,
            "p99_ms": figures.p99,
            "longest_ms": figures.longest,
            "peak_kib": server.peak(),
            "command": figures.command,
        }

    return measure


def kept_alive(connections, path, tls=False):
    def load(bench, server, seconds):
        return clients.wrk(server.url(path, tls), HOST, connections, seconds)

    return Workload(timed(load), PEERS if tls else ALL, tls)


def new_connections(connections, requests):
    def load(bench, server, seconds):
        return clients.ab(server.url("/128"), HOST, connections, requests)

    return Workload(timed(load), ALL)


def handshakes(count):
    def load(bench, server, seconds):
        return clients.handshakes(server.tls_port, count, seconds)

    return Workload(timed(load), PEERS, tls=True)


def fresh_https(count):
    def load(bench, server, seconds):
        return clients.fresh_https(server.tls_port, HOST, "/128", count)

    return Workload(timed(load), PEERS, tls=True)


def download(tls=False):
    def load(bench, server, seconds):
        return clients.curl(server.url("/1g", tls), HOST)

    return Workload(timed(load), PEERS if tls else ALL, tls)


def first_bytes(count):
    def load(bench, server, seconds):
        def pause():
            settled(lambda: server.processor().total, 1e-3, quiet=0.05)

        return clients.first_bytes(server.port, HOST, "/1g", count, pause)

    return Workload(timed(load), PEERS)


def upload(tls=False):
    def load(bench, server, seconds):
        options = ["-H", "Expect:", "-T", str(bench.folder / "90m")]
        return clients.curl(server.url("/counted", tls), COUNTED, *options)

    return Workload(timed(load), PEERS, tls)  # the floor knows one upstream only


WORKLOADS = {
    "keep-alive, 1 client": kept_alive(1, "/128"),
    "keep-alive, 16 clients": kept_alive(16, "/128"),
    "keep-alive, 64 clients": kept_alive(64, "/128"),
    "keep-alive, 400 clients": kept_alive(400, "/128"),
    "keep-alive, 64 clients, 16 KiB": kept_alive(64, "/16k"),
    "keep-alive, 16 clients, 1 MiB": kept_alive(16, "/1m"),
    "new connection per request, 64 at once": new_connections(64, 10000),
    "1 GiB download": download(),
    "1 GiB, first bytes": first_bytes(20),
    "90 MiB upload": upload(),
    "TLS keep-alive, 1 client": kept_alive(1, "/128", tls=True),
    "TLS keep-alive, 64 clients": kept_alive(64, "/128", tls=True),
    "TLS keep-alive, 64 clients, 16 KiB": kept_alive(64, "/16k", tls=True),
    "TLS keep-alive, 16 clients, 1 MiB": kept_alive(16, "/1m", tls=True),
    "TLS handshakes, 4 clients": handshakes(4),
    "TLS new connection and request": fresh_https(200),
    "TLS 1 GiB download": download(tls=True),
    "TLS 90 MiB upload": upload(tls=True),
    "slow client": Workload(memory.slow_client, PEERS),
    "idle client": Workload(memory.idle, PEERS),
    "idle proxied client": Workload(memory.idle_proxied, PEERS),
    "TLS idle proxied client": Workload(memory.idle_proxied_tls, PEERS),
    "resident after start": Workload(memory.after_start, PEERS),
    "start": Workload(extras.start, PEERS),
    "stripped program": Workload(extras.program_size, PEERS),
    "system calls, 1 client": Workload(extras.system_calls(1), PEERS),
    "system calls, 64 clients": Workload(extras.system_calls(64), PEERS),
    "allocations, 16 clients": Workload(extras.allocations, OWN),
    "processes on one port": Workload(extras.processes_on_one_port, OWN),
}
