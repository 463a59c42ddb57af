"""mivo starts with standard descriptors closed. No socket takes their numbers, so printed text reaches no client."""

import itertools
import os
import signal
import subprocess

import pytest

from example_process import example
from mivo_process import PROGRAM, ReservedPort
from wire import DEADLINE, Wire, request, until

pytest_plugins = ["tls_service"]

SETS = [which for count in (1, 2, 3) for which in itertools.combinations(range(3), count)]


class Bare:
    """A program without a console. A connection that succeeds shows that the program has started."""

    def __init__(self, closed, command, port):
        self.port = port
        self.command = command
        closing = " ".join(f"{number}<&-" if number == 0 else f"{number}>&-" for number in closed)
        # The shell closes the descriptors that Python has opened, and then becomes the program.
        self.process = subprocess.Popen(["sh", "-c", f'exec stdbuf -oL "$@" {closing}', "sh", *command],
                                        stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                        stderr=subprocess.DEVNULL)
        until(self._listens, "it listens")

    def _listens(self):
        assert self.process.poll() is None, f"it ended at once: {self.command}"
        try:
            Wire.connect(self.port).close()
            return True
        except ConnectionRefusedError:
            return False

    def standard_descriptors(self):
        """The files of the descriptors 0 to 2, as far as they are open."""
        folder = f"/proc/{self.process.pid}/fd"
        return {number: os.readlink(f"{folder}/{number}") for number in os.listdir(folder) if int(number) < 3}

    def end(self):
        self.process.send_signal(signal.SIGINT)
        assert self.process.wait(DEADLINE) == 0

    def kill(self):
        self.process.kill()
        self.process.wait()


@pytest.fixture
def start_bare():
    started, reserved = [], []

    def start(closed, *command):
        """A command in which {port} stands for a free port."""
        reserved.append(ReservedPort())
        port = reserved[-1].port
        started.append(Bare(closed, [str(text).replace("{port}", str(port)) for text in command], port))
        return started[-1]

    yield start
    for bare in started:
        bare.kill()
    for port in reserved:
        port.close()


@pytest.fixture
def clients():
    """clients(port): several clients, connected at the same time."""
    made = []

    def connect(port):
        made.extend(Wire.connect(port) for _ in range(5))
        return made

    yield connect
    for client in made:
        client.close()


@pytest.mark.parametrize("closed", SETS, ids=lambda closed: "closed" + "".join(map(str, closed)))
def test_standard_descriptors_are_closed__clients_get_their_replies_and_nothing_else(start_bare, clients, closed):
    bare = start_bare(closed, PROGRAM, "{port}", "-map", "echo", "-1")
    connected = clients(bare.port)
    for number, client in enumerate(connected * 3):
        page = request("echo", f"/{number}")
        head, body = (client.send(page), client.read_reply())[1]
        assert head.startswith(b"HTTP/1.1 200 OK\r\n") and body == page + b"Your IPv4 address is: 127.0.0.1"
    files = bare.standard_descriptors()
    bare.end()
    assert [client.read_to_end() for client in connected] == [b""] * len(connected)
    assert set(files.values()) == {"/dev/null"}


@pytest.mark.parametrize("closed", [(0,), (0, 1), (0, 1, 2)], ids=lambda closed: "closed" + "".join(map(str, closed)))
def test_standard_descriptors_are_closed_with_https__clients_get_their_redirects_and_nothing_else(
        start_bare, clients, certificates, closed):
    certificate, https = certificates["ecdsa"], ReservedPort()
    bare = start_bare(closed, PROGRAM, "{port}", "-ssl", https.port, certificate.key, certificate.crt)
    connected = clients(bare.port)
    for client in connected:
        client.send(request("echo"))
    for client in connected:
        head, _, rest = client.read_to_end().partition(b"\r\n\r\n")
        assert head.startswith(b"HTTP/1.1 301 ") and rest == b""
    assert set(bare.standard_descriptors().values()) == {"/dev/null"}
    bare.end()
    https.close()


def test_example_with_closed_descriptors__no_socket_takes_their_numbers(start_bare, clients, folder):
    bare = start_bare((0, 1, 2), example("file_server"), "{port}", folder)
    for client in clients(bare.port):
        client.send(request("any", "/missing"))
        assert b" 404 " in client.read_head()
    assert set(bare.standard_descriptors().values()) == {"/dev/null"}
    bare.end()
