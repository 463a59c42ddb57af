"""Writes docs/performance.md, its charts, and the table of figures in README.md.

    report.py [--figures FILE] [--docs FOLDER] [--readme FILE]

Without --figures, FILE is docs/performance/figures.json. In the README, the text between the two comments with
`figures` is replaced. No figure in these texts is typed by hand."""

import argparse
import re
import textwrap
from pathlib import Path

import bars
import charts
import figures
import tables
from servers import configuration_lines
from sources import FOLDERS, ROOT

FILES = {"nginx": "nginx.conf", "haproxy": "haproxy.cfg", "caddy": "Caddyfile"}

PAGE = """# Performance

`./bench/run` measures `mivo`, nginx, HAProxy, Caddy and a floor, and `./bench/run --report` writes this
page, its charts and the README's table from [the figures](performance/figures.json). No figure here is typed by hand.

{measured}

A figure is the median of its rounds. The lowest and the highest figure of a round are in brackets; without brackets,
all rounds gave the same figure. A ratio is `mivo`'s figure divided by the other server's: below 1, `mivo` takes less.
It is computed for each round, in which the servers ran one right after the other. The better peer is nginx or
HAProxy, whichever has the lower median.

The floor is the least that relaying costs: an epoll loop without a parser, one read and one write for each
direction (`bench/floor.cpp`). It connects to the upstream before the request has come; a server that routes by the Host
header cannot do that. The floor with select() is the same program with the wait that `mivo` uses.

## Machine, versions, flags

{machine}

{versions}

`mivo` is compiled with `{compiler}` and linked with `{linker}`.

## The same job for everybody

Each server is measured with the configuration in [peers](peers), one folder for each of two jobs:

* [http](peers/http) relays two names on one port to two local ports,
* [https](peers/https) does so over TLS, and redirects the plain port.

`bench/run` puts its own ports and paths into them, keeps nginx's temporary files and Caddy's data in its folder, and
turns Caddy's administration port off. nginx, HAProxy and Caddy keep upstream connections in a pool and share them
between clients; `mivo` does not. [nginx without its pool](peers/http/nginx_unpooled.conf) opens an upstream connection
for each request. It is shown where new connections are measured.

* Two cores: the proxy has core 0 to itself (`taskset`), load and upstream share core 1. Each proxy serves with one
  process or one thread there.
* wrk, ab, hey and curl make the load. A client in Python does what they cannot do. The upstream is nginx; for uploads
  and the slow client, it is a server in Python.
* Load runs for at least {seconds} s in each round. A round goes through all workloads. Within a workload, it goes
  through all servers, and another server begins in each round.
* Processor time is the user and system time that the kernel counts for all processes and threads of a server, divided
  by the number of requests in the round.
* The clients ask again as soon as they are answered, so latencies are those of a busy server.
* `mivo` prints a line for each request, to /dev/null here; the others log nothing.
* The client of new TLS connections (hey) resumes no session. It asks for a file over each connection, and reads first
  the session tickets and then the response.
* Resident memory (RSS) after the start includes the code of shared libraries. Each page counts once, however many
  processes of the server share it.
* Two processes on one port share both cores with load and upstream. So the figure shows that the processes share the
  port. It does not show what another core would bring.
* Several MiB of the bytes that wait for a slow client are in the system's buffers. nginx writes the bytes that do not
  fit into its own buffers to a file.

## The bars

{bars}
{not_met}## Processor time

Microseconds for each request. A download or upload is one request.

{costs}
## User time

The part of the processor time that was not spent in the kernel, in microseconds for each request. It is the cost of
the program and its libraries. The kernel samples it every 10 ms.

{users}
## Processor time of `mivo`, as a ratio

{ratios}
## Latency, p99 in ms

{latency}
## Memory, start, system calls

Waits are calls like `select()` and `epoll_wait()`. Many requests share a wait, so waits are not counted among the
system calls. Writes of the console's lines are not counted there either.

{plain}
{charts}{micro}{failures}## Commands

{commands}
"""

README = """Processor time is the time that all processes of a server take for one request. A figure is the median of
{rounds} rounds, with the lowest and the highest in brackets, measured on two cores of one machine on {date}.
{unpooled} {lost} [docs/performance.md](docs/performance.md) has the rest."""

MARKED = re.compile(r"(<!-- figures, by bench/run --report -->\n).*?(\n<!-- end of figures -->)", re.DOTALL)

# Reasons why a bar is hard to meet, by the beginning of its name. They are printed below the bars that are not met.
REASONS = {
    "keep-alive": "A response takes two turns of the loop. Each turn calls `select()`, which looks at all connections; "
    "the others' `epoll_wait()` does not. The fewer connections are ready at once, the fewer share the cost of a call. "
    "The ratio to the floor with select() shows what `mivo` adds to that.",
    "16 clients, 1 MiB replies over TLS": "`mivo` copies a response two more times than nginx does: into the pipe, and "
    "into the buffer of the client. The rest is OpenSSL's and the kernel's.",
    "90 MiB up over TLS": "`mivo` copies an upload two more times than HAProxy does: into the pipe, and into the "
    "buffer of the upstream.",
    "new connections": "`mivo` makes as many system calls as the floor, but it sends in the turn after the one that has "
    "read, which takes more waits. Each wait is a `select()`; the floor with select() shows its cost. The rest is the "
    "user time of the table below: the head, the console's line, the lists, and two connection objects for each "
    "request.",
    "resident memory": "Most of it is pages of shared libraries: OpenSSL is opened at the start, whether it is needed "
    "or not. What is shared with no other process is in the table of memory below.",
}


def filled(text):
    return textwrap.fill(text, 116, break_long_words=False, break_on_hyphens=False)


def listed(values):
    return "\n".join(f"* {name}: {value}" for name, value in values.items())


def machine_list(machine):
    return listed(
        {
            "Processor": machine["processor"],
            "Cores": machine["cores"],
            "Memory": f"{machine['memory_mib']} MiB",
            "Kernel": machine["kernel"],
        }
    )


def distinct(data, key):
    return sorted({workload[key] for workload in data["workloads"].values()})


def measured_text(data):
    commits = " and ".join(f"`{commit}`" for commit in distinct(data, "commit"))
    folders = ", ".join(f"`{folder}`" for folder in FOLDERS)
    return filled(
        f"Measured on {' and '.join(distinct(data, 'date'))} at commit {commits}. Since then, only comments and layout "
        f"have changed in {folders}. A test compares the sources, and so does `bench/figures_age`."
    )


def not_met(results):
    names = []
    for bar in bars.BARS:
        measured = bar.read(results)
        if measured and not bars.is_met(bar, measured):
            names.append(bar.name)
    reasons = [why for begin, why in REASONS.items() if any(name.startswith(begin) for name in names)]
    lines = ["Not met:", "", *(f"* {name}" for name in names), ""]
    return "\n".join(lines + [f"{filled(why)}\n" for why in reasons]) + "\n" if names else ""


def charts_text(results):
    return "".join(
        f"## {chart.heading}\n\n![{chart.heading}](performance/{chart.file})\n\n{charts.sentence(chart, results)}\n\n"
        for chart in charts.CHARTS
        if charts.is_drawn(chart, results)
    )


def micro_text(results):
    found = tables.micro_table(results)
    said = "Nanoseconds of processor time; each checks what it has computed."
    return f"## Microbenchmarks\n\n{said}\n\n{found}\n" if found else ""


def commands_text(data):
    named = {**data["servers"], **{name: one["command"] for name, one in data["workloads"].items()}}
    return "\n".join(f"* {name}: `{command}`" for name, command in named.items() if command)


def page(data):
    results = figures.results_of(data)
    failures = tables.failures_text(data)
    return PAGE.format(
        measured=measured_text(data),
        machine=machine_list(data["machine"]),
        versions=listed(data["versions"]),
        compiler=data["flags"]["compiler"],
        linker=data["flags"]["linker"],
        seconds=min(distinct(data, "seconds")),
        bars=tables.bars_table(results),
        not_met=not_met(results),
        costs=tables.cost_table(results),
        users=tables.cost_table(results, "user_us_per_request"),
        ratios=tables.ratio_table(results),
        latency=tables.p99_table(results),
        plain=tables.rows_table(results, tables.PLAIN_ROWS),
        charts=charts_text(results),
        micro=micro_text(results),
        failures=f"## What failed\n\n{failures}\n" if failures else "",
        commands=commands_text(data),
    )


def rounds_text(results):
    """How many rounds the figures of the README's table have, for example "7 to 10"."""
    found = [tables.spreads(results, row)["mivo"] for row in tables.README_ROWS]
    counts = sorted({one.count for one in found if one})
    return " to ".join(str(count) for count in (counts[:1] + counts[1:][-1:]))


def readme_block(data):
    results = figures.results_of(data)
    lines = [str(configuration_lines("https", FILES[server])) for server in tables.COLUMNS[1:]]
    first = ("lines of configuration", "0, and one command line", *lines)
    lost = [row.title.rsplit(",", 1)[0] for row in tables.lost_rows(results, tables.README_ROWS)]
    unpooled = tables.unpooled_text(results)
    text = README.format(
        rounds=rounds_text(results),
        date=" and ".join(distinct(data, "date")),
        unpooled="The others have a pool of upstream connections, and `mivo` has none. For a request over HTTP "
        f"on a new connection, {unpooled}."
        if unpooled
        else "",
        lost=f"`mivo` takes more than the best of the others in these rows: {'; '.join(lost)}." if lost else "",
    )
    return f"{tables.rows_table(results, tables.README_ROWS, [first])}\n{filled(text)}"


def with_block(readme, block):
    """The README's text, with its block of figures replaced."""
    if not MARKED.search(readme):
        raise ValueError("the README has no place that is marked for the figures")
    return MARKED.sub(lambda found: found[1] + block + found[2], readme)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--figures", type=Path, default=ROOT / "docs" / "performance" / "figures.json")
    parser.add_argument("--docs", type=Path, default=ROOT / "docs")
    parser.add_argument("--readme", type=Path, default=ROOT / "README.md")
    options = parser.parse_args()
    import plots  # only drawing needs matplotlib; the tests compare the texts without it

    data = figures.load(options.figures)
    plots.draw_all(figures.results_of(data), options.docs / "performance", options.figures)
    (options.docs / "performance.md").write_text(page(data))
    options.readme.write_text(with_block(options.readme.read_text(), readme_block(data)))
    print(f"Written: {options.docs / 'performance.md'}, its charts, and the table in {options.readme}")


if __name__ == "__main__":
    main()
