"""The workloads: each has a name, the function that runs it, its servers, its job, and the number of its rounds."""

from typing import Callable, NamedTuple

import clients
import extras
import memory
from process import settled
from servers import COUNTED, HOST

PEERS = ("mivo", "nginx", "haproxy")
QUOTED = (*PEERS, "caddy")  # the columns of the README's table
OWN = ("mivo",)
FLOOR = "floor"
SELECT_FLOOR = "select floor"

MOST_ROUNDS = 10  # for figures that are close to a bar, and for latencies
ROUNDS = 7  # for other figures that a bar or the README quotes
FEW_ROUNDS = 3  # for the rest


class Workload(NamedTuple):
    measure: Callable  # (bench, server, seconds) -> figures by name, the most important one first
    servers: tuple
    rounds: int
    job: str = "http"


def timed(load):
    """Makes a workload of requests to a running server. `load(bench, server, seconds)` returns clients.Figures."""

    def measure(bench, server, seconds):
        server.reset_peak()
        before, user_before = server.processor(), server.user()
        figures = load(bench, server, seconds)
        used, in_user_mode = server.processor() - before, server.user() - user_before
        if figures.failed or not figures.requests:
            raise RuntimeError(f"{figures.failed} of {figures.requests} requests failed")
        return {
            "processor_us_per_request": used * 1e6 / figures.requests,
            "user_us_per_request": in_user_mode * 1e6 / figures.requests,
            "requests": figures.requests,
            "requests_per_second": figures.requests / figures.seconds,
            "p50_ms": figures.p50,
            "p99_ms": figures.p99,
            "longest_ms": figures.longest,
            "peak_kib": server.peak(),
            "command": figures.command,
        }

    return measure


def kept_alive(connections, path, servers, rounds, job="http"):
    def load(bench, server, seconds):
        return clients.wrk(server.url(path), HOST, connections, seconds)

    return Workload(timed(load), servers, rounds, job)


def new_connections(connections, servers):
    def load(bench, server, seconds):
        return clients.ab(server.url("/128"), HOST, connections, seconds)

    return Workload(timed(load), servers, ROUNDS)


def handshakes(connections):
    def load(bench, server, seconds):
        return clients.hey(server.url("/128"), HOST, connections, seconds)

    return Workload(timed(load), QUOTED, ROUNDS, "https")


def fresh_https():
    def load(bench, server, seconds):
        return clients.fresh_https(server.port, HOST, "/128", seconds)

    return Workload(timed(load), PEERS, ROUNDS, "https")


def download(servers, job="http"):
    def load(bench, server, seconds):
        return clients.curl(server.url("/1g"), HOST, seconds)

    return Workload(timed(load), servers, ROUNDS, job)


def first_bytes():
    def load(bench, server, seconds):
        def pause():
            settled(server.processor, 1e-3, quiet=0.05)

        # A hundredth of the seconds is enough: the pauses take most of the time.
        return clients.first_bytes(server.port, HOST, "/1g", seconds / 100, pause)

    return Workload(timed(load), PEERS, ROUNDS)


def upload(rounds, job="http"):
    def load(bench, server, seconds):
        options = ["-H", "Expect:", "-T", str(bench.folder / "90m")]
        return clients.curl(server.url("/"), COUNTED, seconds, *options)

    return Workload(timed(load), PEERS, rounds, job)  # the floor has only one upstream


def other(measure, servers=PEERS, rounds=FEW_ROUNDS, job="http"):
    return Workload(measure, servers, rounds, job)


WORKLOADS = {
    "keep-alive, 1 client": kept_alive(1, "/128", (*PEERS, FLOOR), FEW_ROUNDS),
    "keep-alive, 16 clients": kept_alive(16, "/128", (*PEERS, FLOOR), MOST_ROUNDS),
    "keep-alive, 64 clients": kept_alive(64, "/128", (*QUOTED, FLOOR, SELECT_FLOOR), MOST_ROUNDS),
    "keep-alive, 400 clients": kept_alive(400, "/128", (*QUOTED, FLOOR), MOST_ROUNDS),
    "keep-alive, 64 clients, 16 KiB": kept_alive(64, "/16k", (*PEERS, FLOOR), FEW_ROUNDS),
    "keep-alive, 16 clients, 1 MiB": kept_alive(16, "/1m", (*PEERS, FLOOR), FEW_ROUNDS),
    "new connections, 64 at once": new_connections(64, (*QUOTED, "nginx unpooled", FLOOR, SELECT_FLOOR)),
    "new connections, one after the other": new_connections(1, (*PEERS, "nginx unpooled", FLOOR, SELECT_FLOOR)),
    "1 GiB download": download((*QUOTED, FLOOR)),
    "1 GiB, first bytes": first_bytes(),
    "90 MiB upload": upload(FEW_ROUNDS),
    "TLS keep-alive, 64 clients": kept_alive(64, "/128", QUOTED, ROUNDS, "https"),
    "TLS keep-alive, 64 clients, 16 KiB": kept_alive(64, "/16k", PEERS, FEW_ROUNDS, "https"),
    "TLS keep-alive, 16 clients, 1 MiB": kept_alive(16, "/1m", PEERS, ROUNDS, "https"),
    "TLS new connections, 4 at once": handshakes(4),
    "TLS new connections, one after the other": fresh_https(),
    "TLS 1 GiB download": download(QUOTED, "https"),
    "TLS 90 MiB upload": upload(ROUNDS, "https"),
    "slow client": other(memory.slow_client, QUOTED, ROUNDS),
    "idle client": other(memory.idle, QUOTED, ROUNDS),
    "TLS idle client": other(memory.idle, QUOTED, ROUNDS, "https"),
    "after the start": other(memory.after_start, QUOTED, ROUNDS),
    "TLS after the start": other(memory.after_start, QUOTED, ROUNDS, "https"),
    "start": other(extras.start, QUOTED, ROUNDS),
    "TLS start": other(extras.start, QUOTED, ROUNDS, "https"),
    "stripped program": other(extras.program_size, rounds=1),
    "system calls, 1 client": other(extras.system_calls(1), rounds=ROUNDS),
    "system calls, 64 clients": other(extras.system_calls(64), rounds=ROUNDS),
    "system calls, new connections": other(
        extras.new_connection_calls, (*PEERS, "nginx unpooled", FLOOR), rounds=ROUNDS
    ),
    "allocations, 16 clients": other(extras.allocations, OWN, ROUNDS),
    "processes on one port": other(extras.processes_on_one_port, OWN),
    "microbenchmarks": other(extras.microbenchmarks, OWN),
}
