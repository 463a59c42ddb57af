"""More clients and more data than there is room for. Afterwards mivo is as it was before."""

import re
import selectors
import socket
import threading
import time

import pytest

from answers import BAD_GATEWAY
from calm import Calm
from clients import run
from crowd import Crowd, many_descriptors  # noqa: F401
from mivo_process import processor_seconds
from wire import DEADLINE, request, until

MIB = 1 << 20
CROWD = 3000
AT_ONCE = 120  # the most clients without an answer; the listening socket has a queue of 128


@pytest.fixture
def mivo(start_mivo, node):
    return start_mivo({"echo": -1, "node": node.port})


@pytest.fixture
def calm(mivo, connect):
    # Strings and list nodes of 1018 connections, some KiB for each, lie between memory that is still in use.
    return Calm(mivo, connect, 16 * 1024)


class Caller:
    """One of many clients. Each sends a request and stays until all clients have an answer."""

    def __init__(self, port, sent):
        self.sent, self.received, self.answered = sent, b"", False
        self.sock = socket.socket()
        self.sock.setblocking(False)
        self.sock.connect_ex(("127.0.0.1", port))

    def go_on(self):
        """Returns whether the client is done: it has a response, or its connection has ended."""
        try:
            self.sock.sendall(self.sent)
            self.sent = b""
            data = self.sock.recv(65536)
            self.received += data
            self.answered = b"hello, world\n" in self.received or b"Your IPv4" in self.received
            return self.answered or not data
        except BlockingIOError:
            return False
        except ConnectionError:
            return True


def answers_of_a_crowd(port, *sent):
    """Returns what each client received. The clients send the texts of `sent` in turn. They come as fast as mivo
    accepts them: if the queue of the listening socket were full, the system would make them try again after 1, 2,
    4 ... s."""
    callers = []
    with selectors.DefaultSelector() as selector:
        waiting = 0
        end = time.monotonic() + DEADLINE
        while len(callers) < CROWD or waiting > 0:
            assert time.monotonic() < end, f"{waiting} clients got neither a response nor a close"
            while waiting < AT_ONCE and len(callers) < CROWD:
                callers.append(Caller(port, sent[len(callers) % len(sent)]))
                selector.register(callers[-1].sock, selectors.EVENT_READ | selectors.EVENT_WRITE, callers[-1])
                waiting += 1
            for key, _ in selector.select(1):
                if key.data.go_on():
                    selector.unregister(key.fd)
                    waiting -= 1
                elif not key.data.sent:
                    selector.modify(key.fd, selectors.EVENT_READ, key.data)
    for caller in callers:
        caller.sock.close()
    return [caller.received for caller in callers]


def test_3000_clients_at_once__each_is_answered_or_closed(mivo, calm):
    answers = answers_of_a_crowd(mivo.port, request("echo"), request("node", "/small"))
    served = [text for text in answers if text.startswith(b"HTTP/1.1 200 OK\r\n")
              and text.endswith((b"Your IPv4 address is: 127.0.0.1", b"hello, world\n"))]
    refused = [text for text in answers if text in (b"", BAD_GATEWAY)]
    assert len(served) > 600  # a client with an upstream takes two of the 1018 places
    assert len(served) + len(refused) == CROWD
    calm.expect_again()
    assert not mivo.lines(".*failed.*")


def test_slow_senders_on_every_place__are_all_served_and_so_is_a_quick_one_meanwhile(mivo, calm, connect):
    crowd = Crowd(mivo, connect)
    quick = connect(mivo.port)
    crowd.room -= 1
    quick.ask(request("echo"))
    mivo.idle_descriptors, alone = mivo.descriptors(), mivo.idle_descriptors
    crowd.fill_up()
    slowest = 0
    for _ in range(5):
        for number, client in enumerate(crowd.inside):
            client.send(b"s")
            if number % 50 == 0:
                start = mivo.processor_seconds()
                assert quick.ask(request("echo", "/quick")).startswith(b"GET /quick ")
                slowest = max(slowest, mivo.processor_seconds() - start)
    assert slowest < 0.5
    crowd.expect_inside_served()
    crowd.leave()
    quick.close()
    mivo.idle_descriptors = alone
    calm.expect_again()


def serve_a_hundred(mivo, name):
    """100 clients ask nginx for a file for a second. Returns mivo's processor time and the number of requests."""
    before = processor_seconds(mivo.pid)
    told = run("wrk", "-t1", "-c100", "-d1s", "-H", "Host: nginx", f"http://127.0.0.1:{mivo.port}/{name}")
    assert "Non-2xx" not in told and "Socket errors" not in told, told
    return processor_seconds(mivo.pid) - before, int(re.search(r"(\d+) requests in", told)[1])


# What mivo keeps for one client costs the others nothing. For example, a queue that is moved to make room would take
# a tenth of a second in every turn.
def test_client_that_never_reads_a_reply_of_300_mib__takes_no_time_from_100_others(
        start_mivo, listen, nginx, connect, site):
    upstream = listen()
    mivo = start_mivo({"echo": -1, "up": upstream.port, "nginx": nginx.port})
    calm = Calm(mivo, connect)
    small = min((name for name in site.names), key=lambda name: abs(len(site.read(name)) - 1000))
    seconds, requests = serve_a_hundred(mivo, small)
    for_each = seconds / requests
    client = connect(mivo.port)
    client.send(request("up"))
    wire = upstream.accept()
    sender = threading.Thread(target=wire.send, args=[bytes(300 * MIB)], daemon=True)
    before = processor_seconds(mivo.pid)
    sender.start()
    _, requests = serve_a_hundred(mivo, small)
    sender.join(DEADLINE)
    until(lambda: calm.taken_kib() > 290 * 1024, "mivo keeps the response")
    assert processor_seconds(mivo.pid) - before - requests * for_each < 2  # usually a quarter of a second
    seconds, requests = serve_a_hundred(mivo, small)
    assert seconds / requests < 2 * for_each
    client.reset()
    wire.close()
    calm.expect_again()
