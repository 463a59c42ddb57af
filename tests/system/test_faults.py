"""Clients and upstreams that leave in the middle, come back, or never send a byte."""

import threading

import pytest

from answers import BAD_GATEWAY
from mivo_process import programs
from upstreams import NodeUpstream
from wire import reply, request

LARGE = bytes(range(251)) * 40000  # about 10 MB, more than any buffer takes


@pytest.fixture(params=programs().values(), ids=programs())
def program(request):
    return request.param


class Relay:
    """One client and one upstream with mivo between them; the upstream has read the head of a request."""

    def __init__(self, start_mivo, listen, connect):
        self.listener = listen()
        self.mivo = start_mivo({"up": self.listener.port, "echo": -1})
        self.connect = lambda: connect(self.mivo.port)
        self.client, self.upstream = self.start(request("up", "/", "POST", ["Content-Length: 90000000"]))

    def start(self, sent):
        client = self.connect()
        client.send(sent)
        upstream = self.listener.accept()
        upstream.read_head()
        return client, upstream

    def expect_service(self):
        """Checks that a new client is served, and that every earlier connection is closed."""
        client, upstream = self.start(request("up"))
        upstream.send(reply(b"fine"))
        assert client.read_reply()[1] == b"fine"
        client.close()
        assert upstream.read_to_end() == b""
        self.mivo.wait_until_idle()


@pytest.fixture
def relay(start_mivo, listen, connect):
    return Relay(start_mivo, listen, connect)


def test_upstream_closes_mid_body__client_gets_what_was_sent_then_close(relay):
    part = reply(b"x" * 1000)[:-300]
    relay.upstream.send(part)
    relay.upstream.close()
    assert relay.client.read_to_end() == part
    relay.expect_service()


def test_upstream_closes_after_a_large_reply__client_gets_all_of_it_then_close(relay):
    sender = threading.Thread(target=lambda: (relay.upstream.send(LARGE), relay.upstream.close()))
    sender.start()
    assert relay.client.read_to_end() == LARGE
    sender.join()
    relay.expect_service()


def test_upstream_closes_its_sending_side__client_gets_what_was_sent_then_close(relay):
    relay.upstream.send(b"all there is")
    relay.upstream.half_close()
    assert relay.client.read_to_end() == b"all there is"
    assert relay.upstream.read_to_end() == b""
    relay.expect_service()


def test_upstream_resets_mid_body__client_connection_ends(relay):
    relay.upstream.send(b"part")
    assert relay.client.read(4) == b"part"
    relay.upstream.reset()
    relay.client.wait_closed()
    relay.expect_service()


def test_upstream_closes_without_a_byte_after_reading_the_request__client_connection_ends(relay):
    relay.upstream.close()
    assert relay.client.read_to_end() == b""
    relay.expect_service()


def test_upstream_closes_between_two_requests__idle_client_connection_ends(relay):
    client, upstream = relay.start(request("up"))
    upstream.send(reply(b"1"))
    assert client.read_reply()[1] == b"1"
    upstream.close()
    assert client.read_to_end() == b""
    relay.client.close()
    relay.upstream.close()
    relay.expect_service()


def test_client_closes_mid_upload__upstream_gets_what_was_sent_then_close(relay):
    relay.client.send(b"x" * 400000)
    relay.client.close()
    assert relay.upstream.read_to_end() == b"x" * 400000
    relay.expect_service()


def test_client_closes_mid_upload_to_a_slow_upstream__upstream_gets_what_was_sent_then_close(relay):
    relay.client.send(LARGE)  # the upstream reads nothing until all of it is sent
    relay.client.close()
    assert relay.upstream.read_to_end() == LARGE
    relay.expect_service()


def test_client_resets_mid_upload__upstream_connection_ends(relay):
    relay.client.send(b"x" * 1000)
    assert relay.upstream.read(1000) == b"x" * 1000
    relay.client.reset()
    relay.upstream.wait_closed()
    relay.expect_service()


def test_client_closes_mid_download__upstream_connection_ends(relay):
    def send_until_it_fails():
        try:
            while True:
                relay.upstream.send(LARGE)
        except ConnectionError:
            pass
    sender = threading.Thread(target=send_until_it_fails)
    sender.start()
    assert relay.client.read(100000) == LARGE[:100000]
    relay.client.close()
    sender.join()
    relay.upstream.close()
    relay.expect_service()


def test_client_closes_its_sending_side__mivo_ends_it_without_a_reply(relay):
    relay.client.half_close()
    assert relay.upstream.read_to_end() == b""
    assert relay.client.read_to_end() == b""
    relay.expect_service()


def test_client_leaves_before_its_reply__other_clients_do_not_notice(relay):
    others = [relay.start(request("up")) for _ in range(10)]
    gone = [relay.start(request("up")) for _ in range(10)]
    for client, _ in gone:
        client.close()
    for _, upstream in gone:
        assert upstream.read_to_end() == b""
    for number, (client, upstream) in enumerate(others):
        upstream.send(reply(b"%d" % number))
        assert client.read_reply()[1] == b"%d" % number
    for client, _ in [*others, (relay.client, relay.upstream)]:
        client.close()
    relay.expect_service()


def test_all_upstreams_leave_at_once__every_client_gets_its_part_and_close(relay):
    pairs = [relay.start(request("up")) for _ in range(30)]
    for number, (_, upstream) in enumerate(pairs):
        upstream.send(b"%d" % number)
    for _, upstream in pairs:
        upstream.close()
    for number, (client, _) in enumerate(pairs):
        assert client.read_to_end() == b"%d" % number
    relay.client.close()
    relay.expect_service()


def test_reply_in_pieces__each_is_delivered_before_the_upstream_sends_the_next(relay):
    for number in range(50):
        relay.upstream.send(b"piece %02d" % number)
        assert relay.client.read(8) == b"piece %02d" % number
    relay.client.close()
    relay.expect_service()


def test_upload_in_pieces__each_is_delivered_before_the_client_sends_the_next(relay):
    for number in range(50):
        relay.client.send(b"piece %02d" % number)
        assert relay.upstream.read(8) == b"piece %02d" % number
    relay.client.close()
    relay.expect_service()


def test_reply_before_the_end_of_the_upload__is_delivered_at_once(relay):
    relay.client.send(b"x" * 1000)
    relay.upstream.send(reply(b"too large"))
    assert relay.client.read_reply()[1] == b"too large"
    relay.client.send(b"y" * 1000)
    assert relay.upstream.read(2000) == b"x" * 1000 + b"y" * 1000
    relay.client.close()
    relay.expect_service()


def test_client_that_does_not_read__gets_it_all_later_while_others_are_served(relay):
    relay.upstream.send(LARGE * 3)
    for _ in range(20):
        client, upstream = relay.start(request("up"))
        upstream.send(reply(b"quick"))
        assert client.read_reply()[1] == b"quick"
        client.close()
    assert relay.client.read(3 * len(LARGE)) == LARGE * 3
    relay.client.close()
    relay.expect_service()


def test_upstream_is_down_for_a_while__502_then_served_again(start_mivo, connect, listen):
    up = listen()
    mivo = start_mivo({"up": up.port})
    for _ in range(3):
        client = connect(mivo.port)
        client.send(request("up"))
        at_upstream = up.accept()
        at_upstream.read_head()
        at_upstream.send(reply(b"here"))
        assert client.read_reply()[1] == b"here"
        up.close()
        assert client.read_to_end() == b""
        client = connect(mivo.port)
        client.send(request("up"))
        assert client.read_to_end() == BAD_GATEWAY
        up = listen(up.port)


def test_real_upstream_is_restarted__kept_clients_are_closed_and_new_ones_served(
        start_mivo, connect, own_node, site):
    mivo = start_mivo({"node": own_node.port})
    client = connect(mivo.port)
    assert client.ask(request("node", "/small")) == b"hello, world\n"
    own_node.close()
    assert client.read_to_end() == b""
    restarted = NodeUpstream(site, own_node.port)
    try:
        assert connect(mivo.port).ask(request("node", "/small")) == b"hello, world\n"
    finally:
        restarted.close()


def test_connection_refused_again_and_again__leaves_nothing_open(start_mivo, connect, refusing_port):
    mivo = start_mivo({"down": refusing_port})
    for _ in range(200):
        client = connect(mivo.port)
        client.send(request("down"))
        assert client.read_to_end() == BAD_GATEWAY
    mivo.wait_until_idle()


def test_clients_that_connect_and_leave_without_a_byte__leave_nothing_open(start_mivo, connect):
    mivo = start_mivo()
    for number in range(200):
        client = connect(mivo.port)
        if number % 2:
            client.reset()
        else:
            client.close()
    mivo.wait_until_idle()
