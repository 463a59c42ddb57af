"""The soak: mivo under mixed load for a long time, with every byte compared and the process watched.

soak_load makes the load and compares the bytes; see load.cpp. This script starts mivo and soak_load, and logs once a
second what mivo's process takes. It ends with 1 if there is a wrong byte, an error, an unexpected line on the console,
or memory or descriptors that grow. It writes soak.json and, with --plot, soak.svg.

With --tls the clients speak TLS, and some of them upload. With --rate everything is on a line of that rate: the
loopback of a separate network, which needs root.
"""

import argparse
import json
import pathlib
import re
import statistics
import subprocess
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "tests/system"))

from certificates import Authority  # noqa: E402
from links import Network  # noqa: E402
from mivo_process import ReservedPort  # noqa: E402
from wire import Wire, until  # noqa: E402

MIB = 1 << 20
WARM_UP_SHARE = 0.2  # the share of the run, at its start, that does not count for growth
# The most that the resident memory may grow after the warm-up, from the first to the last quarter of that time. The
# large bodies alone make it go up and down by that much.
GROWTH_LIMIT = 16 * MIB
GROWTH_TAKES = 120  # seconds; in a shorter run the buffers of the connections still fill up
# The most that the resident memory may grow from before the first connection until all connections are gone. mivo keeps
# buffers for the next connections, and some free memory lies between memory that the C library still uses.
REST_LIMIT = 64 * MIB
DESCRIPTOR_LIMIT = 400  # at any moment; soak_load has fewer than 100 clients, each with two or briefly more
EXPECTED_LINES = re.compile(r"Binding to port \d+ on all adapters:|\d+\.\d+\.\d+\.\d+|\d+ connections"
                            r"|Shutting down\.\.\.|Using https only \(no http\)")
TIMED_OUT = re.compile(r"\d+ has timed out\.")


class Watched:
    """A running mivo. Its console goes to a file, except for the lines of requests."""

    def __init__(self, options, upstream_port):
        self.reserved = ReservedPort()
        self.port = self.reserved.port
        self.console = options.out / "soak_console"
        serve = [str(self.port)]
        if options.tls:
            certificate = Authority(options.out, "ecdsa").issue("soak")
            serve = ["0", "-ssl", str(self.port), certificate.key, certificate.crt]
        self.process = subprocess.Popen(
            [options.program, *serve, "-map", "soak", str(upstream_port), "-map", "echo", "-1"],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        with open(self.console, "wb") as console:
            # Reading every line in Python would take processor time that the load needs.
            self.filter = subprocess.Popen(["grep", "-av", r"^\["], stdin=self.process.stdout, stdout=console)
        self.process.stdout.close()
        until(self._listens, "mivo listens")
        until(lambda: len(self._descriptors()) == 4, "the first connection is closed again")

    def _listens(self):
        assert self.process.poll() is None, "mivo ended at once"
        try:
            Wire.connect(self.port).close()
            return True
        except ConnectionRefusedError:
            return False

    def _descriptors(self):
        return list(pathlib.Path(f"/proc/{self.process.pid}/fd").iterdir())

    def sample(self):
        status = pathlib.Path(f"/proc/{self.process.pid}/status").read_text()
        processor = pathlib.Path(f"/proc/{self.process.pid}/schedstat").read_text().split()[0]
        return {"descriptors": len(self._descriptors()), "processor_seconds": int(processor) / 1e9,
                "resident": int(re.search(r"VmRSS:\s+(\d+) kB", status)[1]) * 1024}

    def end(self):
        """Ends mivo as a user does; returns its exit status and the unexpected lines."""
        if self.process.poll() is None:
            self.process.send_signal(2)
        try:
            status = self.process.wait(15)
        except subprocess.TimeoutExpired:
            self.process.kill()
            status = self.process.wait()
        self.filter.wait()
        self.reserved.close()
        lines = self.console.read_text(errors="replace").splitlines()
        return status, [line for line in lines if not EXPECTED_LINES.fullmatch(line)]


def run_soak(options):
    options.out.mkdir(parents=True, exist_ok=True)
    command = [options.load, str(options.seed), str(options.seconds), str(options.requests), str(options.wrong)]
    if options.tls:
        command.append("tls")
    if options.rate:
        Network().shape(options.rate)
    with open(options.out / "soak_faults", "wb") as faults:
        load = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=faults, text=True)
    mivo, samples = None, []
    try:
        mivo = Watched(options, int(load.stdout.readline()))
        before = mivo.sample()
        load.stdin.write(f"{mivo.port}\n")
        load.stdin.flush()
        for line in load.stdout:
            counters = json.loads(line)
            if mivo.process.poll() is not None:
                sys.exit(f"mivo ended with {mivo.process.poll()} after {counters['requests']} requests")
            samples.append({**counters, **mivo.sample()})
            if samples[-1]["last"]:
                break
            if sys.stderr.isatty():
                print(f"\r{counters['seconds']:.0f} s, {counters['requests']} requests", end="", file=sys.stderr)
        start, rested = mivo.sample(), None
        time.sleep(1)
        rested = mivo.sample()
        idle_share = rested["processor_seconds"] - start["processor_seconds"]
    finally:
        load.kill()
        load.wait()
        status, lines = mivo.end() if mivo else (None, [])
    timed_out = [line for line in lines if TIMED_OUT.fullmatch(line)] if options.tls else []
    result = {"seed": options.seed, "timed_out": len(timed_out), "before": before, "after": rested, "idle_share": idle_share,
              "exit_status": status, "unexpected_lines": [line for line in lines if line not in timed_out][:20], **summary(samples), "samples": samples,
              "faults": (options.out / "soak_faults").read_text().splitlines()}
    result["findings"] = findings(result)
    return result


def summary(samples):
    last = samples[-1]
    steady = samples[int(len(samples) * WARM_UP_SHARE):-1] or samples
    part = max(1, len(steady) // 4)
    early, late = ([sample["resident"] for sample in some] for some in (steady[:part], steady[-part:]))
    return {**{key: last[key] for key in ("seconds", "requests", "bytes", "connections", "left", "wrong", "errors")},
            "resident_growth": statistics.median(late) - statistics.median(early),
            "resident_peak": max(sample["resident"] for sample in samples),
            "descriptors_peak": max(sample["descriptors"] for sample in samples)}


def findings(result):
    """The faults of a run, in words; empty if the run is good."""
    before, after = result["before"], result["after"]
    checks = [
        (result["wrong"] == 0, f"{result['wrong']} exchanges with a wrong byte"),
        (result["errors"] == 0, f"{result['errors']} unexplained errors"),
        (not result["unexpected_lines"], f"mivo said {result['unexpected_lines']}"),
        # Over TLS, a client that leaves during its handshake times out. So does the connection of _listens().
        (result["timed_out"] <= result["left"] + 1,
         f"{result['timed_out']} have timed out, and {result['left']} have left"),
        (result["exit_status"] == 0, f"mivo ended with {result['exit_status']}"),
        (result["samples"][-1]["last"], "the load ended early"),
        (after["descriptors"] == before["descriptors"],
         f"{after['descriptors']} descriptors at the end, {before['descriptors']} at the start"),
        (result["descriptors_peak"] <= DESCRIPTOR_LIMIT, f"{result['descriptors_peak']} descriptors at once"),
        (result["seconds"] < GROWTH_TAKES or result["resident_growth"] <= GROWTH_LIMIT,
         f"{result['resident_growth']} bytes more in the last part"),
        (after["resident"] - before["resident"] <= REST_LIMIT,
         f"{after['resident']} bytes resident at rest, {before['resident']} at the start"),
        (result["idle_share"] < 0.02, f"{result['idle_share']:.1%} of a processor at rest"),
    ]
    return [text for is_good, text in checks if not is_good]


def plot(result, path):
    import matplotlib  # imported here, so that a run without a plot does not need it
    matplotlib.use("svg")
    from matplotlib import pyplot
    samples = [sample for sample in result["samples"] if not sample["last"]]
    seconds = [sample["seconds"] for sample in samples]
    rates = [(b["requests"] - a["requests"]) / (b["seconds"] - a["seconds"]) for a, b in zip(samples, samples[1:])]
    figure, (memory, descriptors, rate) = pyplot.subplots(3, 1, sharex=True, figsize=(8, 7))
    memory.plot(seconds, [sample["resident"] / MIB for sample in samples])
    memory.set_ylabel("resident memory, MiB")
    descriptors.plot(seconds, [sample["descriptors"] for sample in samples])
    descriptors.set_ylabel("descriptors")
    rate.plot(seconds[1:], rates)
    rate.set_ylabel("requests per second")
    rate.set_xlabel("seconds")
    for axes in (memory, descriptors, rate):
        axes.set_ylim(bottom=0)
        axes.grid(alpha=0.3)
    figure.suptitle(f"{result['requests']:,} requests, {result['wrong']} wrong, {result['errors']} errors, "
                    f"seed {result['seed']}")
    figure.tight_layout()
    figure.savefig(path)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--seconds", type=int, default=600)
    parser.add_argument("--requests", type=int, default=1 << 60, help="end when so many are done")
    parser.add_argument("--seed", type=int, default=time.time_ns() % 1000000007)
    parser.add_argument("--wrong", type=int, default=0, help="the upstream's reply to spoil; 0 for none")
    parser.add_argument("--tls", action="store_true")
    parser.add_argument("--rate", type=lambda text: int(text.removesuffix("mbit")), help="in Mbit/s: 400 or 400mbit")
    parser.add_argument("--plot", action="store_true")
    parser.add_argument("--program", default=ROOT / "build/release/mivo", type=pathlib.Path)
    parser.add_argument("--load", default=ROOT / "build/release/tests/soak/soak_load", type=pathlib.Path)
    parser.add_argument("--out", default=ROOT / "build/soak", type=pathlib.Path)
    options = parser.parse_args()
    print(f"seed {options.seed}", flush=True)
    result = run_soak(options)
    (options.out / "soak.json").write_text(json.dumps(result, indent=1))
    if options.plot:
        plot(result, options.out / "soak.svg")
    print(f"{result['requests']:,} requests in {result['seconds']:.0f} s, {result['bytes'] / 1e9:.1f} GB compared, "
          f"{result['connections']:,} connections; {result['wrong']} wrong, {result['errors']} errors; "
          f"resident {result['before']['resident'] / MIB:.1f} MiB before, {result['resident_peak'] / MIB:.1f} at most, "
          f"{result['after']['resident'] / MIB:.1f} after; {result['descriptors_peak']} descriptors at most")
    for text in [*result["findings"], *result["faults"]]:
        print(text)
    sys.exit(1 if result["findings"] else 0)


if __name__ == "__main__":
    main()
