"""A console that nobody reads: mivo waits until somebody reads it, and SIGINT ends mivo nevertheless."""

import fcntl
import os
import signal
import socket
import subprocess
import sys
import termios

import pytest

from mivo_process import PROGRAM, ReservedPort
from wire import Wire, request, until

F_SETPIPE_SZ = 1031  # fcntl.h
PIPE_SIZE = 4096  # bytes
AT_ONCE = 5  # seconds
LONG = "/" + "x" * 1000


class Unread:
    """A mivo whose output is a small pipe with a reader that reads nothing."""

    def __init__(self):
        self.reserved = ReservedPort()
        self.reader, writer = os.pipe()
        fcntl.fcntl(self.reader, F_SETPIPE_SZ, PIPE_SIZE)
        self.process = subprocess.Popen([PROGRAM, str(self.reserved.port), "-map", "echo", "-1"],
                                        stdin=subprocess.DEVNULL, stdout=writer, stderr=subprocess.DEVNULL)
        os.close(writer)
        self.client = until(self._connect, "mivo listens")

    def _connect(self):
        try:
            return Wire.connect(self.reserved.port)
        except ConnectionRefusedError:
            return None

    def fill(self):
        """Sends requests until no answer comes; returns the number of answers that came."""
        self.client.sock.settimeout(1.5)
        for count in range(100):
            try:
                self.client.ask(request("echo", LONG))
            except socket.timeout:  # TimeoutError, but not before Python 3.10
                return count
        raise AssertionError("the console never filled up")

    def bytes_in_pipe(self):
        return int.from_bytes(fcntl.ioctl(self.reader, termios.FIONREAD, bytes(4)), sys.byteorder)

    def close(self):
        self.process.kill()
        self.process.wait()
        self.client.close()
        self.reserved.close()
        if self.reader != -1:
            os.close(self.reader)


@pytest.fixture
def unread():
    made = Unread()
    yield made
    made.close()


def test_console_that_is_read_again__goes_on_without_losing_a_line(unread):
    count = unread.fill()
    assert count > 3
    seen = b""
    while seen.count(b"[echo]") < count:
        seen += os.read(unread.reader, 65536)
    unread.client.sock.settimeout(15)
    unread.client.read_reply()  # to the request that got no answer before
    unread.process.send_signal(signal.SIGINT)
    while data := os.read(unread.reader, 65536):
        seen += data
    assert unread.process.wait(15) == 0
    assert seen.count(b"[echo]") == count + 1 and seen.endswith(b"\nShutting down...\n")


def test_sigint_when_the_console_is_full__ends_the_run(unread):
    unread.fill()
    unread.process.send_signal(signal.SIGINT)
    assert unread.process.wait(AT_ONCE) == 0


def test_sigint_when_the_console_is_full_and_lines_wait_in_mivo__ends_the_run(unread):
    while unread.bytes_in_pipe() < PIPE_SIZE:
        unread.client.ask(request("echo", LONG))
    unread.client.ask(request("echo", "/"))  # mivo keeps this line until more lines follow
    unread.process.send_signal(signal.SIGINT)
    assert unread.process.wait(AT_ONCE) == 0


def test_reader_of_the_console_goes__clients_are_served(unread):
    unread.fill()
    os.close(unread.reader)
    unread.reader = -1
    unread.client.sock.settimeout(15)
    unread.client.read_reply()
    assert unread.client.ask(request("echo", LONG)).startswith(b"GET /xxx")
    unread.process.send_signal(signal.SIGINT)
    assert unread.process.wait(15) == 0
