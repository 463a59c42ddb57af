"""Requests that arrive cut anywhere, slowly, or too large, and bytes that are no request at all."""

import random
import socket

import pytest

from mivo_process import programs
from wire import header, reply, request, until

MAX_REQUEST_LENGTH = 104857600
READ_SIZE = 1048576  # the most bytes that mivo reads at once
WARNING = rf"Warning! Request exceeds max length of {MAX_REQUEST_LENGTH}\."


@pytest.fixture(params=programs().values(), ids=programs())
def program(request):
    return request.param


class Service:
    """A mivo with a scripted upstream. A second client, the bystander, tells how far mivo has read."""

    def __init__(self, start_mivo, listen, connect):
        self.upstream = listen()
        self.mivo = start_mivo({"up": self.upstream.port, "echo": -1})
        self.connect = lambda: connect(self.mivo.port)
        self.bystander = self.connect()

    def deliver(self, client, data):
        """Sends data and returns when mivo has read it. The turn that reads a request of the bystander also reads
        what arrived earlier, up to READ_SIZE."""
        client.send(data)
        client.wait_delivered()
        for _ in range(1 + len(data) // READ_SIZE):
            assert self.bystander.ask(request("echo")).startswith(b"GET / HTTP/1.1\r\n")

    def hang_up(self, client):
        """Closes the client's connection and returns when mivo has closed it as well."""
        client.close()
        until(lambda: len(self.mivo.descriptors()) == len(self.mivo.idle_descriptors) + 1, "the end of the connection")

    def requests_of(self, client):
        return [line for line in self.mivo.requests() if f":{client.port} " in line]


@pytest.fixture
def service(start_mivo, listen, connect):
    return Service(start_mivo, listen, connect)


def test_head_cut_anywhere__is_one_request(service):
    client = service.connect()
    head = request("echo", "/cut?x", headers=["A: b"])
    for cut in range(1, len(head)):
        service.deliver(client, head[:cut])
        assert client.ask(head[cut:]).startswith(head)
    assert len(service.requests_of(client)) == len(head) - 1


def test_request_byte_by_byte__reaches_the_upstream_as_one_while_others_are_served(service):
    client = service.connect()
    for byte in request("up", "/slow", "POST", body=b"12345"):
        service.deliver(client, bytes([byte]))
    upstream = service.upstream.accept()
    assert upstream.read_head() == (b"POST /slow HTTP/1.1\r\nHost: up\r\nContent-Length: 5\r\n"
                                    b"X-Forwarded-For: 127.0.0.1\r\n\r\n")
    assert upstream.read(5) == b"12345"
    upstream.send(reply(b"done"))
    assert client.read_reply()[1] == b"done"


def test_body_cut_anywhere__is_followed_by_the_next_request(service):
    client = service.connect()
    upstream = None
    sent = request("up", "/", "POST", body=b"0123456789")
    for cut in range(len(sent) - 10, len(sent)):
        service.deliver(client, sent[:cut])
        client.send(sent[cut:])
        upstream = upstream or service.upstream.accept()
        upstream.read_head()
        assert upstream.read(10) == b"0123456789"
        upstream.send(reply(b"%d" % cut))
        assert client.read_reply()[1] == b"%d" % cut
    assert not service.upstream.accept_if_waiting()


def test_bytes_in_one_piece_with_a_request__belong_to_it_and_go_upstream_unchanged(service):
    client = service.connect()
    client.send(request("up", "/1") + request("echo", "/2"))
    upstream = service.upstream.accept()
    upstream.read_head()
    assert upstream.read(len(request("echo", "/2"))) == request("echo", "/2")
    upstream.send(reply(b"1"))
    assert client.read_reply()[1] == b"1"
    assert len(service.requests_of(client)) == 1


def test_head_of_8_mib__is_forwarded_whole(service):
    line = b"X: " + random.Random(1).randbytes(8 << 20).replace(b"\r", b"r")
    client = service.connect()
    client.send(b"GET / HTTP/1.1\r\nHost: up\r\n" + line + b"\r\n\r\n")
    head = service.upstream.accept().read_head()
    assert head == b"GET / HTTP/1.1\r\nHost: up\r\n" + line + b"\r\nX-Forwarded-For: 127.0.0.1\r\n\r\n"


def test_head_without_end__is_dropped_beyond_100_mib_with_a_warning_and_others_are_served(service):
    client = service.connect()
    service.deliver(client, b"x" * MAX_REQUEST_LENGTH)
    assert service.mivo.lines(WARNING) == []
    service.deliver(client, b"x")  # before this byte the head does not exceed the limit, so it is not dropped yet
    assert service.mivo.lines(WARNING) == []
    for count in (1, 2, 3):
        service.deliver(client, b"\r\n\r\n")
        assert len(service.mivo.lines(WARNING)) == count
    assert service.requests_of(client) == []


def test_body_beyond_100_mib__is_cut_with_a_warning_and_others_are_served(service):
    client = service.connect()
    client.send(b"POST / HTTP/1.1\r\nHost: up\r\nContent-Length: %d\r\n\r\n" % (2 * MAX_REQUEST_LENGTH))
    upstream = service.upstream.accept()
    upstream.read_head()
    service.deliver(client, b"x" * (MAX_REQUEST_LENGTH + (16 << 20)))
    assert service.mivo.lines(WARNING)
    client.close()
    assert abs(len(upstream.read_to_end()) - MAX_REQUEST_LENGTH) <= READ_SIZE


@pytest.mark.parametrize("version, headers", [
    ("HTTP/1.0", []), ("HTTP/1.0", ["Connection: Keep-Alive"]), ("HTTP/1.0", ["Connection: keep-alive"]),
    ("HTTP/1.1", ["Connection: close"])])
def test_version_and_connection_line__are_left_to_client_and_upstream(service, version, headers):
    client = service.connect()
    client.send(request("up", "/1", headers=headers).replace(b"HTTP/1.1", version.encode()))
    upstream = service.upstream.accept()
    assert upstream.read_head() == (f"GET /1 {version}\r\nHost: up\r\n"
                                    "X-Forwarded-For: 127.0.0.1\r\n\r\n").encode()
    upstream.send(reply(b"1"))
    assert client.read_reply()[1] == b"1"
    service.deliver(client, b"")
    upstream.send(b"more")
    assert client.read(4) == b"more"


def test_http_1_0_request_without_keep_alive__is_the_last_of_its_connection(service):
    client = service.connect()
    assert client.ask(b"GET / HTTP/1.0\r\nHost: echo\r\n\r\n")
    service.deliver(client, request("echo"))
    assert len(service.requests_of(client)) == 1


def test_http_1_0_request_with_keep_alive__may_be_followed_by_another(service):
    client = service.connect()
    for _ in range(3):
        assert client.ask(b"GET / HTTP/1.0\r\nHost: echo\r\nConnection: Keep-Alive\r\n\r\n")
    assert len(service.requests_of(client)) == 3


@pytest.mark.parametrize("length", ["-1", "", "x", "0", "-99999999999999999999"])
def test_length_that_is_no_positive_number__is_no_body(service, length):
    client = service.connect()
    for _ in range(3):
        client.ask(request("echo", headers=[f"Content-Length: {length}"]))
    assert len(service.requests_of(client)) == 3


def random_garbage(seed, length):
    return random.Random(seed).randbytes(length)


# Bytes that other programs send to an HTTP port, and bytes that no sensible program sends.
GARBAGE = {
    "empty_line_first": b"\r\n\r\n" + request("echo"),
    "zeros": bytes(100000),
    "line_feeds": b"\n" * 100000,
    "returns": b"\r" * 100000,
    "blanks": b" " * 100000,
    "client_hello_of_tls": bytes.fromhex("16030100a5010000a10303") + random_garbage(1, 160),
    "preface_of_http_2": b"PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n" + bytes(9),
    "ssh": b"SSH-2.0-OpenSSH_9.2\r\n",
    "blanks_only_head": b"   \r\n\r\n",
    "no_blanks": b"GET\r\n\r\n",
    "length_beyond_any_integer": request("echo", headers=["Content-Length: " + "9" * 400]) + b"x" * 70000,
    "length_beyond_32_bits": request("echo", headers=["Content-Length: 4294967297"]) + b"x" * 70000,
    "endless_host": b"GET / HTTP/1.1\r\nHost: " + b"a" * 1000000 + b"\r\n\r\n",
    "percent_signs": b"%n%s GET %n%n%s HTTP/%n\r\nHost: %s%n%n\r\nUser-Agent: %n%s\r\n\r\n",
    "bare_upgrade": request("echo", headers=["Upgrade: websocket"]) + b"\x81\xff",
    "many_headers": b"GET / HTTP/1.1\r\n" + b"".join(b"H%d: x\r\n" % i for i in range(20000)) + b"\r\n",
    **{f"random_{seed}": random_garbage(seed, 200000) for seed in range(3)},
    **{f"random_after_a_head_{seed}": request("up") + random_garbage(seed, 20000) for seed in range(2)},
}


@pytest.mark.parametrize("name", GARBAGE)
def test_garbage__harms_nobody_else(service, name):
    client = service.connect()
    service.deliver(client, GARBAGE[name])
    service.hang_up(client)


def test_two_line_ends_before_a_request__make_it_no_request(service):
    client = service.connect()
    service.deliver(client, GARBAGE["empty_line_first"])
    service.deliver(client, request("echo"))
    assert service.requests_of(client) == []


def test_half_a_request_then_the_end__is_forgotten(service):
    whole = request("up", "/", "POST", body=b"x" * 100)
    for cut in range(1, len(whole) - 101, 7):
        client = service.connect()
        service.deliver(client, whole[:cut])
        service.hang_up(client)
    assert not service.upstream.accept_if_waiting()


def test_urgent_byte__ends_the_connection_with_a_message(service):
    service.deliver(service.bystander, b"")
    before = service.mivo.descriptors()
    client = service.connect()
    service.deliver(client, b"GET ")
    (descriptor,) = service.mivo.descriptors() - before
    client.sock.send(b"!", socket.MSG_OOB)
    client.wait_closed()
    service.mivo.wait_for_line(f"{descriptor} has errors\\.")


def test_forty_parallel_heads_cut_at_random__are_answered_each(service):
    dice = random.Random(7)
    clients = [(service.connect(), bytearray(request("echo", f"/{i}", headers=[f"X: {'y' * 50}"])))
               for i in range(40)]
    pending = list(clients)
    while pending:
        client, rest = dice.choice(pending)
        count = dice.randrange(1, 40)
        client.send(bytes(rest[:count]))
        del rest[:count]
        pending = [pair for pair in pending if pair[1]]
    for i, (client, _) in enumerate(clients):
        head, body = client.read_reply()
        assert body.startswith(b"GET /%d HTTP/1.1\r\n" % i)
        assert int(header(head, b"content-length")) == len(body)
