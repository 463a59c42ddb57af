"""The tables: figures and ratios of every workload, and the bars that mivo is to stay under."""

import statistics

PEERS = ("nginx", "haproxy")
OTHERS = ("nginx", "nginx unpooled", "haproxy", "floor")
TITLES = {"mivo": "mivo", "nginx": "nginx", "nginx unpooled": "nginx unpooled", "haproxy": "HAProxy"}
COST = "processor_us_per_request"


def median(results, workload, server, figure):
    """The median over the rounds, or None when there is no such figure."""
    runs = results.get(workload, {}).get(server, [])
    values = [run[figure] for run in runs if run.get(figure) is not None]
    return statistics.median(values) if values else None


def ratio(results, workload, figure, *others):
    """mivo's figure over the least of the others'; None when one is missing."""
    own = median(results, workload, "mivo", figure)
    theirs = [median(results, workload, other, figure) for other in others]
    if own is None or None in theirs or min(theirs) <= 0:
        return None
    return own / min(theirs)


def own_figure(workload, figure, factor=1.0):
    def read(results):
        value = median(results, workload, "mivo", figure)
        return None if value is None else value * factor

    return read


def beside(workload, figure, *others):
    return lambda results: ratio(results, workload, figure, *others)


def given_back(results):
    """The share of what a slow client made mivo take that is still there after it. Buffers that are kept for
    the next client are in it, a few MiB whatever the body: hence a bar of a tenth, not of nothing."""
    kept = median(results, "slow client", "mivo", "kept_kib")
    growth = median(results, "slow client", "mivo", "growth_kib")
    return None if kept is None or not growth else kept / growth


def keep_alive_bars():
    for count, peers, floor in ((16, 0.90, 1.35), (64, 0.90, 1.35), (400, 0.75, 1.50)):
        name = f"keep-alive, {count} clients"
        yield f"{name}: processor time, of the better peer", beside(name, COST, *PEERS), peers, ""
        yield f"{name}: processor time, of the floor", beside(name, COST, "floor"), floor, ""
        yield f"{name}: p99 latency, of the better peer", beside(name, "p99_ms", *PEERS), 1.0, ""


HANDSHAKE = "TLS handshakes, 4 clients"
TLS_DOWN, TLS_UP = "TLS 1 GiB download", "TLS 90 MiB upload"
NEW = "new connection per request, 64 at once"
FRESH = "TLS new connection and request"

# What, how it is read from the results, the most it may be, the unit ("" for a ratio)
BARS = [
    *keep_alive_bars(),
    ("new connection per request: processor time, of the floor", beside(NEW, COST, "floor"), 1.15, ""),
    ("the same, of nginx unpooled", beside(NEW, COST, "nginx unpooled"), 1.0, ""),
    ("1 GiB down: processor time, of the better peer", beside("1 GiB download", COST, *PEERS), 1.0, ""),
    ("1 GiB down: peak memory", own_figure("1 GiB download", "peak_kib", 1 / 1024), 48, "MiB"),
    ("1 GiB down: first bytes, of the better peer", beside("1 GiB, first bytes", "p50_ms", *PEERS), 1.0, ""),
    ("slow client: memory for each byte waiting", own_figure("slow client", "growth_per_waiting"), 1.15, ""),
    ("slow client: share of it kept afterwards", given_back, 0.10, ""),
    ("TLS handshake: processor time, of the better peer", beside(HANDSHAKE, COST, *PEERS), 1.05, ""),
    ("TLS 1 GiB down: processor time, of the better peer", beside(TLS_DOWN, COST, *PEERS), 1.05, ""),
    ("TLS 90 MiB up: processor time, of the better peer", beside(TLS_UP, COST, *PEERS), 1.05, ""),
    ("fresh HTTPS request: p50 latency, of the better peer", beside(FRESH, "p50_ms", *PEERS), 1.0, ""),
    ("idle proxied client", own_figure("idle proxied client", "kib_per_client"), 20, "KiB"),
    ("idle proxied client over TLS", own_figure("TLS idle proxied client", "kib_per_client"), 40, "KiB"),
    ("resident after start", own_figure("resident after start", "plain_kib", 1 / 1024), 3, "MiB"),
    ("from start to listening", own_figure("start", "listening_ms"), 5, "ms"),
    ("stripped program", own_figure("stripped program", "bytes", 1e-3), 250, "KB"),
    ("system calls per request, 1 client", own_figure("system calls, 1 client", "calls_per_request"), 4, ""),
    ("the same, 64 clients", own_figure("system calls, 64 clients", "calls_per_request"), 4, ""),
    ("allocations per request", own_figure("allocations, 16 clients", "allocations_per_request"), 0, ""),
]


def bars(results):
    rows = []
    for name, read, bar, unit in BARS:
        figure = read(results)
        met = None if figure is None else figure <= bar
        rows.append({"name": name, "figure": figure, "bar": bar, "unit": unit, "met": met})
    return rows


def bars_table(rows):
    lines = ["| line | measured | at most | met |", "|---|---|---|---|"]
    words = {True: "yes", False: "**no**", None: ""}
    for row in rows:
        figure = "not measured" if row["figure"] is None else f"{row['figure']:.2f} {row['unit']}".strip()
        limit = f"{row['bar']:g} {row['unit']}".strip()
        lines.append(f"| {row['name']} | {figure} | {limit} | {words[row['met']]} |")
    return "\n".join(lines) + "\n"


def cell(value):
    return "" if value is None else f"{value:.2f}"


def ratio_table(results):
    """Processor time of mivo per request, and as a ratio to each of the others; the rest is mivo's alone."""
    lines = ["| workload | mivo, µs | of nginx | of nginx unpooled | of HAProxy | of the floor | requests/s"]
    lines[0] += " | p50, ms | p99, ms | longest, ms | peak, MiB |"
    lines.append("|---" * 11 + "|")
    for name in results:
        if median(results, name, "mivo", COST) is None:
            continue
        own = {f: median(results, name, "mivo", f) for f in (COST, "requests_per_second", "peak_kib")}
        ratios = [cell(ratio(results, name, COST, other)) for other in OTHERS]
        latencies = [cell(median(results, name, "mivo", f)) for f in ("p50_ms", "p99_ms", "longest_ms")]
        cells = [name, f"{own[COST]:.1f}", *ratios, f"{own['requests_per_second']:.1f}", *latencies]
        lines.append(f"| {' | '.join(cells)} | {own['peak_kib'] / 1024:.1f} |")
    return "\n".join(lines) + "\n"


def p99_table(results):
    lines = ["| workload | mivo, ms | nginx | HAProxy | floor |", "|---|---|---|---|---|"]
    for name in results:
        p99 = [median(results, name, server, "p99_ms") for server in ("mivo", *PEERS, "floor")]
        if p99[0]:
            lines.append(f"| {name} | {' | '.join(cell(value) for value in p99)} |")
    return "\n".join(lines) + "\n"


# Figures that are no processor time: workload, figure, what the table calls it, factor
PLAIN_FIGURES = [
    ("idle client", "kib_per_client", "idle client, KiB", 1),
    ("idle proxied client", "kib_per_client", "idle proxied client, KiB", 1),
    ("TLS idle proxied client", "kib_per_client", "idle proxied client over TLS, KiB", 1),
    ("resident after start", "plain_kib", "resident after start, MiB", 1 / 1024),
    ("resident after start", "tls_kib", "the same with TLS, MiB", 1 / 1024),
    ("resident after start", "private_kib", "resident after start and shared with nobody, MiB", 1 / 1024),
    ("slow client", "waiting_kib", "slow client: bytes waiting, MiB", 1 / 1024),
    ("slow client", "growth_kib", "slow client: memory taken, MiB", 1 / 1024),
    ("slow client", "kept_kib", "slow client: kept afterwards, MiB", 1 / 1024),
    ("start", "listening_ms", "from start to listening, ms", 1),
    ("stripped program", "bytes", "stripped program, KB", 1e-3),
    ("system calls, 1 client", "calls_per_request", "system calls per request, 1 client", 1),
    ("system calls, 1 client", "waits_per_request", "waits per request, 1 client", 1),
    ("system calls, 64 clients", "calls_per_request", "system calls per request, 64 clients", 1),
    ("system calls, 64 clients", "waits_per_request", "waits per request, 64 clients", 1),
    ("system calls, 64 clients", "console_writes_per_request", "console writes per request", 1),
    ("allocations, 16 clients", "allocations_per_request", "allocations per request", 1),
    ("processes on one port", "requests_per_second_1", "one process on a port, requests/s", 1),
    ("processes on one port", "requests_per_second_2", "two processes on a port, requests/s", 1),
]


def plain_table(results):
    lines = ["| figure | mivo | nginx | HAProxy |", "|---|---|---|---|"]
    for workload, figure, title, factor in PLAIN_FIGURES:
        values = [median(results, workload, server, figure) for server in ("mivo", *PEERS)]
        if any(value is not None for value in values):
            cells = [cell(None if value is None else value * factor) for value in values]
            lines.append(f"| {title} | {' | '.join(cells)} |")
    return "\n".join(lines) + "\n"


def failures_text(failures):
    lines = [f"* round {f['round']}, {f['workload']}, {f['server']}: {f['cause']}" for f in failures]
    return "Failed:\n\n" + "\n".join(lines) + "\n" if lines else ""


def everything(data):
    results = data["results"]
    texts = [ratio_table(results), p99_table(results), plain_table(results), bars_table(data.get("bars", []))]
    # A table that is nothing but its head is left out.
    texts = [text for text in texts if text.count("\n") > 2]
    failed = failures_text(data["failures"])
    return "\n".join(texts + ([failed] if failed else []))
