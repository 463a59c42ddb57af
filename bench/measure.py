"""Measures mivo beside its peers, in turns, in one run; writes JSON and Markdown tables.

    measure.py [--rounds N] [--seconds S] [--only WORD]... [--out FOLDER] [--mivo PROGRAM]

Every workload is run on each server in turn, N times over; a figure is the median of its rounds. The proxies
have one core, load and upstream the other. Processor time is the kernel's account of the proxy's process.
The results are written after each round. A workload that fails is noted with its cause, and the run goes
on."""

import argparse
import json
import os
import re
import sys
import tempfile
from pathlib import Path

import machine
import tables
from process import LOAD_CORE, given_ports
from servers import ROOT, Bench
from workloads import WORKLOADS


def unnamed(text, folder):
    """A command as anybody would run it: without this run's ports and temporary folder, and with programs by
    their names."""
    text = text.replace(str(folder), "FOLDER").replace(str(ROOT) + "/", "")
    return re.sub(r"\b\d{5}\b", lambda m: "PORT" if int(m.group()) in given_ports else m.group(), text)


class Report:
    """What a run has found so far."""

    def __init__(self, options):
        self.path = options.out
        self.data = {
            "machine": machine.machine(),
            "versions": machine.versions(),
            "flags": machine.flags(),
            "arguments": {"rounds": options.rounds, "seconds": options.seconds, "only": options.only},
            "rounds": 0,
            "commands": {},
            "results": {},
            "failures": [],
        }

    def add(self, name, server, figures):
        self.data["commands"].setdefault(name, figures.pop("command"))
        self.data["results"].setdefault(name, {}).setdefault(server, []).append(figures)

    def add_failure(self, round_number, name, server, error):
        cause = f"{type(error).__name__}: {error}"
        self.data["failures"].append(
            {"round": round_number, "workload": name, "server": server, "cause": cause[:500]}
        )

    def save(self, rounds):
        self.data["rounds"] = rounds
        self.data["bars"] = tables.bars(self.data["results"])
        self.path.mkdir(parents=True, exist_ok=True)
        text = json.dumps(self.data, indent=1)
        # Complete or not at all: a run that is broken off leaves the rounds before.
        part = self.path / "results.json.part"
        part.write_text(text)
        part.replace(self.path / "results.json")
        (self.path / "results.md").write_text(tables.everything(self.data))


def show(progress, name, server, text):
    print(f"{progress}  {name:40} {server:15} {text}", file=sys.stderr, flush=True)


def measure_one(bench, report, round_number, progress, name, workload, server_name):
    proxy = bench.proxies[server_name]
    server = proxy.tls if workload.tls else proxy
    try:
        if server.revive():
            show(progress, name, server_name, "did not run and is started")
        figures = workload.measure(bench, server, report.data["arguments"]["seconds"])
    except Exception as error:  # whatever it is, the other figures are still worth having
        report.add_failure(round_number, name, server_name, error)
        show(progress, name, server_name, f"FAILED: {error}"[:200])
        return
    figures["command"] = unnamed(figures["command"], bench.folder)
    headline = next(iter(figures))
    report.add(name, server_name, figures)
    show(progress, name, server_name, f"{figures[headline]:12.2f} {headline}")


def measure_all(bench, report, options):
    words = options.only or [""]
    chosen = {name: workload for name, workload in WORKLOADS.items() if any(word in name for word in words)}
    if not chosen:
        sys.exit(f"No workload has {' or '.join(words)} in its name: {', '.join(WORKLOADS)}")
    for name, server in bench.proxies.items():
        report.data["commands"][name] = unnamed(" ".join(server.command), bench.folder)
    for round_number in range(1, options.rounds + 1):
        for number, (name, workload) in enumerate(chosen.items(), 1):
            progress = f"round {round_number}/{options.rounds} {number:2}/{len(chosen)}"
            for server_name in workload.servers:
                measure_one(bench, report, round_number, progress, name, workload, server_name)
        report.save(round_number)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--seconds", type=int, default=3)
    parser.add_argument("--only", action="append", default=[], help="part of a workload's name")
    parser.add_argument("--out", type=Path, default=ROOT / "build" / "bench")
    parser.add_argument("--mivo", default=str(ROOT / "build" / "release" / "mivo"))
    options = parser.parse_args()

    os.sched_setaffinity(0, {int(LOAD_CORE)})  # and every client that is started from here
    report = Report(options)
    with tempfile.TemporaryDirectory() as folder:
        bench = Bench(folder, options.mivo)
        try:
            bench.start()
            measure_all(bench, report, options)
        finally:
            bench.stop()
    print(tables.everything(report.data))
    print(f"In {report.path}: results.json, results.md")


main()
