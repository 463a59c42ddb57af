"""A server as a process: started, watched through /proc, and ended."""

import os
import random
import signal
import socket
import subprocess
import time
from dataclasses import dataclass
from pathlib import Path

PROXY_CORE = "0"  # the proxy has one core to itself,
LOAD_CORE = "1"  # load and upstream share the other


given_ports = set()  # by free_port(), in this run


def free_port():
    """A free port below those that the system gives to outgoing connections: a client that polls one of
    those, waiting for a server, may be given the same number and be connected to itself."""
    while True:
        port = random.randrange(11000, 30000)
        with socket.socket() as s:
            try:
                s.bind(("127.0.0.1", port))
            except OSError:
                continue
        given_ports.add(port)
        return port


def settled(read, step, quiet=0.5, longest=30):
    """Calls `read` until what it returns has moved by less than `step` for `quiet` seconds; returns that."""
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


@dataclass
class Processor:
    """Processor time in seconds: `total` from the scheduler's nanoseconds, the split from clock ticks."""

    total: float
    user: float
    system: float

    def __sub__(self, other):
        return Processor(self.total - other.total, self.user - other.user, self.system - other.system)


class Server:
    """A program that listens on `port`, and on `tls_port` if it has one; `tls` is who serves the latter. The
    object can be started, ended and started again."""

    def __init__(self, name, command, port, core=PROXY_CORE, tls_port=None, environment=None):
        self.name = name
        self.command = command
        self.port = port
        self.core = core
        self.tls_port = tls_port
        self.tls = self if tls_port else None
        self.environment = environment or {}
        self.process = None
        self.pid = None

    def processes(self):
        """This server, and the one beside it that serves TLS."""
        return [self] if self.tls in (None, self) else [self, self.tls]

    def start(self):
        self.process = subprocess.Popen(
            ["taskset", "-c", self.core, *self.command],
            stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL,
            env={**os.environ, **self.environment},
        )
        self._wait()
        self.pid = self._worker()

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

    def _worker(self):
        """The process that does the work: nginx has a master above it."""
        children = subprocess.run(
            ["pgrep", "-P", str(self.process.pid)], capture_output=True, text=True
        ).stdout.split()
        return int(children[0]) if children else self.process.pid

    def revive(self):
        """Starts it if it does not run, be it that a workload has ended it; returns whether that was so."""
        if self.process is None or self.process.poll() is not None:
            self.start()
        elif not Path(f"/proc/{self.pid}").exists():
            self.pid = self._worker()
        else:
            return False
        return True

    def url(self, path, tls=False):
        return f"https://127.0.0.1:{self.tls_port}{path}" if tls else f"http://127.0.0.1:{self.port}{path}"

    def processor(self):
        total = int(Path(f"/proc/{self.pid}/schedstat").read_text().split()[0]) / 1e9
        fields = Path(f"/proc/{self.pid}/stat").read_text().rsplit(")", 1)[1].split()
        ticks = os.sysconf("SC_CLK_TCK")
        return Processor(total, int(fields[11]) / ticks, int(fields[12]) / ticks)

    def _field(self, file, field):
        for line in Path(f"/proc/{self.pid}/{file}").read_text().splitlines():
            if line.startswith(field + ":"):
                return int(line.split()[1])
        raise KeyError(field)

    def resident(self):
        """KiB in memory now. Counted page by page: the kernel's running count is off by up to 64 pages."""
        return self._field("smaps_rollup", "Rss")

    def private(self):
        """KiB of that which no other process shares: without the libraries' code, that is."""
        return self._field("smaps_rollup", "Private_Clean") + self._field("smaps_rollup", "Private_Dirty")

    def peak(self):
        """KiB, the most since reset_peak()."""
        return self._field("status", "VmHWM")

    def reset_peak(self):
        Path(f"/proc/{self.pid}/clear_refs").write_text("5")

    def stop(self):
        if self.process is None or self.process.poll() is not None:
            return
        self.process.send_signal(signal.SIGINT if self.name == "mivo" else signal.SIGTERM)
        try:
            self.process.wait(10)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
