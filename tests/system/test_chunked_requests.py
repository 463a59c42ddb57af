"""Requests whose body comes in chunks reach their upstream, and mivo takes no byte of the body for a new request."""

import pytest

from answers import BAD_GATEWAY, NOT_FOUND, echo_page
from mivo_process import programs
from wire import reply, request

CHUNKED = "Transfer-Encoding: chunked"
CHUNKS = b"5\r\nhello\r\n3;a=b\r\n...\r\n0\r\nSum: 7\r\n\r\n"
PIECES = [b"5", b"\r\nhe", b"llo\r", b"\n3;a", b"=b\r\n...\r\n0", b"\r\nSum: 7\r\n", b"\r", b"\n"]
MIB = 1 << 20


def head(host, *lines):
    return request(host, "/", "POST", lines or [CHUNKED])


class Relay:
    """A mivo in front of two scripted upstreams. A second client, the bystander, tells how far mivo has read."""

    def __init__(self, start_mivo, listen, connect, refusing_port):
        self.upstream, self.other = listen(), listen()
        self.mivo = start_mivo({"up": self.upstream.port, "other": self.other.port, "echo": -1,
                                "refusing": refusing_port})
        self.connect = lambda: connect(self.mivo.port)
        self.client, self.bystander = self.connect(), self.connect()

    def deliver(self, data):
        """Sends data and returns when mivo has read it. mivo reads it in one piece that contains nothing else."""
        self.client.send(data)
        self.client.wait_delivered()
        for _ in range(2):
            self.bystander.ask(request("echo"))

    def requests(self):
        """The number of requests of this client that mivo has seen."""
        return len([line for line in self.mivo.requests() if f":{self.client.port} " in line])

    def expect_own_answer(self):
        """Sends another request and checks that mivo itself answers it: mivo has found where it begins."""
        ask = request("echo", "/next")
        self.client.send(ask)
        page = echo_page(ask)
        assert self.client.read(len(page)) == page

    def expect_no_end(self, sent_head, body):
        """Checks, with a new client, that everything after the head of its request goes to the upstream."""
        self.client = self.connect()
        self.deliver(sent_head)
        at_upstream = self.upstream.accept()
        at_upstream.read_head()
        for piece in [body, request("echo"), b"0\r\n\r\n", request("other")]:
            self.deliver(piece)
            assert at_upstream.read(len(piece)) == piece
        assert self.requests() == 1, (sent_head, body)


@pytest.fixture(params=programs().values(), ids=programs())
def program(request):
    return request.param


@pytest.fixture
def relay(start_mivo, listen, connect, refusing_port):
    return Relay(start_mivo, listen, connect, refusing_port)


def test_chunks_in_slow_pieces__reach_the_upstream_and_the_next_request_gets_its_own_answer(relay):
    at_upstream = None
    for name in (b"first", b"second"):
        relay.deliver(head("up"))
        at_upstream = at_upstream or relay.upstream.accept()
        assert at_upstream.read_head().startswith(b"POST / ")
        for piece in PIECES:
            relay.client.send(piece)
            assert at_upstream.read(len(piece)) == piece
        at_upstream.send(reply(name))
        assert relay.client.read_reply()[1] == name
        relay.expect_own_answer()


def test_chunks_in_one_piece_with_their_head__reach_the_upstream(relay):
    relay.client.send(head("up") + CHUNKS)
    at_upstream = relay.upstream.accept()
    at_upstream.read_head()
    assert at_upstream.read(len(CHUNKS)) == CHUNKS
    at_upstream.send(reply(b"thanks"))
    assert relay.client.read_reply()[1] == b"thanks"
    relay.expect_own_answer()


def test_request_after_a_chunked_one__may_go_elsewhere(relay):
    relay.client.send(head("up"))
    relay.deliver(CHUNKS)
    first = relay.upstream.accept()
    first.read_head()
    first.read(len(CHUNKS))
    relay.client.send(head("other"))
    relay.deliver(CHUNKS)
    second = relay.other.accept()
    second.read_head()
    assert second.read(len(CHUNKS)) == CHUNKS
    first.wait_closed()


@pytest.mark.parametrize("host", ["unknown", "echo"])
def test_chunks_of_a_request_that_mivo_answers_itself__are_dropped(relay, host):
    relay.client.send(request("up"))
    at_upstream = relay.upstream.accept()
    at_upstream.read_head()
    answer = NOT_FOUND if host == "unknown" else echo_page(head(host))
    for _ in range(2):
        relay.deliver(head(host))
        assert relay.client.read(len(answer)) == answer
        for piece in PIECES:
            relay.deliver(piece)
        relay.expect_own_answer()
    at_upstream.send(reply(b"still there"))
    assert relay.client.read_reply()[1] == b"still there"
    relay.client.send(request("up", "/next"))
    assert at_upstream.read_head().startswith(b"GET /next ")  # nothing came before it


def test_chunks_for_an_upstream_that_refuses__are_answered_with_the_502(relay):
    relay.client.send(head("refusing") + PIECES[0])
    assert relay.client.read(len(BAD_GATEWAY)) == BAD_GATEWAY
    relay.client.wait_closed()


MALFORMED = [b"5\nhello\n0\n\n", b"+5\r\nhello\r\n0\r\n\r\n", b"5 \r\nhello\r\n0\r\n\r\n",
             b"5;\n\r\nhello\r\n0\r\n\r\n", b"5\r\nhello0\r\n\r\n", b"0\r\n\n", b"10000000000000000\r\n",
             b"0\r\nGET / HTTP/1.1\r\n\r\n"]
DOUBTFUL = [["Transfer-Encoding: chunked, identity"], ["Transfer-Encoding: xchunked"], [CHUNKED, CHUNKED],
            ["Transfer-Encoding : chunked"], [CHUNKED, " , identity"], ["X: y", "\tTransfer-Encoding: chunked"],
            ["X: y\nTransfer-Encoding: chunked"], [CHUNKED, "Connection: x", " , identity"]]


def test_malformed_chunks__have_no_end_and_all_later_bytes_go_the_same_way(relay):
    for body in MALFORMED:
        relay.expect_no_end(head("up"), body)


def test_coding_that_can_be_read_in_two_ways__makes_the_request_the_last_one(relay):
    for lines in DOUBTFUL:
        relay.expect_no_end(head("up", *lines), CHUNKS)


def test_upstream_closes_in_the_middle__client_gets_what_was_sent_then_close(relay):
    relay.deliver(head("up") + b"5\r\nhe")
    at_upstream = relay.upstream.accept()
    at_upstream.read_head()
    at_upstream.read(5)
    at_upstream.send(b"HTTP/1.1 413 Content Too Large\r\n\r\n")
    at_upstream.close()
    assert relay.client.read_to_end() == b"HTTP/1.1 413 Content Too Large\r\n\r\n"


def test_chunk_beyond_100_mib__is_cut_with_a_warning_and_others_are_served(relay):
    relay.client.send(head("up") + b"8000000\r\n")
    at_upstream = relay.upstream.accept()
    at_upstream.read_head()
    for _ in range(104):
        relay.client.send(bytes(MIB))
    relay.mivo.wait_for_line(r"Warning! Request exceeds max length of 104857600\.")
    relay.deliver(request("echo"))
    assert relay.requests() == 1
    relay.client.close()
    assert abs(len(at_upstream.read_to_end()) - 100 * MIB) <= MIB
