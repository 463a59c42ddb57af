"""Measures mivo beside its peers, in turns, in one run; writes JSON and a Markdown table of ratios.

    measure.py [--rounds N] [--seconds S] [--only WORD] [--out FOLDER] [--mivo PROGRAM]

Every workload is run on each server in turn, N times over; a figure is the median of its rounds. The proxies
have one core, load and upstream the other. Processor time is the kernel's account of the proxy's process."""

import argparse
import json
import platform
import statistics
import subprocess
import sys
import tempfile
from pathlib import Path

import servers
import workloads

ROOT = servers.ROOT


def kept_alive(connections, path, tls=False):
    def measure(server, seconds):
        return workloads.wrk(server.url(path, tls), servers.HOST, connections, seconds)

    return measure


def new_connections(connections, requests):
    def measure(server, seconds):
        return workloads.ab(server.url("/128"), servers.HOST, connections, requests)

    return measure


def handshakes(clients):
    def measure(server, seconds):
        return workloads.handshakes(server.tls_port, clients, seconds)

    return measure


def download(tls=False):
    def measure(server, seconds):
        first, total = workloads.curl_time(server.url("/1g", tls), servers.HOST)
        return workloads.Figures(requests=1, seconds=total, p50=first * 1000)

    return measure


# name: (what it does, over TLS?, servers it makes sense for)
ALL = ("mivo", "nginx", "nginx unpooled", "haproxy", "floor")
PEERS = ("mivo", "nginx", "haproxy")
WORKLOADS = {
    "keep-alive, 1 client": (kept_alive(1, "/128"), False, ALL),
    "keep-alive, 16 clients": (kept_alive(16, "/128"), False, ALL),
    "keep-alive, 64 clients": (kept_alive(64, "/128"), False, ALL),
    "keep-alive, 400 clients": (kept_alive(400, "/128"), False, ALL),
    "keep-alive, 64 clients, 16 KiB": (kept_alive(64, "/16k"), False, ALL),
    "keep-alive, 16 clients, 1 MiB": (kept_alive(16, "/1m"), False, ALL),
    "new connection per request, 64 at once": (new_connections(64, 10000), False, ALL),
    "1 GiB download": (download(), False, ALL),
    "TLS keep-alive, 64 clients": (kept_alive(64, "/128", True), True, PEERS),
    "TLS handshakes, 4 clients": (handshakes(4), True, PEERS),
    "TLS 1 GiB download": (download(True), True, PEERS),
}


def one_run(measure, server, seconds):
    server.reset_peak()
    before = server.processor()
    figures = measure(server, seconds)
    used = server.processor() - before
    if figures.failed:
        raise RuntimeError(f"{server.name}: {figures.failed} of {figures.requests} requests failed")
    return {
        "processor_us_per_request": used.total * 1e6 / figures.requests,
        "user_seconds": used.user,
        "system_seconds": used.system,
        "requests_per_second": figures.requests / figures.seconds,
        "p50_ms": figures.p50,
        "p99_ms": figures.p99,
        "longest_ms": figures.longest,
        "peak_kib": server.memory("VmHWM"),
    }


def measure_all(bench, options):
    results = {}
    chosen = {name: w for name, w in WORKLOADS.items() if options.only in name}
    for round_number in range(options.rounds):
        for name, (measure, tls, for_whom) in chosen.items():
            for proxy in bench.proxies:
                if proxy.name not in for_whom:
                    continue
                server = proxy.tls if tls else proxy
                runs = results.setdefault(name, {}).setdefault(proxy.name, [])
                runs.append(one_run(measure, server, options.seconds))
                cost = runs[-1]["processor_us_per_request"]
                line = f"round {round_number + 1}/{options.rounds}  {name:42} {proxy.name:15} {cost:12.1f} us"
                print(line, file=sys.stderr, flush=True)
    return results


def median(runs, figure):
    return statistics.median(run[figure] for run in runs)


def table(results):
    """Processor time per request, and mivo's as a ratio to each of the others."""
    lines = ["| workload | mivo, µs | nginx | nginx unpooled | HAProxy | floor | peak MiB |"]
    lines.append("|---|---|---|---|---|---|---|")
    for name, by_server in results.items():
        own = median(by_server["mivo"], "processor_us_per_request")
        cells = []
        for other in ALL[1:]:
            runs = by_server.get(other)
            cells.append(f"{own / median(runs, 'processor_us_per_request'):.2f}" if runs else "")
        peak = median(by_server["mivo"], "peak_kib") / 1024
        lines.append(f"| {name} | {own:.1f} | {' | '.join(cells)} | {peak:.1f} |")
    return "\n".join(lines) + "\n"


def versions():
    def first_line(*command):
        done = subprocess.run(command, capture_output=True, text=True)
        return (done.stdout + done.stderr).splitlines()[0]

    return {
        "kernel": platform.release(),
        "nginx": first_line("nginx", "-v"),
        "haproxy": first_line("haproxy", "-v"),
        "openssl": first_line("openssl", "version"),
        "compiler": first_line("c++", "--version"),
    }


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--seconds", type=int, default=3)
    parser.add_argument("--only", default="")
    parser.add_argument("--out", type=Path, default=ROOT / "build" / "bench")
    parser.add_argument("--mivo", default=str(ROOT / "build" / "release" / "mivo"))
    options = parser.parse_args()

    with tempfile.TemporaryDirectory() as folder:
        bench = servers.Bench(folder, options.mivo)
        try:
            bench.start()
            results = measure_all(bench, options)
        finally:
            bench.stop()
    options.out.mkdir(parents=True, exist_ok=True)
    report = {"versions": versions(), "rounds": options.rounds, "results": results}
    (options.out / "results.json").write_text(json.dumps(report, indent=1))
    (options.out / "results.md").write_text(table(results))
    print(table(results))


main()
