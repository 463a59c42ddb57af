"""Enough clients to fill the set of descriptors that mivo can watch, for tests of overload."""

import resource
import time

import pytest

from wire import until

SET_SIZE = 1024  # the descriptors that select() can watch
TURNED_AWAY_WITHIN = 8  # seconds; less than the time after which mivo ends an idle client


@pytest.fixture(autouse=True)
def many_descriptors():
    """Raises the test's own limit, because the test needs a descriptor for each client."""
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (min(hard, 4 * SET_SIZE), hard))
    yield
    resource.setrlimit(resource.RLIMIT_NOFILE, (soft, hard))


class Crowd:
    """Clients that connect in small groups. The crowd waits for each group before the next one, so the system's queue
    never fills.

    The clients in `inside` have begun a request. They send more of it while others connect, so they are never idle for
    long.
    """

    def __init__(self, mivo, connect):
        self.mivo = mivo
        self.connect = lambda: connect(mivo.port)
        self.room = SET_SIZE - len(mivo.idle_descriptors)
        self.inside = []
        self.last_sign_of_life = time.monotonic()

    def show_signs_of_life(self):
        if time.monotonic() - self.last_sign_of_life > 2:
            for client in self.inside:
                client.send(b"x")
            self.last_sign_of_life = time.monotonic()

    def fill(self, count):
        """Lets `count` clients in, for which there is room."""
        for _ in range(count):
            self.inside.append(self.connect())
            self.inside[-1].send(b"GET / HTTP/1.1\r\nHost: echo\r\nSigns: ")
        expected = len(self.mivo.idle_descriptors) + len(self.inside)
        until(lambda: len(self.mivo.descriptors()) == expected, f"{expected} descriptors")
        self.show_signs_of_life()

    def fill_up(self, room_left=0):
        while (missing := self.room - room_left - len(self.inside)) > 0:
            self.fill(min(missing, 60))

    def turn_away(self, count):
        """Connects `count` clients for which there is no room. mivo closes each of them without a byte."""
        for _ in range(count):
            client = self.connect()
            client.sock.settimeout(TURNED_AWAY_WITHIN)
            assert client.read_to_end() == b""
            client.close()
            self.show_signs_of_life()

    def expect_inside_served(self):
        for number, client in enumerate(self.inside):
            client.send(b"\r\nNumber: %d\r\n\r\n" % number)
        for number, client in enumerate(self.inside):
            body = client.read_reply()[1]
            assert body.startswith(b"GET / HTTP/1.1\r\n") and b"\r\nNumber: %d\r\n" % number in body

    def take_one_out(self):
        """Finishes the request of one of the clients inside and returns this client, which may send another."""
        client = self.inside.pop()
        assert client.ask(b"\r\n\r\n").startswith(b"GET / HTTP/1.1\r\n")
        return client

    def leave(self):
        for client in self.inside:
            client.close()
        self.inside = []
