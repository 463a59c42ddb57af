"""Runs one fuzzer: run.py NAME SECONDS. Or saves the useful inputs that the fuzzers found: run.py NAME merge.

A run first gives the fuzzer each of its seeds once, and then looks for new inputs for SECONDS. Inputs that reach
new paths stay in build/fuzz/corpus, and the next run continues with them. On a finding the exit status is 255, which
makes xargs stop.

A fuzzer has two kinds of seeds: the files in corpus/NAME, which people have named (regressions among them), and
those in corpus/NAME.tar.xz, which the fuzzers found. `merge` makes the archive again, from its old content and from
what the last runs found. It keeps a small set that covers the same code, except what the named files cover.
"""

import lzma
import re
import shutil
import subprocess
import sys
import tarfile
import tempfile
from io import BytesIO
from pathlib import Path

HERE = Path(__file__).resolve().parent
BUILD = HERE.parents[1] / "build" / "fuzz"

# The longest input of each fuzzer, in bytes.
LONGEST = {
    "chunked": 600,
    "conversation": 1500,
    "copy_headers": 512,
    "get_header": 512,
    "request": 800,
    "response": 512,
    "text": 300,
    "url": 300,
    "var": 300,
    "websocket": 800,
}

# The dictionaries of those fuzzers that do not use one of their own name.
DICTIONARIES = {"copy_headers": "request", "get_header": "request", "response": "request"}


def archive(name):
    return HERE / "corpus" / f"{name}.tar.xz"


def fill(folder, name, *sources):
    """Makes the folder again, with the seeds of the given kinds, and returns it."""
    shutil.rmtree(folder, ignore_errors=True)
    folder.mkdir(parents=True)
    if "named" in sources:
        for path in (HERE / "corpus" / name).glob("*"):
            shutil.copy(path, folder)
    if "found" in sources:
        with tarfile.open(archive(name)) as packed:
            for member in packed.getmembers():
                (folder / Path(member.name).name).write_bytes(packed.extractfile(member).read())
    return folder


def seeds(name):
    return fill(BUILD / "seeds" / name, name, "named", "found")


def working_corpus(name):
    path = BUILD / "corpus" / name
    path.mkdir(parents=True, exist_ok=True)
    return path


def command(name, *options):
    findings = BUILD / "findings"
    findings.mkdir(parents=True, exist_ok=True)
    line = [
        str(BUILD / "tests" / "fuzz" / f"{name}_fuzz"),
        f"-max_len={LONGEST[name]}",
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
    lines = [line for line in log.splitlines() if not re.match(r"#\d+\t|(Running|Executed)\b.*", line)]
    print("\n".join(lines[-120:]))
    running = re.findall(r"^Running: (.*)", log, re.M)
    reproducer = re.search(r"Test unit written to (\S+)", log)
    if reproducer or running:
        path = reproducer.group(1) if reproducer else running[-1]
        print(f"{name}: a finding. To reproduce it: {command(name)[0]} {path}")
    else:
        print(f"{name}: the fuzzer failed.")
    sys.exit(255)


def log_of(name, line):
    result = subprocess.run(line, capture_output=True)
    log = result.stderr.decode(errors="replace")
    if result.returncode != 0:
        report_finding(name, log)
    return log


def replay(name):
    """Runs each seed once, whatever its length."""
    files = sorted(map(str, seeds(name).iterdir()))
    log = log_of(name, command(name) + files)
    if len(re.findall(r"^Executed ", log, re.M)) != len(files):
        report_finding(name, log)
    return len(files)


def run(name, seconds):
    print(f"{name}: {replay(name)} seeds", end="", flush=True)
    if seconds > 0:
        log = log_of(name, command(name, f"-max_total_time={seconds}")
                     + [str(working_corpus(name)), str(BUILD / "seeds" / name)])
        executions = re.search(r"stat::number_of_executed_units:\s+(\d+)", log)
        covered = re.findall(r"\bcov: (\d+)", log)
        if not executions or not covered:
            report_finding(name, log)
        print(f", {executions.group(1)} runs, {covered[-1]} edges", end="")
    print()


def pack(files):
    """An archive of {name: content}. The same files give the same bytes."""
    packed = BytesIO()
    with tarfile.open(fileobj=packed, mode="w", format=tarfile.USTAR_FORMAT) as tar:
        for file_name, content in sorted(files.items()):
            entry = tarfile.TarInfo(file_name)
            entry.size = len(content)
            tar.addfile(entry, BytesIO(content))
    return lzma.compress(packed.getvalue(), preset=9)


def merge(name):
    with tempfile.TemporaryDirectory(prefix="mivo_fuzz_") as folder:
        kept = fill(Path(folder, "kept"), name, "named")
        named = {path.name for path in kept.iterdir()}
        found = fill(Path(folder, "found"), name, "found")
        # If there are named files, libFuzzer adds others to them. If there are none, it looks for the smallest set.
        mode = "-merge=1" if named else "-set_cover_merge=1"
        subprocess.run(command(name, mode) + [str(kept), str(found), str(working_corpus(name))], check=True,
                       capture_output=True)
        files = {path.name: path.read_bytes() for path in kept.iterdir() if path.name not in named}
    archive(name).write_bytes(pack(files))
    print(f"{name}: {len(named)} named seeds and {len(files)} others, {sum(map(len, files.values()))} bytes")


if __name__ == "__main__":
    if sys.argv[2] == "merge":
        merge(sys.argv[1])
    else:
        run(sys.argv[1], int(sys.argv[2]))
