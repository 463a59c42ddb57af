"""While mivo serves HTTPS, its HTTP port answers every request with a redirect; compared byte for byte."""

import socket

import pytest

from wire import request

pytest_plugins = ["tls_service"]

HTTPS_PORT = 443


def moved(location, kept_alive=True):
    length = "Content-Length: 0\r\n" if kept_alive else ""
    return (f"HTTP/1.1 301 Moved Permanently\r\nLocation: {location}\r\n"
            f"Connection: close\r\n{length}\r\n").encode()


def answer(connect, port, sent):
    """Returns everything until mivo closes the connection; the client does not ask for the close."""
    client = connect(port)
    client.send(sent)
    return client.read_to_end()


# A request; the location, without "https://" and with P for the port's suffix; and whether the rules keep the
# connection. The rules look at the Connection header only in HTTP/1.0 requests.
REDIRECTS = {
    "path": (request("h", "/x"), "hP/x", True),
    "root": (request("h"), "hP/", True),
    "port_in_host_is_cut": (request("h:8080", "/x"), "hP/x", True),
    "query_is_dropped": (request("h", "/a?b=1"), "hP/a", True),
    "query_with_a_path_inside_is_dropped": (request("h", "/a/b?c=/d?e"), "hP/a/b", True),
    "query_alone_is_the_path": (request("h", "?b=1"), "hP?b=1", True),
    "ipv6_literal_is_cut_at_its_first_colon": (request("[::1]:80", "/x"), "[P/x", True),
    "mapped_host": (request("echo", "/x"), "echoP/x", True),
    "unknown_host": (request("nowhere.example", "/x"), "nowhere.exampleP/x", True),
    "escapes_stay": (request("h", "/a%20b%3Fc"), "hP/a%20b%3Fc", True),
    "no_host": (b"GET /x HTTP/1.1\r\nAccept: */*\r\n\r\n", "P/x", True),
    "head": (request("h", "/x", "HEAD"), "hP/x", True),
    "post": (request("h", "/x", "POST", body=b"x" * 1000), "hP/x", True),
    "keep_alive_asked_for": (request("h", "/x", headers=["Connection: keep-alive"]), "hP/x", True),
    "close_asked_for": (request("h", "/x", headers=["Connection: close"]), "hP/x", True),
    "older_version": (b"GET /x HTTP/1.0\r\nHost: h\r\n\r\n", "hP/x", False),
    "older_version_keep_alive_asked_for": (
        b"GET /x HTTP/1.0\r\nHost: h\r\nConnection: Keep-Alive\r\n\r\n", "hP/x", True),
}


@pytest.fixture(params=["any", "443"])
def redirecting(request, serve_tls, start_mivo, certificates):
    """A mivo that redirects, and the suffix of its HTTPS port."""
    if request.param == "any":
        service = serve_tls({"echo": -1})
        return service.mivo, f":{service.port}"
    try:
        socket.create_server(("", HTTPS_PORT)).close()
    except OSError as error:
        pytest.skip(f"port {HTTPS_PORT} is not free: {error}")
    certificate = certificates["ecdsa"]
    mivo = start_mivo({"echo": -1}, arguments=["-ssl", str(HTTPS_PORT), str(certificate.key),
                                               str(certificate.crt)])
    return mivo, ""


def test_requests__are_redirected_byte_for_byte_and_then_closed(redirecting, connect):
    mivo, suffix = redirecting
    got = {name: answer(connect, mivo.port, sent) for name, (sent, _, _) in REDIRECTS.items()}
    assert got == {name: moved("https://" + location.replace("P", suffix), kept)
                   for name, (_, location, kept) in REDIRECTS.items()}
    assert mivo.requests() == []


def test_start__prints_the_ports(redirecting):
    mivo, suffix = redirecting
    ssl_port = suffix.lstrip(":") or HTTPS_PORT
    assert mivo.console().startswith(f"Redirecting http ({mivo.port}) to https ({ssl_port})\n")


def test_request_in_single_bytes__is_redirected(redirecting, connect):
    mivo, suffix = redirecting
    client = connect(mivo.port)
    for byte in request("h", "/x"):
        client.send(bytes([byte]))
        client.wait_delivered()
    assert client.read_to_end() == moved(f"https://h{suffix}/x")


def test_handshake_at_the_http_port__gets_no_answer_and_others_are_served(redirecting, connect):
    mivo, suffix = redirecting
    stray = connect(mivo.port)
    stray.send(b"\x16\x03\x01\x00\x05\x01\x00\x00\x01\x03")
    assert answer(connect, mivo.port, request("h", "/x")) == moved(f"https://h{suffix}/x")
