"""If no upstream listens, the system may choose the upstream's port as the source port of mivo's connection. mivo's
socket is then connected to itself. The client must not get its own request as the response."""

import itertools
import socket

import pytest

from answers import BAD_GATEWAY
from wire import DEADLINE, Listener, Wire, reply, request

pytest_plugins = ["links"]

PORT = 40001  # of the upstream
REQUESTS = 20


@pytest.fixture
def connect_from_elsewhere():
    """connect(port): a client with a source port that is not one of those left for mivo."""
    numbers = itertools.count(50000)
    made = []

    def connect(port):
        source = ("127.0.0.9", next(numbers))
        made.append(Wire(socket.create_connection(("127.0.0.1", port), DEADLINE, source)))
        return made[-1]

    yield connect
    for wire in made:
        wire.close()


def test_only_the_port_of_the_upstream_is_left__each_request_is_a_502_and_the_port_stays_free(
        network, start_mivo, connect_from_elsewhere):
    mivo = start_mivo({"up": PORT})
    network.set_outgoing_ports(PORT, PORT)
    for number in range(REQUESTS):
        client = connect_from_elsewhere(mivo.port)
        client.send(request("up", f"/{number}", headers=["Long: " + "x" * 200]))
        assert client.read(len(BAD_GATEWAY)) == BAD_GATEWAY
        assert client.read_to_end() == b""
    network.set_outgoing_ports(PORT - 1, PORT)
    upstream = Listener(PORT)
    client = connect_from_elsewhere(mivo.port)
    client.send(request("up"))
    at_upstream = upstream.accept()
    assert at_upstream.read_head().startswith(b"GET / HTTP/1.1\r\n")
    at_upstream.send(reply(b"served"))
    assert client.read_reply()[1] == b"served"
    client.close()
    upstream.close()
