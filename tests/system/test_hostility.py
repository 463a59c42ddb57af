"""Clients that try to do harm. After each of them, mivo is as it was before, and the next request is served."""

import random
import socket
import threading

import pytest

from calm import Calm
from mivo_process import PROGRAM, programs
from wire import request

MIB = 1 << 20
HELLO = b"hello, world\n"


@pytest.fixture(params=programs().values(), ids=programs())
def program(request):
    return request.param


@pytest.fixture
def mivo(start_mivo, upstream, node):
    return start_mivo({"echo": -1, "up": upstream.port, "node": node.port})


class Bystander:
    """A client that sends requests all the time on one connection. Each response has to come before mivo has used
    a second of processor time. On a busy machine, that may be many seconds of the clock."""

    SOON = 1  # seconds of processor time

    def __init__(self, connect, mivo):
        self.wire = connect(mivo.port)
        self.wire.sock.settimeout(60)  # seconds
        self.clock = mivo.processor_seconds
        self.slowest, self.served, self.failure, self.stop = 0, 0, None, False
        self.thread = threading.Thread(target=self._ask, daemon=True)
        self.thread.start()

    def _ask(self):
        try:
            while not self.stop:
                start = self.clock()
                assert self.wire.ask(request("node", "/small")) == HELLO
                self.slowest = max(self.slowest, self.clock() - start)
                self.served += 1
        except (AssertionError, OSError) as error:
            self.failure = repr(error)

    def finish(self):
        self.stop = True
        self.thread.join(15)
        self.wire.close()
        assert self.failure is None and self.served > 0
        assert self.slowest < self.SOON


def test_flood_of_connections_reset_at_random_moments__others_are_served_all_the_time(mivo, calm, connect):
    chance = random.Random(64)
    requests = [request("echo"), request("node", "/small"), request("node", f"/repeat/{2 * MIB}"),
                request("node", "/echo", "POST", body=bytes(50000)), request("nobody"), bytes(1000)]
    bystander = Bystander(connect, mivo)
    under_way = []
    for _ in range(3000):
        client = connect(mivo.port)
        sent = chance.choice(requests)
        client.send(sent[:chance.randint(0, len(sent)) if chance.random() < 0.5 else None])
        under_way.append(client)
        while len(under_way) > chance.randint(0, 30):
            under_way.pop(chance.randrange(len(under_way))).reset()
    for client in under_way:
        client.reset()
    bystander.finish()
    calm.expect_again()
    assert not mivo.lines(".*failed.*")


def test_clients_that_close_their_sending_side_at_every_stage__are_all_ended(mivo, calm, connect, upstream):
    post = request("up", "/", "POST", ["Content-Length: 100000"])
    stages = [b"", b"GET / HT", request("up")[:-2], request("up"), post, post + bytes(5000), request("echo"),
              request("nobody"), request("node", f"/repeat/{2 * MIB}")]
    for _ in range(20):
        clients = [connect(mivo.port) for _ in stages]
        for client, sent in zip(clients, stages):
            client.send(sent)
            client.half_close()
        for client in clients:
            client.wait_closed()
            client.close()
    while wire := upstream.accept_if_waiting():
        wire.wait_closed()
    calm.expect_again()


def urgent(wire):
    wire.sock.send(b"!", socket.MSG_OOB)


def test_urgent_data_of_clients_at_every_stage__ends_them_as_errors_and_nobody_else(mivo, calm, connect, upstream):
    bystander = Bystander(connect, mivo)
    stages = [b"", b"GET / HT", request("up", "/", "POST", ["Content-Length: 9"]), request("up")]
    for number in range(10 * len(stages)):
        client = connect(mivo.port)
        wires = [client]
        sent = stages[number % len(stages)]
        client.send(sent)
        if sent.endswith(b"\r\n\r\n"):
            wires.append(upstream.accept())
            wires[-1].read_head()
        urgent(client)
        for wire in wires:
            wire.wait_closed()
    assert len(mivo.lines(r"\d+ has errors\.")) == 10 * len(stages)
    bystander.finish()
    calm.expect_again()


def test_urgent_data_of_an_upstream__ends_its_clients_connection_and_nobody_else(mivo, calm, connect, upstream):
    bystander = Bystander(connect, mivo)
    for _ in range(10):
        client = connect(mivo.port)
        client.send(request("up"))
        wire = upstream.accept()
        wire.read_head()
        urgent(wire)
        client.wait_closed()
        wire.wait_closed()
        client.close()
    assert len(mivo.lines(r"\d+ has errors\.")) == 10
    bystander.finish()
    calm.expect_again()


# These fill a head so that the search for its lines takes long: bytes that are nearly a line end, the shortest
# possible lines, and lines that are nearly the headers that mivo looks up or leaves out.
FILLINGS = [b"\r", b"\n\r", b"\r\r\n", b"a\r\n", b"ab\r\n", b"ce\r\n", b"ut\r\n", b"Px\r\n"]


def test_long_heads_that_are_slow_to_search__keep_nobody_waiting(mivo, connect, upstream, program):
    # The allocator keeps up to 64 MiB of the memory of such a head for the next head.
    calm = Calm(mivo, connect, 72 * 1024)
    # The program with sanitizers takes ten times as long for each byte.
    size = 64 * MIB if program == PROGRAM else 16 * MIB
    bystander = Bystander(connect, mivo)
    for filling in FILLINGS:
        client = connect(mivo.port)
        client.send(request("up")[:-2] + filling * (size // len(filling)) + b"\r\nEnd: 1\r\n\r\n")
        wire = upstream.accept()  # mivo has parsed the head
        client.reset()
        wire.reset()
    bystander.finish()
    calm.expect_again()
