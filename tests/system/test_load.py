"""More connections than mivo can hold."""

import socket

import pytest

from answers import BAD_GATEWAY
from crowd import SET_SIZE, Crowd, many_descriptors  # noqa: F401
from wire import reply, request, until

CROWD = 1500


@pytest.fixture
def crowd(start_mivo, connect, upstream):
    return Crowd(start_mivo({"echo": -1, "up": upstream.port}), connect)


def test_1500_clients_at_once__those_beyond_the_set_are_closed_quietly_and_all_others_served(crowd):
    crowd.fill_up()
    crowd.turn_away(CROWD - crowd.room)
    crowd.expect_inside_served()
    crowd.leave()
    assert crowd.connect().ask(request("echo", "/after")).startswith(b"GET /after ")
    said = crowd.mivo.lines(r"(?!\[echo\]|\d+ connections|\d+\.\d+\.\d+\.\d+).+")
    assert said == [f"Binding to port {crowd.mivo.port} on all adapters:"]
    assert len(crowd.mivo.requests()) == crowd.room + 1


def test_place_that_becomes_free__is_given_to_the_next_client(crowd):
    crowd.fill_up()
    for _ in range(20):
        crowd.turn_away(1)
        crowd.inside.pop(0).close()
        expected = SET_SIZE - 1
        until(lambda: len(crowd.mivo.descriptors()) == expected, f"{expected} descriptors")
        crowd.fill(1)
    crowd.expect_inside_served()


def test_no_room_for_an_upstream_connection__client_gets_the_502(crowd, upstream):
    crowd.fill_up()
    client = crowd.take_one_out()
    client.send(request("up"))
    assert client.read_to_end() == BAD_GATEWAY
    client.close()
    crowd.expect_inside_served()
    crowd.leave()
    crowd.mivo.wait_until_idle()
    client = crowd.connect()
    client.send(request("up"))
    wire = upstream.accept()
    # mivo has already closed the upstream connection for which it had no room, without sending a byte on it.
    if wire.read_some() == b"":
        wire = upstream.accept()
        wire.read_head()
    wire.send(reply(b"room again"))
    assert client.read_reply()[1] == b"room again"


def test_last_two_places__are_taken_by_a_client_and_its_upstream_connection(crowd, upstream):
    crowd.fill_up(room_left=1)
    client = crowd.take_one_out()
    client.send(request("up"))
    wire = upstream.accept()
    wire.read_head()
    crowd.turn_away(3)
    wire.send(reply(b"just"))
    assert client.read_reply()[1] == b"just"
    crowd.expect_inside_served()


def test_limit_of_256_descriptors__one_client_too_many_restarts_the_server(start_mivo, connect):
    mivo = start_mivo({"echo": -1}, descriptors=(256, 4096))
    crowd = Crowd(mivo, connect)
    while len(crowd.inside) < 256 - len(mivo.idle_descriptors):
        crowd.fill(min(60, 256 - len(mivo.idle_descriptors) - len(crowd.inside)))
    crowd.expect_inside_served()
    try_to_connect(mivo, connect)
    for client in crowd.inside:
        client.wait_closed()
    until(lambda: len(mivo.lines("Binding to port .*")) == 2, "the restart")
    assert mivo.lines(".* failed.*") == ["accept() failed"]
    newcomer = until(lambda: try_to_connect(mivo, connect), "the port is open again")
    assert newcomer.ask(request("echo")).startswith(b"GET / ")
    assert mivo.descriptor_limits()[0] == 256


def try_to_connect(mivo, connect):
    """Returns a connection, or None while the server closes its port and opens it again."""
    try:
        return connect(mivo.port)
    except ConnectionError:
        return None


def test_100_clients_that_talk_in_turns_on_kept_connections__lose_nothing(start_mivo, connect, node):
    mivo = start_mivo({"node": node.port, "echo": -1})
    clients = [connect(mivo.port) for _ in range(100)]
    for turn in range(50):
        for number, client in enumerate(clients):
            client.send(request("echo" if (number + turn) % 3 == 0 else "node", "/small"))
        for number, client in enumerate(clients):
            body = client.read_reply()[1]
            assert body.startswith(b"GET " if (number + turn) % 3 == 0 else b"hello, world\n")
    assert node.connections() == 100


def test_2000_short_connections_one_after_the_other__are_served_each(start_mivo, connect):
    mivo = start_mivo({"echo": -1})
    for number in range(2000):
        with socket.create_connection(("127.0.0.1", mivo.port)) as client:
            client.sendall(request("echo", f"/{number}"))
            assert b"GET /%d " % number in client.recv(4096)
    assert len(mivo.requests()) == 2000
