"""Measures mivo and its peers, in turns, and keeps the figures as JSON.

    measure.py [--rounds N] [--seconds S] [--only WORD]... [--out FILE] [--mivo PROGRAM] [--list]

Every round runs each workload on each of its servers, one right after the other. Each round begins with another
server. The proxies run on one core, load and upstream on the other. Processor time is what the kernel counts for all
processes of a proxy. The file is written after each workload. A failure is noted with its cause, and the run
goes on.

A run of all workloads writes a new file. A run with --only replaces the figures of those workloads in the file. The
file is docs/performance/figures.json. A run with fewer seconds, another number of rounds or another program is for
trying things out, so its file is build/bench/figures.json."""

import argparse
import datetime
import math
import os
import re
import sys
import tempfile
import time
from pathlib import Path

import figures
import machine
from process import LOAD_CORE, given_ports
from servers import Bench
from sources import ROOT, sources_hash
from workloads import WORKLOADS

SECONDS = 3
USUAL_PROGRAM = ROOT / "build" / "release" / "mivo"


def unnamed(text, folder):
    """A command in a general form: without this run's ports and temporary folder, and without the path of this
    repository."""
    text = text.replace(str(folder), "FOLDER").replace(str(ROOT) + "/", "")
    return re.sub(r"\b\d{5}\b", lambda m: "PORT" if int(m.group()) in given_ports else m.group(), text)


def chosen_workloads(words):
    """The workloads with one of the words in their names; without words, all. A "-" in a word also matches a blank."""

    def plain(text):
        return text.replace("-", " ")

    return {
        name: workload
        for name, workload in WORKLOADS.items()
        if any(plain(word) in plain(name) for word in words or [""])
    }


class Report:
    """What a run has found so far. `old` are the figures that it is merged with, or None."""

    def __init__(self, options, chosen, old):
        self.path = options.out
        self.seconds = options.seconds
        self.old = old
        measured = {
            "commit": machine.commit(),
            # The sources of another program are unknown.
            "sources": sources_hash() if options.mivo == USUAL_PROGRAM else None,
            "date": datetime.datetime.now(datetime.timezone.utc).strftime("%Y-%m-%d"),
            "seconds": options.seconds,
        }
        self.data = {
            "machine": machine.machine(),
            "versions": machine.versions(),
            "flags": machine.flags(),
            "servers": {},
            "workloads": {name: {**measured, "command": "", "results": {}, "failures": []} for name in chosen},
        }

    def add(self, round_number, name, server, found):
        workload = self.data["workloads"][name]
        workload["command"] = workload["command"] or found["command"]
        found = {key: value for key, value in found.items() if key != "command"}
        workload["results"].setdefault(server, []).append({"round": round_number, **found})

    def add_failure(self, round_number, name, server, error):
        cause = f"{type(error).__name__}: {error}"[:500]
        failures = self.data["workloads"][name]["failures"]
        failures.append({"round": round_number, "server": server, "cause": cause})

    def whole(self):
        return figures.merged(self.old, self.data) if self.old else self.data

    def save(self):
        figures.save(self.whole(), self.path)


def show(progress, name, server, text):
    print(f"{progress}  {name:40} {server:15} {text}", file=sys.stderr, flush=True)


def measure_one(bench, report, round_number, progress, name, workload, server_name):
    server = bench.proxies[workload.job, server_name]
    try:
        if server.revive():
            show(progress, name, server_name, "did not run and is started")
        found = workload.measure(bench, server, report.seconds)
    except Exception as error:  # whatever failed, the other figures are still useful
        report.add_failure(round_number, name, server_name, error)
        show(progress, name, server_name, f"FAILED: {error}"[:200])
        return
    found["command"] = unnamed(found["command"], bench.folder)
    headline = next(iter(found))
    report.add(round_number, name, server_name, found)
    show(progress, name, server_name, f"{found[headline]:12.2f} {headline}")


def rotated(servers, round_number):
    """The servers in the order of this round. Each round begins with another one, so that no server always runs
    first."""
    first = (round_number - 1) % len(servers)
    return servers[first:] + servers[:first]


def measure_all(bench, report, chosen, rounds):
    for (job, name), server in bench.proxies.items():
        report.data["servers"][f"{job}, {name}"] = unnamed(" ".join(server.command), bench.folder)
    last = rounds or max(workload.rounds for workload in chosen.values())
    for round_number in range(1, last + 1):
        in_round = {name: one for name, one in chosen.items() if round_number <= (rounds or one.rounds)}
        for number, (name, workload) in enumerate(in_round.items(), 1):
            progress = f"round {round_number}/{last} {number:2}/{len(in_round)}"
            for server_name in rotated(workload.servers, round_number):
                measure_one(bench, report, round_number, progress, name, workload, server_name)
            report.save()


def whole_seconds(text):
    """The load generators take only whole seconds."""
    return max(1, math.ceil(float(text)))


def parsed():
    parser = argparse.ArgumentParser()
    parser.add_argument("--rounds", type=int, help="rounds of every workload, instead of its own number")
    parser.add_argument("--seconds", type=whole_seconds, default=SECONDS, help="seconds of load in a round")
    parser.add_argument("--only", action="append", default=[], help="part of a workload's name")
    parser.add_argument("--out", type=Path)
    parser.add_argument("--mivo", type=Path, default=USUAL_PROGRAM)
    parser.add_argument("--list", action="store_true", help="only print the names of the workloads")
    options = parser.parse_args()
    if options.out is None:
        is_usual = options.rounds is None and options.seconds >= SECONDS and options.mivo == USUAL_PROGRAM
        options.out = ROOT / ("docs/performance" if is_usual else "build/bench") / "figures.json"
    return options


def main():
    options = parsed()
    chosen = chosen_workloads(options.only)
    if options.list or not chosen:
        print("\n".join(f"{name}: {workload.rounds} rounds" for name, workload in WORKLOADS.items()))
        return not options.list
    old = figures.load(options.out) if options.only and options.out.exists() else None
    report = Report(options, chosen, old)
    try:
        report.whole()
    except ValueError as error:
        return f"{options.out}: {error}. Measure everything, or name another file with --out."

    os.sched_setaffinity(0, {int(LOAD_CORE)})  # and every client that is started from here
    begin = time.monotonic()
    wanted = {(workload.job, server): None for workload in chosen.values() for server in workload.servers}
    with tempfile.TemporaryDirectory() as folder:
        bench = Bench(folder, str(options.mivo))
        try:
            bench.start(wanted)
            measure_all(bench, report, chosen, options.rounds)
        finally:
            bench.stop()
    print(f"{(time.monotonic() - begin) / 60:.0f} minutes. The figures are in {report.path}.")
    failures = sum(len(workload["failures"]) for workload in report.data["workloads"].values())
    return f"{failures} failed; the file says why." if failures else 0


if __name__ == "__main__":
    sys.exit(main())
