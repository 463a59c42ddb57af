"""A server, which is a process and perhaps its children: starts it, watches it through /proc, and ends it."""

import array
import os
import random
import signal
import socket
import subprocess
import time
from pathlib import Path

PROXY_CORE = "0"  # the proxy has one core to itself,
LOAD_CORE = "1"  # load and upstream share the other


given_ports = set()  # the ports that free_port() has given in this run


def free_port():
    """A free port below those that the system gives to outgoing connections. If a server had one of those, a client
    that polls while it waits for the server could get the same port for itself, and be connected to itself."""
    while True:
        port = random.randrange(11000, 30000)
        with socket.socket() as s:
            try:
                s.bind(("127.0.0.1", port))
            except OSError:
                continue
        if port not in given_ports:
            given_ports.add(port)
            return port


def settled(read, step, quiet=0.5, longest=30):
    """Calls `read` until its value has changed by less than `step` for `quiet` seconds; returns that value."""
    deadline = time.monotonic() + longest
    value, since = read(), time.monotonic()
    while time.monotonic() - since < quiet:
        if time.monotonic() > deadline:
            raise RuntimeError(f"not settled after {longest} s")
        time.sleep(0.02)
        now = read()
        if abs(now - value) >= step:
            value, since = now, time.monotonic()
    return value


def family(pid):
    """The process and all its descendants."""
    children = {}
    for entry in Path("/proc").iterdir():
        if entry.name.isdigit():
            try:
                parent = (entry / "stat").read_text().rsplit(")", 1)[1].split()[1]
            except OSError:
                continue  # it has just ended
            children.setdefault(int(parent), []).append(int(entry.name))
    found = [pid]
    for one in found:
        found += children.get(one, [])
    return found


def processor_seconds(pid):
    """Processor time of a process and all its threads, including threads that have ended, in nanosecond steps. The
    clock's number is the one that clock_getcpuclockid() gives."""
    return time.clock_gettime((~pid << 3) | 2)


def user_seconds(pid):
    """The part of processor_seconds() that was not spent in the kernel. The kernel samples it in steps of 10 ms, so it
    is good for averages over some seconds."""
    fields = Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
    return int(fields[11]) / os.sysconf("SC_CLK_TCK")


def distinct_kib(pids):
    """KiB of the pages that the processes have mapped in. A page that several of them share counts once. Needs root,
    because the kernel shows the identity of a page to nobody else."""
    page = os.sysconf("SC_PAGE_SIZE")
    pages = set()
    for pid in pids:
        with open(f"/proc/{pid}/pagemap", "rb", buffering=0) as pagemap:
            for line in Path(f"/proc/{pid}/maps").read_text().splitlines():
                begin, end = (int(part, 16) // page for part in line.split()[0].split("-"))
                if "[vsyscall]" in line:
                    continue  # this page has an address of the kernel
                pagemap.seek(begin * 8)
                entries = array.array("Q", pagemap.read((end - begin) * 8))
                pages.update(entry & (1 << 55) - 1 for entry in entries if entry >> 63)
    if pages == {0}:
        raise RuntimeError("only root can tell which pages are shared")
    return len(pages) * page // 1024


class Server:
    """A program that listens on `port`, over TLS if `tls`. The object can be started, ended and started again.
    A figure is the sum over all its processes."""

    def __init__(self, name, command, port, core=PROXY_CORE, tls=False, environment=None, job="http"):
        self.name = name
        self.command = command
        self.port = port
        self.core = core
        self.tls = tls
        self.job = job
        self.environment = environment or {}
        self.process = None

    def start(self):
        self.process = subprocess.Popen(
            ["taskset", "-c", self.core, *self.command],
            stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL,
            env={**os.environ, **self.environment},
        )
        self._wait()

    def _wait(self):
        deadline = time.monotonic() + 10
        while time.monotonic() < deadline:
            if self.process.poll() is not None:
                raise RuntimeError(f"{self.name} ended with {self.process.returncode}")
            try:
                socket.create_connection(("127.0.0.1", self.port), 1).close()
                return
            except OSError:
                time.sleep(0.001)
        raise RuntimeError(f"{self.name} does not listen on {self.port}")

    def revive(self):
        """Starts the server if it does not run, for example because a workload has ended it. Returns whether it was
        started."""
        if self.process is not None and self.process.poll() is None:
            return False
        self.start()
        return True

    def url(self, path):
        return f"{'https' if self.tls else 'http'}://127.0.0.1:{self.port}{path}"

    def pids(self):
        return family(self.process.pid)

    def processor(self):
        """Processor time of all its processes, in seconds."""
        return sum(processor_seconds(pid) for pid in self.pids())

    def user(self):
        """The part of processor() that was not spent in the kernel."""
        return sum(user_seconds(pid) for pid in self.pids())

    def _sum(self, file, *fields):
        total = 0
        for pid in self.pids():
            for line in Path(f"/proc/{pid}/{file}").read_text().splitlines():
                if line.split(":")[0] in fields:
                    total += int(line.split()[1])
        return total

    def resident(self):
        """KiB in memory now. A page that several processes share counts once for each of them, so use this to measure
        growth. The kernel counts the pages for smaps_rollup; the running count in VmRSS is wrong by up to 64 pages."""
        return self._sum("smaps_rollup", "Rss")

    def private(self):
        """The part of resident() that no other process shares, in KiB. It does not contain the libraries' code."""
        return self._sum("smaps_rollup", "Private_Clean", "Private_Dirty")

    def distinct(self):
        return distinct_kib(self.pids())

    def peak(self):
        """The greatest resident memory since reset_peak(), in KiB."""
        return self._sum("status", "VmHWM")

    def reset_peak(self):
        for pid in self.pids():
            Path(f"/proc/{pid}/clear_refs").write_text("5")

    def end_signal(self):
        return signal.SIGINT if self.name == "mivo" else signal.SIGTERM

    def stop(self):
        if self.process is None or self.process.poll() is not None:
            return
        self.process.send_signal(self.end_signal())
        try:
            self.process.wait(10)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
