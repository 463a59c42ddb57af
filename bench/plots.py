"""The plots of docs/performance.md, and the sentence that reads each. A plot without figures is left out."""

import matplotlib

matplotlib.use("svg")
import matplotlib.pyplot as plt  # noqa: E402
from tables import COST, TITLES, median

# The same figures give the same file.
matplotlib.rcParams.update({"svg.hashsalt": "mivo", "svg.fonttype": "none", "font.size": 9})

SERVERS = ("mivo", "nginx", "nginx unpooled", "haproxy", "floor")
COLOURS = {
    "mivo": "#1f5fa8",
    "nginx": "#3a923a",
    "nginx unpooled": "#a5cfa5",
    "haproxy": "#d07020",
    "floor": "#909090",
}
CLIENTS = (1, 16, 64, 400)


def title(server):
    return TITLES.get(server, server)


def save(figure, axes, path, name):
    axes.spines[["top", "right"]].set_visible(False)
    axes.legend(frameon=False)
    figure.tight_layout()
    figure.savefig(path, metadata={"Date": None, "Title": name})
    plt.close(figure)


def over_clients(results, figure, label, path, servers):
    """Lines over the number of kept-alive clients; whether there was anything to draw."""
    drawing, axes = plt.subplots(figsize=(6.4, 3.4))
    drawn = False
    for server in servers:
        names = [f"keep-alive, {n} client{'s' if n > 1 else ''}" for n in CLIENTS]
        points = [(n, median(results, name, server, figure)) for n, name in zip(CLIENTS, names)]
        points = [(n, value) for n, value in points if value is not None]
        if points:
            drawn = True
            axes.plot(*zip(*points), marker="o", label=title(server), color=COLOURS[server])
    axes.set_xscale("log")
    axes.set_xticks(CLIENTS, [str(n) for n in CLIENTS])
    axes.minorticks_off()
    axes.set_yscale("log")
    axes.set_xlabel("clients at once")
    axes.set_ylabel(label)
    save(drawing, axes, path, label) if drawn else plt.close(drawing)
    return drawn


def side_by_side(results, bars, label, path, servers):
    """Groups of bars. `bars`: (workload, figure, name under the group, factor)."""
    drawing, axes = plt.subplots(figsize=(6.4, 3.4))
    width = 0.8 / len(servers)
    drawn = False
    for at, server in enumerate(servers):
        values = [median(results, workload, server, figure) for workload, figure, _, _ in bars]
        places = [i + (at - (len(servers) - 1) / 2) * width for i in range(len(bars))]
        pairs = [(p, v * bar[3]) for p, v, bar in zip(places, values, bars) if v is not None]
        if pairs:
            drawn = True
            axes.bar(*zip(*pairs), width, label=title(server), color=COLOURS[server])
    axes.set_xticks(range(len(bars)), [bar[2] for bar in bars])
    axes.set_ylabel(label)
    save(drawing, axes, path, label) if drawn else plt.close(drawing)
    return drawn


def compared(results, workload, figure, unit, servers, factor=1.0):
    """"mivo 8.8 µs, nginx 9.7 µs": the figures that a sentence is about."""
    parts = []
    for server in servers:
        value = median(results, workload, server, figure)
        if value is not None:
            value *= factor
            parts.append(f"{title(server)} {value:.{0 if value >= 100 else 1}f} {unit}")
    return ", ".join(parts) or "not measured"


KEPT = "keep-alive, 64 clients"
PEERS = ("mivo", "nginx", "haproxy")
BULK = [
    ("1 GiB download", COST, "1 GiB down", 1e-3),
    ("TLS 1 GiB download", COST, "1 GiB down, TLS", 1e-3),
    ("90 MiB upload", COST, "90 MiB up", 1e-3 * 1024 / 90),
    ("TLS 90 MiB upload", COST, "90 MiB up, TLS", 1e-3 * 1024 / 90),
]
CONNECTIONS = [
    ("new connection per request, 64 at once", COST, "new connection\nand request", 1),
    ("TLS handshakes, 4 clients", COST, "TLS handshake", 1),
    ("TLS new connection and request", COST, "TLS handshake\nand request", 1),
]
IDLE = [
    ("idle client", "kib_per_client", "nothing sent", 1),
    ("idle proxied client", "kib_per_client", "proxied", 1),
    ("TLS idle proxied client", "kib_per_client", "proxied, TLS", 1),
]


def draw_all(results, folder):
    """Draws into `folder`; returns (heading, file name, sentence) for each plot drawn."""
    folder.mkdir(parents=True, exist_ok=True)
    plots = []

    def add(heading, name, drawn, sentence):
        if drawn:
            plots.append((heading, name, sentence))

    path = folder / "keep-alive.svg"
    drawn = over_clients(results, COST, "processor time per request, µs", path, PEERS + ("floor",))
    sentence = f"With 64 clients a kept-alive request costs: {compared(results, KEPT, COST, 'µs', SERVERS)}."
    add("Processor time of a kept-alive request", path.name, drawn, sentence)

    path = folder / "latency.svg"
    drawn = over_clients(results, "p99_ms", "p99 latency, ms", path, PEERS + ("floor",))
    figures = compared(results, "keep-alive, 400 clients", "p99_ms", "ms", SERVERS)
    sentence = f"With 400 clients that never pause, one request in 100 takes longer than: {figures}."
    add("Latency of a kept-alive request", path.name, drawn, sentence)

    path = folder / "connections.svg"
    drawn = side_by_side(results, CONNECTIONS, "processor time each, µs", path, SERVERS)
    figures = compared(results, CONNECTIONS[0][0], COST, "µs", SERVERS)
    add("New connections", path.name, drawn, f"A new connection with its request costs: {figures}.")

    path = folder / "bulk.svg"
    drawn = side_by_side(results, BULK, "processor time per GiB, ms", path, PEERS + ("floor",))
    figures = compared(results, "1 GiB download", COST, "ms", SERVERS, 1e-3)
    add("Large bodies", path.name, drawn, f"A download of 1 GiB costs: {figures}.")

    path = folder / "idle.svg"
    drawn = side_by_side(results, IDLE, "resident per client, KiB", path, PEERS)
    figures = compared(results, "idle proxied client", "kib_per_client", "KiB", PEERS)
    sentence = f"An idle client whose request was proxied keeps resident: {figures}."
    add("Memory of idle clients", path.name, drawn, sentence)
    return plots
