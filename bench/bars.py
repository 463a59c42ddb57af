"""The bars: limits that mivo should stay under, and the figure that was measured for each."""

from typing import Callable, NamedTuple

import figures

COST = "processor_us_per_request"
TITLES = {
    "mivo": "mivo",
    "nginx": "nginx",
    "nginx unpooled": "nginx without a pool",
    "haproxy": "HAProxy",
    "caddy": "Caddy",
    "floor": "the floor",
    "select floor": "the floor with select()",
}
PEERS = ("nginx", "haproxy")
UNPOOLED = ("nginx unpooled",)
FLOOR = ("floor",)

NEW, NEW_ALONE = "new connections, 64 at once", "new connections, one after the other"
NEW_CALLS = "system calls, new connections"
CALLS_ALONE, CALLS = "system calls, 1 client", "system calls, 64 clients"
HANDSHAKE, FRESH = "TLS new connections, 4 at once", "TLS new connections, one after the other"
DOWN, TLS_DOWN = "1 GiB download", "TLS 1 GiB download"
UP, TLS_UP = "90 MiB upload", "TLS 90 MiB upload"
TLS_LARGE = "TLS keep-alive, 16 clients, 1 MiB"


class Measured(NamedTuple):
    spread: figures.Spread
    other: str = ""  # the server that mivo is compared with, if this is a ratio


class Bar(NamedTuple):
    """`read` gets the results and returns Measured, or None when a figure is missing."""

    name: str
    read: Callable
    most: float
    unit: str = ""  # empty for a ratio


def beside(workload, figure, others):
    """Reads the ratio to one server: the server in `others` with the lowest median. All rounds are compared with it."""

    def read(results):
        other = figures.least_of(results, workload, figure, others)
        found = other and figures.ratio(results, workload, figure, other)
        return Measured(found, other) if found else None

    return read


def own(workload, figure, factor=1.0):
    def read(results):
        found = figures.spread(results, workload, "mivo", figure, factor)
        return Measured(found) if found else None

    return read


def given_back(results):
    """The share of the memory for a slow client that mivo still has when the client has gone. A few MiB of it are
    buffers that mivo keeps for the next client, however long the body is. So the bar is a tenth, not zero."""
    kept = figures.by_round(results, "slow client", "mivo", "kept_kib")
    growth = figures.by_round(results, "slow client", "mivo", "growth_kib")
    found = figures.spread_of(kept[n] / growth[n] for n in kept)
    return Measured(found) if found else None


def keep_alive_bars():
    for count, peers, floor in ((16, 0.90, 1.35), (64, 0.90, 1.35), (400, 0.75, 1.50)):
        name = f"keep-alive, {count} clients"
        yield Bar(f"{name}: processor time, of the better peer", beside(name, COST, PEERS), peers)
        yield Bar(f"{name}: processor time, of the floor", beside(name, COST, FLOOR), floor)
        yield Bar(f"{name}: p99 latency, of the better peer", beside(name, "p99_ms", PEERS), 1.0)


BARS = [
    Bar(f"{NEW}: processor time, of nginx without a pool", beside(NEW, COST, UNPOOLED), 0.95),
    Bar(f"{NEW}: processor time, of the floor", beside(NEW, COST, FLOOR), 1.10),
    Bar(f"{NEW_ALONE}: processor time, of nginx without a pool", beside(NEW_ALONE, COST, UNPOOLED), 1.0),
    Bar(f"{NEW_ALONE}: processor time, of the floor", beside(NEW_ALONE, COST, FLOOR), 1.20),
    Bar("a request on a new connection: system calls without waits", own(NEW_CALLS, "calls_per_request"), 18),
    Bar("16 clients, 1 MiB replies over TLS: processor time, of nginx", beside(TLS_LARGE, COST, ("nginx",)), 1.05),
    Bar("90 MiB up over TLS: processor time, of HAProxy", beside(TLS_UP, COST, ("haproxy",)), 1.05),
    *keep_alive_bars(),
    Bar("1 GiB down: processor time, of the better peer", beside(DOWN, COST, PEERS), 1.0),
    Bar("1 GiB down: peak memory", own(DOWN, "peak_kib", 1 / 1024), 48, "MiB"),
    Bar("1 GiB down: first bytes, of the better peer", beside("1 GiB, first bytes", "p50_ms", PEERS), 1.0),
    Bar("1 GiB down over TLS: processor time, of the better peer", beside(TLS_DOWN, COST, PEERS), 1.05),
    Bar("a TLS handshake and its request: processor time, of the better peer", beside(HANDSHAKE, COST, PEERS), 1.05),
    Bar("a TLS handshake and its request: p50 latency, of the better peer", beside(FRESH, "p50_ms", PEERS), 1.0),
    Bar("slow client: memory for each byte that waits", own("slow client", "growth_per_waiting"), 1.15),
    Bar("slow client: share of it kept afterwards", given_back, 0.10),
    Bar("idle client whose request was relayed", own("idle client", "kib_per_client"), 20, "KiB"),
    Bar("the same over TLS", own("TLS idle client", "kib_per_client"), 40, "KiB"),
    Bar("resident memory (RSS) after the start", own("after the start", "resident_kib", 1 / 1024), 3, "MiB"),
    Bar("from the start to the first connection", own("start", "listening_ms"), 5, "ms"),
    Bar("stripped program", own("stripped program", "bytes", 1e-3), 250, "KB"),
    Bar("kept-alive request, 1 client: system calls without waits", own(CALLS_ALONE, "calls_per_request"), 4),
    Bar("the same, 64 clients", own(CALLS, "calls_per_request"), 4),
    Bar("allocations per request", own("allocations, 16 clients", "allocations_per_request"), 0),
]


def is_met(bar, measured):
    """Compares the rounded figure that is printed. So 4.004 calls per request count as 4: a call is interrupted in one
    of 250 requests."""
    return float(figures.number(measured.spread.median)) <= bar.most
