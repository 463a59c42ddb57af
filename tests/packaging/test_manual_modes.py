"""The tests provoke every console line of the manual in each mode in which it may appear. No line appears in a mode for
which the manual does not list it.

The lines come from the running program, so nothing here depends on reading its sources.
"""

import errno
import os
import re
import resource
import signal
import socket
import ssl
import subprocess

import pytest

from certificates import Authority
from fake_clock import Clock, clock_library  # noqa: F401
from manual import BLANK, items_of_messages
from mivo_process import PROGRAM, Mivo, ReservedPort
from upstreams import HERE
from wire import Wire, request, until

MIB = 1 << 20
REQUEST_LIMIT = 100 * MIB
MEMORY_LIMIT = 64 * MIB
BARE = {".It Ar address": r"\d+\.\d+\.\d+\.\d+", ".It Ar name": r"[A-Za-z][A-Za-z0-9_]+"}
MODES = ["http", "https"]


@pytest.fixture(scope="session")
def faults(tmp_path_factory):
    """The library that makes calls into the system fail. It also makes the program write each line at once."""
    path = tmp_path_factory.mktemp("stub") / "stub_faults.so"
    subprocess.run(["g++", "-std=c++17", "-O1", "-fPIC", "-shared", HERE / "stub_faults.cpp", "-o", path], check=True)
    return path


@pytest.fixture(scope="session")
def authority(tmp_path_factory):
    return Authority(tmp_path_factory.mktemp("authority"), "ecdsa")


@pytest.fixture(scope="session")
def certificate(authority):
    return authority.issue("server")


class Stage:
    """Starts mivo in one of the two modes and gathers the lines that it prints."""

    def __init__(self, folder, mode, certificate, root):
        self.folder = folder
        self.mode = mode
        self.certificate = certificate
        self.root = root
        self.https = ReservedPort()
        self.runs = []

    def start(self, environment=(), port="{port}", hosts=None):
        maps = [word for host, local_port in (hosts or {}).items() for word in ("-map", host, str(local_port))]
        tls = ["-ssl", str(self.https.port), str(self.certificate.key), str(self.certificate.crt)]
        arguments = [*environment, PROGRAM, port, *(tls if self.mode == "https" else []), *maps]
        self.runs.append(Mivo(self.folder, arguments, program="env"))
        return self.runs[-1]

    def connect(self, mivo):
        """A client of the port that serves, and the client's TCP connection."""
        if self.mode == "http":
            wire = Wire.connect(mivo.port)
            return wire, wire.sock
        tcp = Wire.connect(self.https.port).sock
        raw = tcp.dup()
        context = ssl.create_default_context(cafile=self.root.crt)
        return Wire(context.wrap_socket(tcp, server_hostname="localhost")), raw

    def lines(self):
        return [line for mivo in self.runs for line in (mivo.console() + mivo.errors()).splitlines()]

    def close(self):
        for mivo in self.runs:
            mivo.kill()
        self.https.close()


@pytest.fixture(params=MODES)
def stage(request, tmp_path, authority, certificate):
    made = Stage(tmp_path, request.param, certificate, authority.root)
    yield made
    made.close()


def is_seen_to_be_urgent(raw, mivo):
    """Sends a byte of urgent data. Returns whether mivo has ended the connection for this byte or an earlier one."""
    try:
        raw.send(b"!", socket.MSG_OOB)
    except ConnectionError:
        pass
    return mivo.lines(r"\d+ has errors\.")


def send_until(wire, mivo, pattern, piece):
    """Sends pieces until mivo has printed a line, or the connection has ended."""
    try:
        while not mivo.lines(pattern):
            wire.send(piece)
    except (ConnectionError, ssl.SSLError):
        pass
    mivo.wait_for_line(pattern)
    wire.close()


def provoke_while_it_serves(stage, clock, libraries):
    """One run with every line that clients and the clock can cause."""
    environment = ["LD_PRELOAD=" + ":".join(map(str, libraries)), f"MIVO_CLOCK={clock.path}"]
    mivo = stage.start(environment, hosts={"echo": -1, "wrong": -5})
    mivo.wait_until_it_runs()
    for host in ("echo", "wrong"):
        client, _ = stage.connect(mivo)
        client.send(request(host, headers=["User-Agent: x y"]))
        client.read_head()
        client.close()
    mivo.wait_for_line(r"getaddrinfo\(\) failed for host localhost:-5!")
    client, raw = stage.connect(mivo)
    until(lambda: is_seen_to_be_urgent(raw, mivo), "the line about an error")
    client.close()

    client, _ = stage.connect(mivo)
    client.send(request("echo", headers=[f"Content-Length: {2 * REQUEST_LIMIT}"]))
    send_until(client, mivo, "Warning! Request exceeds .*", bytes(MIB))
    before = resource.prlimit(mivo.pid, resource.RLIMIT_DATA, (MEMORY_LIMIT, -1))
    client, _ = stage.connect(mivo)
    send_until(client, mivo, r"\d+ has failed: std::bad_alloc", b"x" * MIB)
    resource.prlimit(mivo.pid, resource.RLIMIT_DATA, before)

    if stage.mode == "https":
        provoke_on_the_port_that_redirects(mivo)
        renewed = os.stat(stage.certificate.crt).st_mtime + 10
        os.utime(stage.certificate.crt, (renewed, renewed))
        clock.advance(61)
        mivo.wait_for_line(r"Reloading certificate\.\.\.")
    client, _ = stage.connect(mivo)
    mivo.wait_for_line(r"[1-9]\d* connections")
    clock.advance(12)
    mivo.wait_for_line(r"\d+ has timed out\.")
    client.close()
    mivo.interrupt()


def provoke_on_the_port_that_redirects(mivo):
    client = Wire.connect(mivo.port)
    client.send(request("echo", headers=["User-Agent: x y"]))
    assert b"301 Moved" in client.read_to_end()
    client.close()
    client = Wire.connect(mivo.port)
    client.send(request("echo", headers=["Upgrade: websocket", "Sec-WebSocket-Version: 12"]))
    assert b"400 Bad Request" in client.read_to_end()
    client.close()


def run_until(mivo, pattern):
    mivo.wait_for_line(pattern)
    until(lambda: not mivo.is_running(), "the end of the program")


def provoke_at_the_start(stage, faults):
    """The calls that open a port fail, each in a separate run."""
    for call, line in [("socket", r"socket\(\) failed"), ("bind", r"bind\(\) failed: .*"),
                       ("listen", r"listen\(\) failed"), ("getaddrinfo", r"getaddrinfo\(\) failed: .*")]:
        run_until(stage.start(with_fault(faults, call, 1, errno.EADDRINUSE)), line)


def with_fault(faults, call, first, error, times=1):
    return [f"LD_PRELOAD={faults}", f"MIVO_STUB_FAULT={call} {first} {times} {error}"]


def stop(mivo):
    mivo.process.send_signal(signal.SIGINT)
    assert mivo.process.wait(15) == 0


def provoke_by_the_system(stage, faults):
    """Calls into the system fail while mivo serves."""
    mivo = stage.start(with_fault(faults, "select", 1, errno.EBADF))
    mivo.wait_for_line(r"select\(\) failed! \d+")
    mivo.wait_for_line("0 connections")
    stop(mivo)

    mivo = stage.start(with_fault(faults, "accept4", 1, errno.EMFILE))
    mivo.wait_for_line("0 connections")
    try:
        Wire.connect(mivo.port).close()
    except OSError:
        pass  # the reset may come while the client still connects
    mivo.wait_for_line(r"accept\(\) failed")
    stop(mivo)

    listening = 1 if stage.mode == "http" else 2
    mivo = stage.start(with_fault(faults, "socket", listening + 1, errno.EMFILE), hosts={"up": 3000})
    mivo.wait_for_line("0 connections")
    client, _ = stage.connect(mivo)
    client.send(request("up"))
    client.read_head()
    client.close()
    mivo.wait_for_line("No addresses worked for host localhost:3000\\.")
    stop(mivo)


def provoke_without_the_library(stage, faults, folder):
    """The linker's cache is missing, then the library is missing, and at last the library is empty."""
    for call in ("fopen", "dlopen"):
        mivo = stage.start(with_fault(faults, call, 1, errno.ENOENT, times=9))
        end_or_stop(stage, mivo)
    cache = open("/etc/ld.so.cache", "rb").read()
    name = re.search(rb"/(libssl\.so[ -\x7f]*)", cache)[1].decode()
    subprocess.run(["cc", "-shared", "-x", "c", "/dev/null", "-o", folder / name], check=True)
    end_or_stop(stage, stage.start([f"LD_LIBRARY_PATH={folder}"]))
    if stage.mode == "https":
        mivo = stage.start(port="0")
        mivo.wait_until_it_runs()
        mivo.interrupt()


def end_or_stop(stage, mivo):
    """Without the library, mivo still serves HTTP. It serves HTTPS only if it found the library in the end."""
    until(lambda: not mivo.is_running() or mivo.lines("0 connections"), "the first turn or the end")
    if mivo.is_running():
        stop(mivo)


def test_lines_of_each_mode__are_those_that_the_manual_has_for_it(
        stage, tmp_path, faults, clock_library):  # noqa: F811
    provoke_while_it_serves(stage, Clock(tmp_path / "clock"), [clock_library, faults])
    provoke_at_the_start(stage, faults)
    provoke_by_the_system(stage, faults)
    provoke_without_the_library(stage, faults, tmp_path)

    patterns = {item: BARE.get(item) or re.escape(message).replace(BLANK, ".*")
                for item, (message, _) in items_of_messages().items()}
    # A line may match several items. The item with the fewest varying parts is meant.
    items = sorted(patterns, key=lambda item: patterns[item].count(".*") - len(patterns[item]))
    seen = set()
    for line in stage.lines():
        item = next((item for item in items if re.fullmatch(patterns[item], line)), None)
        assert item, f"not in the manual: {line!r}"
        seen.add(item)
    told = {item for item, (_, modes) in items_of_messages().items() if stage.mode in modes}
    assert seen - told == set(), "the manual does not have them for this mode"
    assert told - seen == set(), "the manual has them for this mode, and they were not provoked"
