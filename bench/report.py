"""Writes docs/performance.md and its plots from the results of a run.

    report.py [--out FOLDER] [--docs FOLDER]

--out is where the run left its results, --docs where the page goes. What micro.json holds is added when it
is there."""

import argparse
import json
from pathlib import Path

import plots
import tables
from servers import HAPROXY, NGINX, POOL, PROXY_SITE, ROOT

PAGE = """# Performance

Every figure on this page but those of the microbenchmarks is from one run of `./bench/run`, which measures `mivo`
in turns with nginx, HAProxy and a floor. Rounds: {rounds}; a figure is their median. `./bench/run --report` wrote the
page.

The floor is the least that relaying costs: an epoll loop without a parser, one read and one write for each
direction (`bench/floor.cpp`). *nginx unpooled* opens an upstream connection for each request, as nginx does
by default; *nginx* and HAProxy keep theirs and share them between clients, which `mivo` does not.

## Machine, versions, flags

{machine}

{versions}

`mivo` is compiled with `{compiler}` and linked with `{linker}`.

## How it is measured

* The proxy has core 0 to itself; load and upstream share core 1. Each proxy has one process or one thread
  that serves.
* Processor time is what the kernel accounts to that process, user and system, over the requests of the run.
* Ratios are `mivo`'s median over the other's: below 1, `mivo` takes less. Only ratios and figures of the same
  run say something about each other.
* The clients ask again as soon as they are answered, so latencies are those of a busy server.
* `mivo` prints a line for each request, to /dev/null here; the others log nothing. Its HTTPS is a process of
  its own, for the plain port beside it would only redirect.
* `openssl s_time` closes as soon as it has shaken hands. HAProxy notices and makes no session tickets; `mivo`
  and nginx make two for each handshake.
* Resident memory is what the process has mapped in at that moment, the code of shared libraries included. After
  the start these are most of it: OpenSSL is opened then, whether it is needed or not.
* Two processes on one port share both cores with load and upstream, so the figure shows that the port is
  shared and not what another core would bring.
* Of the bytes that wait for a slow client, several MiB are in the system's buffers, and nginx puts what
  exceeds its own into a file.

## The bars

{bars}
{not_met}## Processor time

`mivo`'s processor time for each request in µs, the same as a ratio to the others, and `mivo`'s other figures.
A download or upload is one request.

{ratios}
## Latency, p99 in ms

{latency}
## Memory, start, system calls

Medians. Waits are `select()`, `epoll_wait()` and the like, which many requests share; so is the write of the
console's lines.

{plain}
{plots}{micro}{failures}## Commands

    ./bench/run --rounds {asked_rounds} --seconds {seconds}{only}
    ./bench/run --report

{commands}

nginx as a proxy; pooled, it has the first line and passes to the pool:

```
{nginx_pool}
{nginx_proxy}
```

Every nginx has this around its site:

```
{nginx}
```

HAProxy:

```
{haproxy}
```
"""


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


# Why a bar is hard to meet, by the beginning of its name; printed below the bars that are not met.
REASONS = {
    "keep-alive": "A reply takes two turns of the loop, and each turn is one `select()` over all connections, which "
    "the others' `epoll_wait()` does not pay for. The fewer connections are ready at once, the less it is shared.",
    "TLS 90 MiB up": "An upload is copied twice more than by HAProxy: into the pipe, and into the buffer of the "
    "upstream.",
    "resident after start": "Most of it are pages of shared libraries, see above. What is shared with nobody is in "
    "the table of memory below.",
}


def not_met(bars):
    names = [row["name"] for row in bars if row["met"] is False]
    reasons = [why for begin, why in REASONS.items() if any(name.startswith(begin) for name in names)]
    lines = ["Not met:", "", *(f"* {name}" for name in names), ""]
    return "\n".join(lines + [f"{why}\n" for why in reasons]) + "\n" if names else ""


def plots_text(drawn, folder):
    return "".join(
        f"## {heading}\n\n![{heading}]({folder}/{name})\n\n{sentence}\n\n" for heading, name, sentence in drawn
    )


def micro_text(path):
    """The microbenchmarks as a table; "" when they were not run."""
    if not path.exists():
        return ""
    lines = ["## Microbenchmarks", "", "From `./bench/run --micro`, nanoseconds of processor time.", ""]
    lines += ["| benchmark | ns | of how many |", "|---|---|---|"]
    for one in json.loads(path.read_text())["benchmarks"]:
        if one.get("run_type") == "aggregate" and one.get("aggregate_name") != "median":
            continue
        items = round(one["items_per_second"] * one["cpu_time"] * 1e-9) if "items_per_second" in one else 1
        lines.append(f"| {one['name']} | {one['cpu_time']:.1f} | {items} |")
    return "\n".join(lines) + "\n\n"


def commands_text(commands):
    return "\n".join(f"* {name}: `{command}`" for name, command in commands.items())


def plain(template):
    """A template of str.format as what it stands for, its names left in braces."""
    return template.replace("{{", "\0").replace("}}", "\1").replace("\0", "{").replace("\1", "}").strip()


def page(data, drawn, plot_folder, micro):
    arguments = data["arguments"]
    results = data["results"]
    failures = tables.failures_text(data["failures"])
    return PAGE.format(
        rounds=data["rounds"],
        machine=machine_list(data["machine"]),
        versions=listed(data["versions"]),
        compiler=data["flags"]["compiler"],
        linker=data["flags"]["linker"],
        bars=tables.bars_table(data["bars"]),
        not_met=not_met(data["bars"]),
        ratios=tables.ratio_table(results),
        latency=tables.p99_table(results),
        plain=tables.plain_table(results),
        plots=plots_text(drawn, plot_folder),
        micro=micro_text(micro),
        failures=f"## What failed\n\n{failures}\n" if failures else "",
        asked_rounds=arguments["rounds"],
        seconds=arguments["seconds"],
        only="".join(f" --only '{word}'" for word in arguments["only"]),
        commands=commands_text(data["commands"]),
        nginx_pool=plain(POOL),
        nginx_proxy=plain(PROXY_SITE),
        nginx=plain(NGINX),
        haproxy=plain(HAPROXY),
    )


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--out", type=Path, default=ROOT / "build" / "bench")
    parser.add_argument("--docs", type=Path, default=ROOT / "docs")
    options = parser.parse_args()
    data = json.loads((options.out / "results.json").read_text())
    drawn = plots.draw_all(data["results"], options.docs / "performance")
    text = page(data, drawn, "performance", options.out / "micro.json")
    (options.docs / "performance.md").write_text(text)
    print(f"Written: {options.docs / 'performance.md'} and {len(drawn)} plots")


main()
