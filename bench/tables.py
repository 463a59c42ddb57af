"""The tables of the page and of the README, as Markdown. A figure is a median, with the least and the greatest value
of its rounds in brackets."""

from typing import NamedTuple

import bars
import figures
from bars import COST, DOWN, HANDSHAKE, NEW, NEW_ALONE, TITLES, TLS_DOWN

OTHERS = ("nginx", "haproxy", "caddy", "nginx unpooled", "floor", "select floor")
COLUMNS = ("mivo", "nginx", "haproxy", "caddy")  # of the README's table and of others


def table(head, rows):
    """A Markdown table, aligned left; "" without rows."""
    if not rows:
        return ""
    lines = [f"| {' | '.join(head)} |", "|---" * len(head) + "|"]
    return "\n".join(lines + [f"| {' | '.join(row)} |" for row in rows]) + "\n"


def bars_table(results):
    words = {True: "yes", False: "**no**"}
    rows = []
    for bar in bars.BARS:
        measured = bar.read(results)
        limit = f"{bar.most:g} {bar.unit}".strip()
        if measured is None:
            rows.append((bar.name, "not measured", limit, "", ""))
            continue
        name = bar.name.replace("the better peer", f"the better peer, {TITLES.get(measured.other)}")
        text = f"{figures.text_of(measured.spread)} {bar.unit}".strip()
        rows.append((name, text, limit, str(measured.spread.count), words[bars.is_met(bar, measured)]))
    return table(("what", "measured", "at most", "rounds", "met"), rows)


def with_servers(results, figure, servers, factor=1.0):
    """A row for each workload that has this figure for mivo."""
    for name in results:
        if figures.spread(results, name, "mivo", figure):
            cells = [figures.text_of(figures.spread(results, name, server, figure, factor)) for server in servers]
            yield name, *cells


def cost_table(results, figure=COST):
    servers = ("mivo", *OTHERS)
    head = ("workload", *(TITLES[server] for server in servers))
    return table(head, list(with_servers(results, figure, servers)))


def ratio_table(results):
    rows = []
    for name in results:
        cells = [figures.text_of(figures.ratio(results, name, COST, other)) for other in OTHERS]
        if any(cells):
            rows.append((name, *cells))
    return table(("workload", *(f"of {TITLES[other]}" for other in OTHERS)), rows)


def p99_table(results):
    servers = (*COLUMNS, "floor")
    head = ("workload", *(TITLES[server] for server in servers))
    rows = [row for row in with_servers(results, "p99_ms", servers) if "keep-alive" in row[0]]
    return table(head, rows)


class Row(NamedTuple):
    """A row with one figure of each server."""

    title: str
    workload: str
    figure: str
    factor: float = 1.0


# The figures that are not processor time of a request.
PLAIN_ROWS = [
    Row("client that has sent nothing, KiB", "idle client", "kib_per_silent_client"),
    Row("idle client whose request was relayed, KiB", "idle client", "kib_per_client"),
    Row("the same over TLS, KiB", "TLS idle client", "kib_per_client"),
    Row("resident memory (RSS) after the start, MiB", "after the start", "resident_kib", 1 / 1024),
    Row("the same with TLS, MiB", "TLS after the start", "resident_kib", 1 / 1024),
    Row("of that, in one process alone, MiB", "TLS after the start", "private_kib", 1 / 1024),
    Row("slow client: bytes waiting, MiB", "slow client", "waiting_kib", 1 / 1024),
    Row("slow client: memory taken, MiB", "slow client", "growth_kib", 1 / 1024),
    Row("slow client: kept afterwards, MiB", "slow client", "kept_kib", 1 / 1024),
    Row("from the start to the first connection, ms", "start", "listening_ms"),
    Row("the same with TLS, ms", "TLS start", "listening_ms"),
    Row("stripped program, KB", "stripped program", "bytes", 1e-3),
    Row("system calls for a kept-alive request, 1 client", "system calls, 1 client", "calls_per_request"),
    Row("waits for it", "system calls, 1 client", "waits_per_request"),
    Row("system calls for a kept-alive request, 64 clients", "system calls, 64 clients", "calls_per_request"),
    Row("waits for it", "system calls, 64 clients", "waits_per_request"),
    Row("console writes for it", "system calls, 64 clients", "console_writes_per_request"),
    Row("system calls for a request on a new connection", bars.NEW_CALLS, "calls_per_request"),
    Row("waits for it", bars.NEW_CALLS, "waits_per_request"),
    Row("allocations for a kept-alive request", "allocations, 16 clients", "allocations_per_request"),
    Row("one process on a port, requests/s", "processes on one port", "requests_per_second_1"),
    Row("two processes on a port, requests/s", "processes on one port", "requests_per_second_2"),
]

# The rows of the README's table. HTTPS comes first, because the configurations there are for HTTPS.
README_ROWS = [
    Row("resident memory (RSS) after the start, MiB", "TLS after the start", "resident_kib", 1 / 1024),
    Row("from the start to the first connection, ms", "TLS start", "listening_ms"),
    Row("processor time of a request over HTTPS, 64 clients that stay connected, µs", "TLS keep-alive, 64 clients", COST),
    Row("processor time of a request over HTTPS on a new connection, µs", HANDSHAKE, COST),
    Row("processor time of a download of 1 GiB over HTTPS, s", TLS_DOWN, COST, 1e-6),
    Row("memory of an idle HTTPS client, KiB", "TLS idle client", "kib_per_client"),
    Row("processor time of a request over HTTP, 64 clients that stay connected, µs", "keep-alive, 64 clients", COST),
    Row("processor time of a request over HTTP, 400 clients that stay connected, µs", "keep-alive, 400 clients", COST),
    Row("processor time of a request over HTTP on a new connection, µs", NEW, COST),
    Row("processor time of a download of 1 GiB over HTTP, s", DOWN, COST, 1e-6),
    Row("memory of an idle HTTP client, KiB", "idle client", "kib_per_client"),
    Row("memory while a slow client has 192 of 256 MiB to come, MiB", "slow client", "growth_kib", 1 / 1024),
]


def spreads(results, row, servers=COLUMNS):
    return {server: figures.spread(results, row.workload, server, row.figure, row.factor) for server in servers}


def rows_table(results, rows, first=()):
    cells = []
    for row in rows:
        found = spreads(results, row)
        if found["mivo"]:
            cells.append((row.title, *(figures.text_of(found[server]) for server in COLUMNS)))
    return table(("", *(TITLES[server] for server in COLUMNS)), [*first, *cells])


def lost_rows(results, rows):
    """The rows in which mivo takes more than the best of the others."""
    lost = []
    for row in rows:
        found = spreads(results, row)
        others = [one.median for server, one in found.items() if one and server != "mivo"]
        if found["mivo"] and others and found["mivo"].median > min(others):
            lost.append(row)
    return lost


def unpooled_text(results):
    """The figures of mivo and of nginx without its pool, for both workloads with new connections."""
    parts = []
    for name, words in ((NEW, "64 at once"), (NEW_ALONE, "one after the other")):
        own, other = (figures.spread(results, name, server, COST) for server in ("mivo", "nginx unpooled"))
        if own and other:
            text = f"`mivo` takes {figures.text_of(own)} µs and nginx without its pool {figures.text_of(other)} µs"
            parts.append(f"{text}, {words}")
    return "; ".join(parts)


def micro_table(results):
    runs = results.get("microbenchmarks", {}).get("mivo", [])
    names = [name for name in runs[0] if name != "round"] if runs else []
    rows = [(name, figures.text_of(figures.spread(results, "microbenchmarks", "mivo", name))) for name in names]
    return table(("benchmark", "ns"), rows)


def failures_text(data):
    lines = []
    for name, workload in data["workloads"].items():
        for one in workload["failures"]:
            lines.append(f"* {name}, round {one['round']}, {one['server']}: {one['cause']}")
    return "\n".join(lines) + "\n" if lines else ""
