"""Live TLS sessions that have to write before they can read on, because their client sends and does not read. mivo
does not cut these sessions, they take no processor time, and they go on when the client reads.

The tests make the system's buffers small, so that few bytes fill them. That needs a separate network for the test.
"""

import contextlib
import fcntl
import hashlib
import ssl
import struct
import termios
import threading
import time

import pytest

from records import CLIENT_HELLO, HANDSHAKE, RecordClient, handshake_message
from tls_service import REFUSES_RENEGOTIATION
from wire import request, until

pytest_plugins = ["links", "tls_service"]

TIMED_OUT = r"\d+ has timed out\."
UPDATES = 8000  # the answers to these key updates are more than the buffers hold
LENGTH = 3000000  # of a download; this is also more than the buffers hold
MANY_TURNS = 1  # second; a session that mivo takes for dead ends in the first turn, an idle one after 10 s


@pytest.fixture
def service(network, serve_tls, own_node):
    network.set_buffers(4096, 65536)
    return serve_tls({"node": own_node.port})


class Sending:
    """A thread that sends a client's bytes, for as long as mivo takes to read them."""

    def __init__(self, client, data):
        self.client, self.data = client, data
        self.thread = threading.Thread(target=self._send, daemon=True)
        self.thread.start()

    def _send(self):
        with contextlib.suppress(OSError):
            self.client.wire.send(self.data)

    def expect_stuck(self):
        time.sleep(MANY_TURNS)
        assert self.thread.is_alive()

    def wait(self):
        until(lambda: not self.thread.is_alive(), "all is sent")


def test_answers_to_key_updates_fill_the_buffers__session_waits_without_spinning_and_goes_on(service, folder):
    client = RecordClient(service, folder)
    body = bytes(100)
    client.send(request("node", "/digest", "PUT", [f"Content-Length: {len(body)}"]))
    updates = b"".join(client.records.key_update(wants_answer=True) for _ in range(UPDATES))
    sending = Sending(client, updates + client.records.record(body))
    sending.expect_stuck()
    service.mivo.expect_idle()
    assert service.mivo.lines(TIMED_OUT) == []
    seen = b""
    while f"{len(body)} {hashlib.sha256(body).hexdigest()}".encode() not in seen:
        seen += client.read(1)
    sending.wait()
    assert service.mivo.lines(TIMED_OUT) == []


def start_download(service, folder, version):
    """Returns a client whose response has begun: the buffers are full, more bytes are to come, and mivo is idle."""
    client = RecordClient(service, folder, version)
    client.send(request("node", f"/repeat/{LENGTH}"))
    until(lambda: unread(client.wire) > 20000, "the response has begun")
    service.mivo.expect_idle()
    return client


def unread(wire):
    """The number of bytes that the system holds for the client."""
    return struct.unpack("i", fcntl.ioctl(wire.sock, termios.FIONREAD, bytes(4)))[0]


def test_key_update_during_a_download_that_is_not_read__goes_on_exactly(service, folder, site):
    client = start_download(service, folder, ssl.TLSVersion.TLSv1_3)
    client.wire.send(client.records.key_update(wants_answer=True))
    time.sleep(MANY_TURNS)
    service.mivo.expect_idle()
    head = b""
    while not head.endswith(b"\r\n\r\n"):
        head += client.read(1)
    assert client.read(LENGTH) == b"".join(site.pieces(LENGTH))
    assert service.mivo.lines(TIMED_OUT) == []


def test_renegotiation_during_an_unread_download__download_goes_on_if_openssl_refuses_it(service, folder):
    """OpenSSL's refusals make Python's client end the session, so this test only counts the bytes.

    The download may end early in one case. OpenSSL keeps one half-written record. If the system takes the last piece of
    the download's record but not all of the refusal that follows, the next SSL_write() fails with BAD_WRITE_RETRY, and
    the session is dead."""
    client = start_download(service, folder, ssl.TLSVersion.TLSv1_2)
    with contextlib.suppress(ConnectionError):
        for _ in range(200):
            client.send(handshake_message(CLIENT_HELLO, bytes(40)), kind=HANDSHAKE)
    if service.openssl() < REFUSES_RENEGOTIATION:
        service.mivo.wait_for_line(TIMED_OUT)
        client.wire.wait_closed()
        return
    time.sleep(MANY_TURNS)
    service.mivo.expect_idle()
    received = 0
    while received < LENGTH and (data := client.wire.read_some()):
        received += len(data)
    if received >= LENGTH:
        assert service.mivo.lines(TIMED_OUT) == []
    else:
        service.mivo.wait_for_line(TIMED_OUT)
