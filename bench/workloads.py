"""What is measured: each workload is a load from one client program, and how its figures are read."""

import re
import subprocess
from dataclasses import dataclass


@dataclass
class Figures:
    """What a load generator says of one run. Latencies are milliseconds; failed requests are counted."""

    requests: int
    seconds: float
    p50: float = 0.0
    p99: float = 0.0
    longest: float = 0.0
    failed: int = 0


UNITS = {"us": 0.001, "ms": 1.0, "s": 1000.0, "m": 60000.0}


def milliseconds(text):
    number, unit = re.fullmatch(r"([\d.]+)(us|ms|s|m)", text).groups()
    return float(number) * UNITS[unit]


def run(command):
    result = subprocess.run(command, capture_output=True, text=True, timeout=120)
    if result.returncode != 0:
        raise RuntimeError(f"{' '.join(command)}\n{result.stdout}\n{result.stderr}")
    return result.stdout


def wrk(url, host, connections, seconds):
    """Kept-alive requests, one after the other on each connection."""
    out = run(
        ["wrk", "-t1", f"-c{connections}", f"-d{seconds}s", "--timeout", "10s", "--latency"]
        + ["-H", f"Host: {host}", url]
    )
    requests, taken = re.search(r"(\d+) requests in ([\d.]+m?s)", out).groups()
    errors = re.search(r"Socket errors: connect (\d+), read (\d+), write (\d+), timeout (\d+)", out)
    statuses = re.search(r"Non-2xx or 3xx responses: (\d+)", out)
    failed = sum(map(int, errors.groups())) if errors else 0
    return Figures(
        requests=int(requests),
        seconds=milliseconds(taken) / 1000,
        p50=milliseconds(re.search(r"\n +50%\s+(\S+)", out).group(1)),
        p99=milliseconds(re.search(r"\n +99%\s+(\S+)", out).group(1)),
        longest=milliseconds(re.search(r"Latency\s+\S+\s+\S+\s+(\S+)", out).group(1)),
        failed=failed + (int(statuses.group(1)) if statuses else 0),
    )


def ab(url, host, connections, requests):
    """A connection for each request (HTTP/1.0 without keep-alive)."""
    out = run(["ab", "-q", "-n", str(requests), "-c", str(connections), "-H", f"Host: {host}", url])
    failed = int(re.search(r"Failed requests:\s+(\d+)", out).group(1))
    statuses = re.search(r"Non-2xx responses:\s+(\d+)", out)
    return Figures(
        requests=int(re.search(r"Complete requests:\s+(\d+)", out).group(1)),
        seconds=float(re.search(r"Time taken for tests:\s+([\d.]+)", out).group(1)),
        p50=float(re.search(r"50%\s+(\d+)", out).group(1)),
        p99=float(re.search(r"99%\s+(\d+)", out).group(1)),
        longest=float(re.search(r"100%\s+(\d+)", out).group(1)),
        failed=failed + (int(statuses.group(1)) if statuses else 0),
    )


def handshakes(port, clients, seconds):
    """TLS handshakes without a request, each on a connection of its own, by several clients at once."""
    command = ["openssl", "s_time", "-connect", f"127.0.0.1:{port}", "-new", "-time", str(seconds)]
    running = [
        subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        for _ in range(clients)
    ]
    outputs = [process.communicate(timeout=120)[0] for process in running]
    counts = [int(re.search(r"(\d+) connections in \d+ real seconds", out).group(1)) for out in outputs]
    return Figures(requests=sum(counts), seconds=seconds)


def curl_time(url, host, *options):
    """One request; (seconds to the first byte, seconds in all)."""
    out = run(
        ["curl", "-sSk", "-o", "/dev/null", "-H", f"Host: {host}", *options]
        + ["-w", "%{http_code} %{time_starttransfer} %{time_total}", url]
    )
    status, first, total = out.split()
    if status != "200":
        raise RuntimeError(f"{url} answered {status}")
    return float(first), float(total)
