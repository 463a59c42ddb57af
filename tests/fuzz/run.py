"""Runs one fuzzer: run.py NAME SECONDS, or keeps what the fuzzers found worth keeping: run.py NAME merge.

A run takes SECONDS, and longer if it would otherwise have fewer runs than the fuzzer's floor. What it finds new
paths with stays in build/fuzz/corpus, where the next run goes on from. `merge` makes the seeds in the
repository anew from it: a small set that covers the same code. Seeds with a name of their own stay. Ends with
255 on a finding, upon which xargs stops.
"""

import re
import subprocess
import sys
import tempfile
from pathlib import Path

HERE = Path(__file__).resolve().parent
BUILD = HERE.parents[1] / "build" / "fuzz"

# Of each fuzzer: the longest input in bytes, and the floor: what five seconds give on a slow machine.
FUZZERS = {
    "conversation": (1500, 3000),
    "copy_headers": (512, 100000),
    "get_header": (512, 60000),
    "request": (800, 20000),
    "response": (512, 30000),
    "text": (300, 50000),
    "url": (300, 50000),
    "var": (300, 10000),
    "websocket": (800, 20000),
}

# The dictionaries, where it is not one of the fuzzer's own name.
DICTIONARIES = {"copy_headers": "request", "get_header": "request", "response": "request"}


def seeds(name):
    return HERE / "corpus" / name


def working_corpus(name):
    path = BUILD / "corpus" / name
    path.mkdir(parents=True, exist_ok=True)
    return path


def command(name, *options):
    longest, _ = FUZZERS[name]
    findings = BUILD / "findings"
    findings.mkdir(parents=True, exist_ok=True)
    line = [
        str(BUILD / "tests" / "fuzz" / f"{name}_fuzz"),
        f"-max_len={longest}",
        f"-artifact_prefix={findings}/{name}-",
        "-timeout=10",
        "-print_final_stats=1",
        *options,
    ]
    dictionary = HERE / f"{DICTIONARIES.get(name, name)}.dict"
    if dictionary.exists():
        line.append(f"-dict={dictionary}")
    return line


def report_finding(name, log):
    lines = [line for line in log.splitlines() if not re.match(r"#\d+\t", line)]
    print("\n".join(lines[-120:]))
    reproducer = re.search(r"Test unit written to (\S+)", log)
    if reproducer:
        print(f"{name}: a finding. To see it again: {command(name)[0]} {reproducer.group(1)}")
    else:
        print(f"{name}: the fuzzer failed.")
    sys.exit(255)


def run_once(name, *options):
    """Returns the number of executions and of edges covered."""
    line = command(name, *options) + [str(working_corpus(name)), str(seeds(name))]
    result = subprocess.run(line, capture_output=True)
    log = result.stderr.decode(errors="replace")
    executions = re.search(r"stat::number_of_executed_units:\s+(\d+)", log)
    covered = re.findall(r"\bcov: (\d+)", log)
    if result.returncode != 0 or not executions or not covered:
        report_finding(name, log)
    return int(executions.group(1)), int(covered[-1])


def run(name, seconds):
    _, floor = FUZZERS[name]
    executions, edges = run_once(name, f"-max_total_time={seconds}")
    while executions < floor:
        more, edges = run_once(name, f"-runs={floor - executions}")
        executions += more
    print(f"{name}: {executions} runs, {edges} edges")


def merge(name):
    by_hand = [path for path in seeds(name).glob("*") if not re.fullmatch("[0-9a-f]{40}", path.name)]
    with tempfile.TemporaryDirectory(prefix="mivo_fuzz_") as folder:
        for path in by_hand:
            (Path(folder) / path.name).write_bytes(path.read_bytes())
        # With seeds by hand the others are added to them; without, the smallest set is looked for.
        mode = "-merge=1" if by_hand else "-set_cover_merge=1"
        line = command(name, mode) + [folder, str(seeds(name)), str(working_corpus(name))]
        subprocess.run(line, check=True, capture_output=True)
        kept = {path.name: path.read_bytes() for path in Path(folder).iterdir()}
    for path in seeds(name).iterdir():
        path.unlink()
    for file_name, content in kept.items():
        (seeds(name) / file_name).write_bytes(content)
    print(f"{name}: {len(kept)} seeds, {sum(map(len, kept.values()))} bytes")


if __name__ == "__main__":
    if sys.argv[2] == "merge":
        merge(sys.argv[1])
    else:
        run(sys.argv[1], int(sys.argv[2]))
