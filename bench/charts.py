"""What the charts of the page show, and the sentence below each chart. Every panel has an axis of its own, which
begins at zero. The sentence quotes a panel, so every figure in the sentence is drawn, too."""

from typing import NamedTuple

import figures
from bars import COST, DOWN, HANDSHAKE, NEW, NEW_ALONE, TITLES, TLS_DOWN, TLS_UP, UP

RELAYS = ("mivo", "nginx", "haproxy", "floor")
PEERS = ("mivo", "nginx", "haproxy")
ALL = ("mivo", "nginx", "haproxy", "nginx unpooled", "floor")
COUNTS = (16, 64, 400)


class Panel(NamedTuple):
    title: str
    workload: str
    figure: str
    unit: str
    servers: tuple
    factor: float = 1.0


class Chart(NamedTuple):
    heading: str
    file: str
    panels: tuple
    quoted: int  # the panel whose figures the sentence quotes
    sentence: str  # the words before the figures


CHARTS = (
    Chart(
        "Processor time of a kept-alive request",
        "keep-alive.svg",
        tuple(Panel(f"{n} clients", f"keep-alive, {n} clients", COST, "µs", RELAYS) for n in COUNTS),
        1,
        "A request of 64 clients that stay connected costs",
    ),
    Chart(
        "Latency of a kept-alive request, p99",
        "latency.svg",
        tuple(Panel(f"{n} clients", f"keep-alive, {n} clients", "p99_ms", "ms", RELAYS) for n in COUNTS),
        2,
        "With 400 clients that never pause, one request in 100 takes longer than",
    ),
    Chart(
        "Processor time of a request on a new connection",
        "connections.svg",
        (
            Panel("64 at once", NEW, COST, "µs", ALL),
            Panel("one after the other", NEW_ALONE, COST, "µs", ALL),
            Panel("TLS, 4 at once", HANDSHAKE, COST, "µs", PEERS),
        ),
        0,
        "A request on a connection of its own, 64 at once, costs",
    ),
    Chart(
        "Processor time of large bodies",
        "bulk.svg",
        (
            Panel("1 GiB down", DOWN, COST, "ms", RELAYS, 1e-3),
            Panel("1 GiB down, TLS", TLS_DOWN, COST, "ms", PEERS, 1e-3),
            Panel("90 MiB up", UP, COST, "ms", PEERS, 1e-3),
            Panel("90 MiB up, TLS", TLS_UP, COST, "ms", PEERS, 1e-3),
        ),
        0,
        "A download of 1 GiB costs",
    ),
    Chart(
        "Memory of clients",
        "memory.svg",
        (
            Panel("idle, each", "idle client", "kib_per_client", "KiB", PEERS),
            Panel("idle over TLS, each", "TLS idle client", "kib_per_client", "KiB", PEERS),
            Panel("one slow client", "slow client", "growth_kib", "MiB", PEERS, 1 / 1024),
        ),
        0,
        "Resident memory of an idle client whose request was relayed",
    ),
)


def drawn(panel, results):
    """(server, spread) of each bar."""
    for server in panel.servers:
        found = figures.spread(results, panel.workload, server, panel.figure, panel.factor)
        if found:
            yield server, found


def is_drawn(chart, results):
    return all(any(drawn(panel, results)) for panel in chart.panels)


def sentence(chart, results):
    panel = chart.panels[chart.quoted]
    parts = [f"{TITLES[server]} {figures.text_of(found)} {panel.unit}" for server, found in drawn(panel, results)]
    return f"{chart.sentence}: {', '.join(parts)}."
