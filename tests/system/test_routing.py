"""What each host gets: the echo page, the 404, the 502, or an upstream, which sees the changed head; and the console
line of every request."""

import pytest

from answers import BAD_GATEWAY, NOT_FOUND, echo_page
from wire import header, reply, request


@pytest.fixture
def relay(start_mivo, listen, connect):
    """A client and an upstream with mivo between them: up and UP2 lead to the upstream, echo to mivo's own page."""
    class Relay:
        upstream = listen()
        mivo = start_mivo({"up": upstream.port, "UP2": upstream.port, "echo": -1})
        client = connect(mivo.port)

        def head_seen_upstream(self, head):
            self.client.send(head)
            return self.upstream.accept().read_head()
    return Relay()


ECHOED_HEADS = [
    request("echo"),
    request("echo", "/a?b=c&d", "POST", ["User-Agent: x", "Accept: */*", "X-Forwarded-For: 1.2.3.4"]),
    b"GET / HTTP/1.1\r\nHOST: echo\r\n\r\n",
    b"get /%00 HTTP/9.9\r\nA: \xff\x00\x80\r\nhOsT: echo\r\nConnection: keep-alive\r\nProxy-X: y\r\n\r\n",
    b"\r\nHost: echo\r\n\r\n",
    b"GET / HTTP/1.1\r\nHost: echo\r\nHost: other\r\n\r\n",
    b"GET / HTTP/1.1\r\nX-Long: " + bytes(range(14, 256)) * 4000 + b"\r\nHost: echo\r\n\r\n",
]


@pytest.mark.parametrize("head", ECHOED_HEADS, ids=range(len(ECHOED_HEADS)))
def test_host_mapped_to_echo__gets_its_head_and_address_back(relay, head):
    for _ in range(2):
        relay.client.send(head)
        expected = echo_page(head)
        assert relay.client.read(len(expected)) == expected


def test_echo_to_another_local_address__shows_the_address_of_the_client(relay, connect):
    client = connect(relay.mivo.port, host="127.0.0.5", source="127.0.0.77")
    client.send(request("echo"))
    expected = echo_page(request("echo"), b"127.0.0.77")
    assert client.read(len(expected)) == expected


def test_head_request_that_mivo_answers_itself__gets_the_whole_answer(start_mivo, connect, refusing_port):
    """A client that keeps the connection takes the body for the beginning of its next response."""
    client = connect(start_mivo({"echo": -1, "down": refusing_port}).port)
    page, unknown, refused = (request(host, "/", "HEAD") for host in ("echo", "nobody", "down"))
    client.send(page)
    assert client.read(len(echo_page(page))) == echo_page(page)
    client.send(unknown)
    assert client.read(len(NOT_FOUND)) == NOT_FOUND
    client.send(refused)
    assert client.read_to_end() == BAD_GATEWAY


UNKNOWN_HEADS = [
    request("other"),
    request("ECHO"),
    request("up2"),
    request("echo:80"),
    request("echo "),
    request(" echo"),
    b"GET / HTTP/1.1\r\n\r\n",
    b"GET / HTTP/1.1\r\nHost:echo\r\n\r\n",
    b"GET / HTTP/1.1\r\nHost: other\r\nHost: echo\r\n\r\n",
    b"GET / HTTP/1.1\r\nHosting: x\r\nHost: echo\r\n\r\n",
    b"GET http://echo/ HTTP/1.1\r\n\r\n",
    b"Host: echo\r\n\r\n",
]


def test_hosts_that_are_not_mapped_byte_for_byte__get_the_404_and_the_connection_stays(relay):
    for head in UNKNOWN_HEADS:
        relay.client.send(head)
        assert relay.client.read(len(NOT_FOUND)) == NOT_FOUND
    relay.client.send(request("echo"))
    assert relay.client.read(len(echo_page(request("echo")))) == echo_page(request("echo"))


def test_upstream_that_refuses__client_gets_the_502_and_the_end_of_its_connection(
        start_mivo, connect, refusing_port):
    mivo = start_mivo({"down": refusing_port})
    for sent in (request("down"), request("down", "/x", "POST", body=b"body"), request("down")):
        client = connect(mivo.port)
        client.send(sent)
        assert client.read_to_end() == BAD_GATEWAY
    assert len(mivo.requests()) == 3


def test_upstream_that_refuses_after_another_has_answered__client_gets_the_502(
        start_mivo, connect, listen, refusing_port):
    upstream = listen()
    mivo = start_mivo({"up": upstream.port, "down": refusing_port})
    client = connect(mivo.port)
    client.send(request("up"))
    old = upstream.accept()
    old.read_head()
    old.send(reply(b"yes"))
    assert client.read_reply()[1] == b"yes"
    client.send(request("down"))
    assert client.read_to_end() == BAD_GATEWAY
    assert old.read_to_end() == b""


OWN_LINE = b"X-Forwarded-For: 127.0.0.1\r\n\r\n"

# A head as the client sends it, and the head that the upstream sees.
FORWARDED_HEADS = {
    "nothing_to_change": (b"GET / HTTP/1.1\r\nHost: up\r\n\r\n", b"GET / HTTP/1.1\r\nHost: up\r\n"),
    "target_with_query": (b"PUT /a/b?c=d?e HTTP/1.1\r\nHost: up\r\n\r\n",
                          b"PUT /a/b?c=d?e HTTP/1.1\r\nHost: up\r\n"),
    "order_and_letter_case": (b"GET / HTTP/1.0\r\nb: 1\r\nA: 2\r\nHOST: up\r\na: 3\r\n\r\n",
                              b"GET / HTTP/1.0\r\nb: 1\r\nA: 2\r\nHOST: up\r\na: 3\r\n"),
    "lines_for_this_hop_only": (
        b"GET / HTTP/1.1\r\nConnection: keep-alive\r\nHost: up\r\nProxy-Connection: x\r\n"
        b"Proxy-Authorization: y\r\nProxyX: z\r\nConnections: 1\r\nAccept: */*\r\n\r\n",
        b"GET / HTTP/1.1\r\nHost: up\r\nAccept: */*\r\n"),
    "lower_case_is_kept": (
        b"GET / HTTP/1.1\r\nconnection: close\r\nproxy-connection: x\r\nHost: up\r\nX-Proxy: y\r\n\r\n",
        b"GET / HTTP/1.1\r\nconnection: close\r\nproxy-connection: x\r\nHost: up\r\nX-Proxy: y\r\n"),
    "one_byte_line_hides_the_next": (
        b"GET / HTTP/1.1\r\nHost: up\r\nx\r\nConnection: close\r\nConnection: close\r\n\r\n",
        b"GET / HTTP/1.1\r\nHost: up\r\nx\r\nConnection: close\r\n"),
    "older_forwarding_line_is_kept": (
        b"GET / HTTP/1.1\r\nHost: up\r\nX-Forwarded-For: 1.2.3.4\r\nA: b\r\n\r\n",
        b"GET / HTTP/1.1\r\nHost: up\r\nX-Forwarded-For: 1.2.3.4\r\nA: b\r\n"),
    "two_blanks_in_the_request_line": (b"GET  /x HTTP/1.1\r\nHost: up\r\n\r\n",
                                       b"GET  /x HTTP/1.1\r\nHost: up\r\n"),
    "more_words_in_the_request_line": (b"GET /x y HTTP/1.1\r\nHost: up\r\n\r\n",
                                       b"GET /x y HTTP/1.1\r\nHost: up\r\n"),
    "line_end_before_the_request": (b"\r\nGET /x HTTP/1.1\r\nHost: up\r\nA: b\r\n\r\n", b"\r\nGET /x HTTP/1.1\r\n"),
    "any_bytes": (b"X\x01Y /\xff\x00 Z\r\nHost: up\r\nC: \x00\n\r\xfe\r\n\r\n",
                  b"X\x01Y /\xff\x00 Z\r\nHost: up\r\nC: \x00\n\r\xfe\r\n"),
    "upgrade_to_websocket": (
        b"GET /ws HTTP/1.1\r\nHost: up\r\nConnection: Upgrade\r\nUpgrade: websocket\r\n"
        b"Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n\r\n",
        b"GET /ws HTTP/1.1\r\nHost: up\r\nUpgrade: websocket\r\n"
        b"Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n"),
}


@pytest.mark.parametrize("name", FORWARDED_HEADS)
def test_forwarded_head__has_the_kept_lines_in_order_and_one_line_of_mivo_at_the_end(relay, name):
    sent, seen = FORWARDED_HEADS[name]
    assert relay.head_seen_upstream(sent) == seen + OWN_LINE


def test_forwarded_head_of_another_address__names_that_address(relay, connect):
    relay.client = connect(relay.mivo.port, source="127.0.0.99")
    assert header(relay.head_seen_upstream(request("up")), b"x-forwarded-for") == b"127.0.0.99"


def test_two_hosts_on_one_port__share_the_upstream_connection(relay):
    relay.client.send(request("up", "/1"))
    upstream = relay.upstream.accept()
    for host, target in [("up", "/1"), ("UP2", "/2"), ("up", "/3")]:
        if target != "/1":
            relay.client.send(request(host, target))
        assert upstream.read_head().startswith(f"GET {target} ".encode())
        upstream.send(reply(target.encode()))
        assert relay.client.read_reply()[1] == target.encode()
    assert not relay.upstream.accept_if_waiting()


def test_second_request_to_another_port__leaves_the_first_upstream_for_a_new_one(
        start_mivo, connect, listen):
    first, second = listen(), listen()
    mivo = start_mivo({"first": first.port, "second": second.port})
    client = connect(mivo.port)
    for _ in range(3):
        client.send(request("first"))
        to_first = first.accept()
        to_first.read_head()
        to_first.send(reply(b"first"))
        assert client.read_reply()[1] == b"first"
        client.send(request("second"))
        to_second = second.accept()
        to_second.read_head()
        assert to_first.read_to_end() == b""
        to_second.send(reply(b"second"))
        assert client.read_reply()[1] == b"second"


def test_echo_and_404_between_two_requests__leave_the_upstream_connection_alone(relay):
    relay.client.send(request("up"))
    upstream = relay.upstream.accept()
    upstream.read_head()
    upstream.send(reply(b"1"))
    assert relay.client.read_reply()[1] == b"1"
    for sent, answer in [(request("nobody"), NOT_FOUND), (request("echo"), echo_page(request("echo")))]:
        relay.client.send(sent)
        assert relay.client.read(len(answer)) == answer
    relay.client.send(request("up"))
    upstream.read_head()
    upstream.send(reply(b"2"))
    assert relay.client.read_reply()[1] == b"2"
    assert not relay.upstream.accept_if_waiting()


# A request, and its console line.
CONSOLE_LINES = [
    (request("echo"), "[echo] 127.0.0.1:{port} GET / HTTP/1.1 []"),
    (request("echo", "/a?b=c", "POST", ["User-Agent: curl/8.0"]),
     "[echo] 127.0.0.1:{port} POST /a?b=c HTTP/1.1 [curl/8.0]"),
    (request("nobody:80", "/", "GET", ["USER-AGENT: a b [c]"]),
     "[nobody:80] 127.0.0.1:{port} GET / HTTP/1.1 [a b [c]]"),
    (b"GET / HTTP/1.1\r\nUser-Agent: %s%d%n\r\n\r\n", "[] 127.0.0.1:{port} GET / HTTP/1.1 [%s%d%n]"),
    (request("echo", "/", "GET", ["X-Forwarded-For: 1.2.3.4"]), "[echo] 1.2.3.4:{port} GET / HTTP/1.1 []"),
    (request("echo", "/", "GET", ["x-forwarded-for: a, b"]), "[echo] a, b:{port} GET / HTTP/1.1 []"),
]


def test_every_request__is_one_console_line(relay):
    for sent, _ in CONSOLE_LINES:
        relay.client.ask(sent)
    assert relay.mivo.requests() == [line.format(port=relay.client.port) for _, line in CONSOLE_LINES]


def test_forwarding_line_of_a_client_elsewhere__does_not_change_the_address_on_the_console(relay, connect):
    client = connect(relay.mivo.port, source="127.0.0.2")
    client.ask(request("echo", "/", "GET", ["X-Forwarded-For: 1.2.3.4"]))
    assert relay.mivo.requests() == [f"[echo] 127.0.0.2:{client.port} GET / HTTP/1.1 []"]


def test_requests_to_an_upstream_and_to_one_that_refuses__are_console_lines_too(
        relay, start_mivo, connect, refusing_port):
    mivo = start_mivo({"up": relay.upstream.port, "down": refusing_port})
    client = connect(mivo.port)
    client.send(request("up", "/1"))
    relay.upstream.accept().read_head()
    client.send(request("down", "/2"))
    assert client.read_to_end() == BAD_GATEWAY
    assert mivo.requests() == [f"[up] 127.0.0.1:{client.port} GET /1 HTTP/1.1 []",
                               f"[down] 127.0.0.1:{client.port} GET /2 HTTP/1.1 []"]
