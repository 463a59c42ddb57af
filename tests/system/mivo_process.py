"""The program under test: started on a free port, watched from outside, ended by SIGINT.

MIVO_PROGRAM names the program. MIVO_ASAN_PROGRAM, if it is set, names the same program with sanitizers, which some
tests run, too.
"""

import contextlib
import os
import pathlib
import re
import resource
import signal
import socket
import subprocess
import time

from wire import until

REPOSITORY = pathlib.Path(__file__).resolve().parents[2]
PROGRAM = os.environ.get("MIVO_PROGRAM", str(REPOSITORY / "build/release/mivo"))
SANITIZED_PROGRAM = os.environ.get("MIVO_ASAN_PROGRAM", "")
WATCH_TIME = 1  # seconds
IDLE_SHARE = 0.02  # of one processor
TICKS_PER_SECOND = os.sysconf("SC_CLK_TCK")


def processor_seconds(pid):
    """The processor time that a process has taken so far, in steps of a hundredth of a second."""
    fields = pathlib.Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / TICKS_PER_SECOND


def expect_idle(*mivos):
    """Checks that no mivo takes more than a little processor time while the connected clients send nothing. Each
    mivo has to be idle in one of three seconds. In the others it may still give memory back. A loop that spins takes
    all three."""
    least = [1] * len(mivos)
    for _ in range(3):
        least = list(map(min, least, processor_shares(mivos)))
        if max(least) < IDLE_SHARE:
            return
    raise AssertionError(f"{least} of a processor")


def processor_shares(mivos):
    """The share of a processor that each of them takes, all in the same second."""
    start, before = time.monotonic(), [mivo.processor_seconds() for mivo in mivos]
    time.sleep(WATCH_TIME)
    return [(mivo.processor_seconds() - then) / (time.monotonic() - start) for mivo, then in zip(mivos, before)]


def programs():
    """The programs with which the tests of robustness run: {name of the parameter: path}."""
    found = {"release": PROGRAM}
    if os.path.exists(SANITIZED_PROGRAM):
        found["sanitized"] = SANITIZED_PROGRAM
    return found


class ReservedPort:
    """A free port that the system gives to no other process while the object lives.

    The socket is bound but does not listen. It allows other sockets to bind to the same port on purpose: mivo does
    so, and nginx does when it is told to. The system never chooses this port for a process that asks for any free
    port. As long as nobody listens, connections to it are refused.
    """

    def __init__(self, address="0.0.0.0"):
        self.sock = socket.socket()
        self.sock.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self.sock.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEPORT, 1)
        self.sock.bind((address, 0))
        self.port = self.sock.getsockname()[1]

    def close(self):
        self.sock.close()


class Mivo:
    """A running mivo. `{port}` in an argument stands for its own HTTP port, also in `arguments[0]`."""

    def __init__(self, folder, arguments, descriptors=(1024, None), program=PROGRAM):
        self.reserved = ReservedPort()
        self.port = self.reserved.port
        self.console_path = pathlib.Path(folder, f"console_{self.port}")
        self.errors_path = pathlib.Path(folder, f"errors_{self.port}")
        soft, hard = descriptors
        limits = (soft, hard or resource.getrlimit(resource.RLIMIT_NOFILE)[1])
        arguments = [text.replace("{port}", str(self.port)) for text in arguments]
        # The program does not flush its output. stdbuf makes every line appear in the file at once. It then becomes
        # the program, so the process id is that of mivo.
        with open(self.console_path, "wb") as console, open(self.errors_path, "wb") as errors:
            self.process = subprocess.Popen(
                ["stdbuf", "-oL", program, *arguments], cwd=folder,
                stdin=subprocess.DEVNULL, stdout=console, stderr=errors,
                env={"PATH": os.environ["PATH"], "ASAN_OPTIONS": "verify_asan_link_order=0"},
                preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_NOFILE, limits))
        self.idle_descriptors = None

    @classmethod
    def serve(cls, folder, hosts=None, arguments=(), **options):
        """Starts mivo with a host map and waits until it serves."""
        maps = [text for host, port in (hosts or {}).items() for text in ("-map", host, str(port))]
        mivo = cls(folder, ["{port}", *arguments, *maps], **options)
        mivo.wait_until_it_runs()
        return mivo

    @property
    def pid(self):
        return self.process.pid

    def wait_until_it_runs(self):
        """Waits for the first turn: it prints the count of connections, and the port is open by then."""
        try:
            until(lambda: self.process.poll() is not None or self.lines(r"\d+ connections"), "the first turn")
            assert self.process.poll() is None, f"mivo ended at once: {self.console()}{self.errors()}"
        except AssertionError:
            self.kill()
            raise
        self.idle_descriptors = self.descriptors()

    def console(self):
        return self.console_path.read_text(errors="replace")

    def errors(self):
        return self.errors_path.read_text(errors="replace")

    def lines(self, pattern):
        """The console lines so far that match the whole pattern, without their line ends."""
        return [line for line in self.console().split("\n") if re.fullmatch(pattern, line)]

    def requests(self):
        """The console lines of requests."""
        return self.lines(r"\[.*")

    def wait_for_line(self, pattern, deadline=15):
        until(lambda: self.lines(pattern), f"console line {pattern}", deadline)

    def descriptors(self):
        return set(os.listdir(f"/proc/{self.pid}/fd"))

    def wait_until_idle(self):
        """Waits until every connection is closed; a descriptor that stays open is a leak."""
        until(lambda: self.descriptors() == self.idle_descriptors, "all connections closed: "
              f"{self.idle_descriptors} are open when idle, see /proc/{self.pid}/fd")

    def expect_idle(self):
        expect_idle(self)

    def processor_seconds(self):
        """The processor time in steps of a nanosecond. It covers the first thread alone; mivo has no other."""
        return int(pathlib.Path(f"/proc/{self.pid}/schedstat").read_text().split()[0]) / 1e9

    def descriptor_limits(self):
        return resource.prlimit(self.pid, resource.RLIMIT_NOFILE)

    def resident_peak_kib(self):
        status = pathlib.Path(f"/proc/{self.pid}/status").read_text()
        return int(re.search(r"VmHWM:\s+(\d+) kB", status)[1])

    @contextlib.contextmanager
    def stopped(self):
        """Stops mivo for a while. mivo then sees in one turn everything that happened meanwhile."""
        self.process.send_signal(signal.SIGSTOP)
        status = pathlib.Path(f"/proc/{self.pid}/stat")
        try:
            until(lambda: status.read_text().rpartition(")")[2].split()[0] == "T", "mivo has stopped")
            yield
        finally:
            self.process.send_signal(signal.SIGCONT)

    def interrupt(self):
        """Sends SIGINT, as a user does with Ctrl-C."""
        self.process.send_signal(signal.SIGINT)
        self.expect_good_end()

    def expect_good_end(self):
        """Waits for the end of a run that SIGINT ends. mivo's last line says so, and its exit status is 0."""
        assert self.wait_for_exit() == 0
        assert self.console().endswith("\nShutting down...\n")

    def wait_for_exit(self):
        """Returns the exit status, after checking that nothing was printed on standard error."""
        try:
            status = self.process.wait(15)
        finally:
            self.kill()
        assert self.errors() == ""
        return status

    def is_running(self):
        return self.process.poll() is None

    def kill(self):
        if self.is_running():
            self.process.kill()
            self.process.wait()
        self.reserved.close()
