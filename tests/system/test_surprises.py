"""What surprises users with a server behind mivo, as far as the other files do not test it. docs/behaviour.md gives
the reasons."""

import signal
import subprocess

import pytest

from answers import echo_page
from example_process import example
from mivo_process import PROGRAM, Mivo, ReservedPort
from websocket_frames import frame, server_frame, upgrade
from wire import header, request, until


class Relay:
    """A mivo in front of a scripted upstream. A second client, the bystander, tells how far mivo has read."""

    def __init__(self, start_mivo, listen, connect):
        self.upstream = listen()
        self.mivo = start_mivo({"up": self.upstream.port, "echo": -1})
        self.client, self.bystander = connect(self.mivo.port), connect(self.mivo.port)

    def wait_a_turn(self):
        """After this call, mivo has read everything that was delivered before the call."""
        self.client.wait_delivered()
        for _ in range(2):
            self.bystander.ask(request("echo"))


@pytest.fixture
def relay(start_mivo, listen, connect):
    return Relay(start_mivo, listen, connect)


@pytest.fixture
def chat(folder):
    started = Mivo.serve(folder, program=example("chat"))
    yield started
    try:
        started.interrupt()
    finally:
        started.kill()


def has_something(wire):
    """Returns whether there are bytes to read, or the end of the connection."""
    wire.sock.setblocking(False)
    try:
        wire.unread += wire.sock.recv(1 << 20)
        return True
    except BlockingIOError:
        return False
    finally:
        wire.sock.settimeout(15)


# WebSocket through the proxy


def test_upgrade__reaches_the_upstream_without_its_connection_line(relay):
    relay.client.send(request("up", "/", headers=["Upgrade: websocket", "Connection: Upgrade"]))
    head = relay.upstream.accept().read_head()
    assert header(head, b"upgrade") == b"websocket"
    assert header(head, b"connection") is None


def test_upgraded_connection__carries_what_the_upstream_says_and_not_what_the_client_says(
        chat, start_mivo, connect):
    mivo = start_mivo({"chat": chat.port, "echo": -1})
    behind, beside, bystander = upgrade(connect(mivo.port)), upgrade(connect(chat.port)), connect(mivo.port)
    behind.send(frame(b"from behind mivo"))
    behind.wait_delivered()
    for _ in range(2):
        bystander.ask(request("echo"))
    beside.send(frame(b"from beside it"))
    expected = server_frame(b"from beside it")
    assert beside.read(len(expected)) == expected  # nothing came before it
    assert behind.read(len(expected)) == expected
    for wire in (behind, beside, bystander):
        wire.close()
    mivo.wait_until_idle()


# The end of a connection


def test_echo_page_for_http_1_0__has_its_length_and_is_not_followed_by_a_close(relay):
    sent = b"GET / HTTP/1.0\r\nHost: echo\r\n\r\n"
    relay.client.send(sent)
    assert relay.client.read(len(echo_page(sent))) == echo_page(sent)
    relay.wait_a_turn()
    assert not has_something(relay.client)


def test_connection_close_of_http_1_1__is_not_obeyed(relay):
    for _ in range(3):
        relay.client.ask(request("echo", headers=["Connection: close"]))
    relay.wait_a_turn()
    assert not has_something(relay.client)


# The process


def test_second_copy_on_the_same_port__starts_silently_and_gets_some_of_the_clients(
        start_mivo, connect):
    first = start_mivo({"first": -1})
    second = subprocess.Popen(["stdbuf", "-oL", PROGRAM, str(first.port), "-map", "second", "-1"],
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE)
    try:
        assert b"Binding to port" in second.stdout.readline()
        until(lambda: second.stdout.readline().endswith(b" connections\n"), "its first turn")
        found = set()
        until(lambda: found.add(answer_of(connect, first.port, "second")) or len(found) == 2, "answers of both")
    finally:
        second.send_signal(signal.SIGINT)
        second.stdout.read()
        assert second.wait(15) == 0
        second.stdout.close()


def answer_of(connect, port, host):
    client = connect(port)
    client.send(request(host))
    status = client.read_reply()[0][:12]
    client.close()
    return status


def test_console_that_is_a_file__is_written_at_the_end_of_the_run(connect, folder):
    reserved = ReservedPort()
    path = f"{folder}/console"
    with open(path, "wb") as console:
        mivo = subprocess.Popen([PROGRAM, str(reserved.port), "-map", "echo", "-1"], stdin=subprocess.DEVNULL,
                                stdout=console)
    try:
        until(lambda: is_open(connect, reserved.port), "the port is open")
        connect(reserved.port).ask(request("echo"))
        with open(path, "rb") as console:
            assert console.read() == b""
    finally:
        mivo.send_signal(signal.SIGINT)
        mivo.wait(15)
        reserved.close()
    with open(path, "rb") as console:
        assert b"[echo] 127.0.0.1:" in console.read()


def is_open(connect, port):
    try:
        connect(port).close()
        return True
    except ConnectionRefusedError:
        return False
