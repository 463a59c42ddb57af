"""One TLS client sends records that take long to receive. The other clients wait for their turn, and no longer.

The tests count these waits in mivo's processor time, because on a busy machine every process waits for its turn.

MIVO_HOSTILE_SIZE, 1 by default, multiplies what the hostile clients send; with 3, the smallest records are 60 MB.
MIVO_HOSTILE_RATES lists the rates of the lines on which they send, in Mbit/s.
"""

import contextlib
import os
import ssl
import threading
import time

import pytest

from links import pace
from records import CLIENT_HELLO, FINISHED, HANDSHAKE, NEW_SESSION_TICKET, RecordClient, handshake_message
from tls_service import REFUSES_RENEGOTIATION
from wire import request

pytest_plugins = ["tls_service"]

AT_ONCE = 0.5  # seconds of processor time before a small response; usually 0.1
SHARE = 1 / 3  # of the time for a long stream; if mivo serves the stream in one pass, others wait for all of it
SIZE = float(os.environ.get("MIVO_HOSTILE_SIZE", "1"))
RATES = [int(rate) for rate in os.environ.get("MIVO_HOSTILE_RATES", "200").split()]  # Mbit/s
TIMED_OUT = r"\d+ has timed out\."
PAGE = request("echo")
TLS_1_2, TLS_1_3 = ssl.TLSVersion.TLSv1_2, ssl.TLSVersion.TLSv1_3


class Hostile(RecordClient):
    """Sends a stream as the body of an upload, as fast as mivo takes it. The upload begins before the stream is made,
    because making the stream may take longer than a client may be idle."""

    UPLOAD = request("node", "/digest", "PUT", ["Content-Length: 1000000000"])

    def __init__(self, service, folder, version, make):
        super().__init__(service, folder, version)
        self.stream = make(self)
        self.thread = threading.Thread(target=self._send, daemon=True)

    def _send(self):
        try:
            self.wire.send(self.stream)
            self.wire.wait_delivered()
        except OSError:
            pass  # mivo may have ended the connection


def data_of(size, count):
    """Application data in records of one size, made by OpenSSL."""
    def make(client):
        client.wire.send(client.encrypt(client.UPLOAD))
        data = bytes(size)
        for _ in range(int(count * SIZE)):
            client.tls.write(data)
        return client.sent.read()
    return make


def forged(make_some, count):
    """The same few records again and again. They are made one by one, because each record has its own number."""
    def make(client):
        client.send(client.UPLOAD)
        return b"".join(make_some(client.records) for _ in range(int(count * SIZE)))
    return make


def empty_records(records):
    """Records without data, and a byte of data between them: OpenSSL ends a session after more than 32 in a row."""
    return b"".join(records.record(b"") for _ in range(31)) + records.record(b"x")


def padded_byte(records):
    return records.record(b"x", padding=2000)


def key_update_and_byte(records):
    return records.key_update() + records.record(b"x")


def renegotiation_and_byte(records):
    return records.record(handshake_message(CLIENT_HELLO, bytes(40)), HANDSHAKE) + records.record(b"x")


STREAMS = {
    "1_byte": (TLS_1_3, data_of(1, 1000000)),
    "1_byte_in_tls_1_2": (TLS_1_2, data_of(1, 300000)),
    "16_bytes": (TLS_1_3, data_of(16, 800000)),
    "100_bytes": (TLS_1_3, data_of(100, 100000)),
    "1000_bytes": (TLS_1_3, data_of(1000, 20000)),
    "16384_bytes": (TLS_1_3, data_of(16384, 2000)),
    "nothing": (TLS_1_3, forged(empty_records, 3000)),
    "nothing_in_tls_1_2": (TLS_1_2, forged(empty_records, 3000)),
    "a_byte_and_padding": (TLS_1_3, forged(padded_byte, 20000)),
    "a_key_update_and_a_byte": (TLS_1_3, forged(key_update_and_byte, 3000)),
    "a_renegotiation_and_a_byte": (TLS_1_2, forged(renegotiation_and_byte, 20000)),
}


LONG = ["1_byte", "1_byte_in_tls_1_2", "16_bytes"]


@pytest.fixture
def service(serve_tls, node):
    return serve_tls({"echo": -1, "node": node.port})


class Bystander:
    """Sends small requests all the time while another client sends its stream."""

    def __init__(self, service):
        self.client = service.handshake()
        self.clock = service.mivo.processor_seconds

    def longest_wait_beside(self, hostile):
        """Returns the longest wait and the time that everything took, in seconds of processor time."""
        longest, start = 0, self.clock()
        hostile.thread.start()
        while hostile.thread.is_alive():
            longest = max(longest, self.wait())
            time.sleep(0.001)
        taken = self.clock() - start
        print(f"{len(hostile.stream)} bytes in {taken:.2f} s, the longest wait was {longest * 1000:.0f} ms")
        return longest, taken

    def wait(self):
        """Returns the seconds of processor time until one response has come."""
        start = self.clock()
        assert self.client.ask(PAGE).startswith(PAGE)
        return self.clock() - start


def expect_no_long_wait(stream, service, folder, mbit=None):
    version, make = STREAMS[stream]
    hostile = Hostile(service, folder, version, make)
    if mbit:
        pace(hostile.wire.sock, mbit)
    longest, taken = Bystander(service).longest_wait_beside(hostile)
    is_ended = stream == "a_renegotiation_and_a_byte" and service.openssl() < REFUSES_RENEGOTIATION
    assert longest < AT_ONCE and len(service.mivo.lines(TIMED_OUT)) == is_ended
    if stream in LONG:
        assert longest < taken * SHARE, (longest, taken)


@pytest.mark.parametrize("stream", list(STREAMS))
def test_any_records_at_full_speed__others_are_answered_meanwhile(service, folder, stream):
    expect_no_long_wait(stream, service, folder)


@pytest.mark.parametrize("mbit", RATES)
def test_small_records_on_a_line__others_are_answered_meanwhile(service, folder, mbit):
    expect_no_long_wait("1_byte", service, folder, mbit)


def test_key_updates_alone__others_wait_for_them_and_are_answered(service, folder):
    """OpenSSL reads all key updates that are there in a single call, so mivo cannot limit the wait."""
    hostile = Hostile(service, folder, TLS_1_3, forged(lambda records: records.key_update(), 5000))
    Bystander(service).longest_wait_beside(hostile)
    assert service.mivo.lines(TIMED_OUT) == []


@pytest.mark.parametrize("kind", [CLIENT_HELLO, NEW_SESSION_TICKET, FINISHED])
def test_misplaced_handshake_messages__session_ends_and_others_are_answered(service, folder, kind):
    def message(records):
        return records.record(handshake_message(kind, bytes(40)), HANDSHAKE)
    hostile = Hostile(service, folder, TLS_1_3, forged(message, 5000))
    bystander = Bystander(service)
    hostile.wire.sock.settimeout(3)  # seconds; mivo may have stopped reading from it
    with contextlib.suppress(ConnectionError):
        hostile.wire.send(hostile.stream)
    assert bystander.wait() < AT_ONCE
    hostile.wire.wait_closed()
