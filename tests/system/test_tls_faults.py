"""Clients that break TLS. None of them costs processor time, stays for long, or disturbs another client."""

import ssl
import time

import pytest

from mivo_process import expect_idle
from tls_service import Handshake
from wire import reply, request, until

pytest_plugins = ["tls_service"]

AT_ONCE = 3  # seconds; far below the time after which idle clients end
TIMEOUT = 10  # seconds
PACE = 0.001  # seconds between two bytes
PAGE = request("echo")
FORGED_RECORD = b"\x17\x03\x03\x00\x20" + bytes(32)
TIMED_OUT = r"\d+ has timed out\."


class Scene:
    """A service with a bystander: a client that connects before every fault and is served after it."""

    def __init__(self, service):
        self.service = service
        self.mivo = service.mivo
        self.bystander = service.handshake()
        self.expect_service()
        # Counts the bystander alone: the descriptor of the client that has just left may still be open.
        self.calm_descriptors = until(self._descriptors_of_one_client, "one client is left")

    def _descriptors_of_one_client(self):
        found = self.mivo.descriptors()
        return len(found) == len(self.mivo.idle_descriptors) + 1 and found

    def expect_service(self):
        """Checks that the bystander is served, and a new client, too."""
        fresh = self.service.handshake()
        for client in (self.bystander, fresh):
            client.send(PAGE)
            head, body = client.read_reply()
            assert head.startswith(b"HTTP/1.1 200 OK\r\n") and body.startswith(PAGE)
        fresh.close()

    def expect_only_the_bystander(self):
        until(lambda: self.mivo.descriptors() <= self.calm_descriptors, "the broken session has ended", AT_ONCE)


@pytest.fixture
def scene(serve_tls, node):
    return Scene(serve_tls({"echo": -1, "node": node.port}))


def hello(cut):
    """A client that stops in the ClientHello, after `cut` bytes; a negative `cut` counts from the end."""
    def go(service):
        client = Handshake(service)
        client.wire.send(client.next_flight()[:cut])
        return client.wire
    return go


def answered(service):
    """A client that reads the answer to the ClientHello and sends no more."""
    client = Handshake(service)
    client.wire.send(client.next_flight())
    client.next_flight()
    return client.wire


def half_finished(service):
    """A client that stops in its last message of the handshake."""
    client = Handshake(service)
    client.wire.send(client.next_flight())
    last = client.next_flight()
    client.wire.send(last[:len(last) // 2])
    return client.wire


def finished(service):
    client = Handshake(service)
    client.finish()
    return client


def half_request(service):
    client = finished(service)
    client.wire.send(client.encrypt(PAGE[:len(PAGE) // 2]))
    return client.wire


def half_record(service):
    client = finished(service)
    record = client.encrypt(PAGE)
    client.wire.send(record[:len(record) // 2])
    return client.wire


def served(service):
    client = finished(service)
    client.wire.send(client.encrypt(PAGE))
    assert client.read(15) == b"HTTP/1.1 200 OK"
    return client.wire


STAGES = {
    "connected": hello(0),
    "hello_cut_in_its_type": hello(1),
    "hello_cut_after_its_record_head": hello(5),
    "hello_cut_after_its_message_type": hello(6),
    "hello_cut_in_its_random": hello(30),
    "hello_cut_in_its_extensions": hello(150),
    "hello_without_its_last_byte": hello(-1),
    "hello_sent": hello(None),
    "answer_read": answered,
    "last_message_cut": half_finished,
    "handshake_done": lambda service: finished(service).wire,
    "record_cut": half_record,
    "request_cut": half_request,
    "served": served,
}
ENDINGS = {
    "closes": lambda wire: wire.close(),
    "resets": lambda wire: wire.reset(),
    "closes_its_half": lambda wire: wire.half_close(),
}


@pytest.mark.parametrize("ending", list(ENDINGS))
@pytest.mark.parametrize("stage", list(STAGES))
def test_client_ends_at_any_stage__session_ends_at_once(scene, stage, ending):
    wire = STAGES[stage](scene.service)
    wire.wait_delivered()
    until(lambda: scene.mivo.descriptors() - scene.calm_descriptors, "the client is accepted")
    ENDINGS[ending](wire)
    scene.expect_only_the_bystander()
    scene.expect_service()


def plain_bytes(data):
    def go(service):
        wire = service.connect()
        wire.send(data)
        return wire
    return go


def after_handshake(data):
    def go(service):
        client = finished(service)
        client.wire.send(data)
        return client.wire
    return go


def flipped_bit(service):
    client = finished(service)
    record = bytearray(client.encrypt(PAGE))
    record[-1] ^= 1
    client.wire.send(record)
    return client.wire


def forged_record_after_a_request(service):
    client = finished(service)
    client.wire.send(client.encrypt(PAGE) + FORGED_RECORD)
    return client.wire


# The client stays open after each of these: mivo closes the connection.
INTRUSIONS = {
    "plain_http_post": plain_bytes(request("echo", "/", "POST", body=b"x" * 100000)),
    "garbage": plain_bytes(bytes(range(255, 0, -1)) * 10),
    "zeros": plain_bytes(bytes(1000)),
    "older_protocol_alone": plain_bytes(b"\x16\x03\x00\x00\x2d\x01\x00\x00\x29\x03\x00" + bytes(34)
                                        + b"\x00\x02\x00\x2f\x01\x00"),
    "plain_http_after_the_handshake": after_handshake(PAGE),
    "record_too_long_after_the_handshake": after_handshake(b"\x17\x03\x03\xff\xff" + bytes(65535)),
}
# The second kind of intrusion: when OpenSSL finds the fault, it has read all bytes, and the socket is empty.
INTRUSIONS_READ_WHOLE = {
    "record_with_garbage": plain_bytes(b"\x16\x03\x01\x02\x00" + b"\xff" * 512),
    "alert_first": plain_bytes(b"\x15\x03\x01\x00\x02\x02\x28"),
    "data_first": plain_bytes(FORGED_RECORD),
    "forged_record_after_the_handshake": after_handshake(FORGED_RECORD),
    "flipped_bit_in_a_request": flipped_bit,
    "forged_record_after_a_request": forged_record_after_a_request,
}
# A small request over plain HTTP belongs to the first kind with OpenSSL 3.0, which leaves all but the first bytes in
# the socket. It belongs to the second kind with OpenSSL 3.5, which reads everything before it looks.
PLAIN_HTTP = plain_bytes(PAGE)
READS_ON = (3, 5)


def expect_end_at_once(scene, intrude):
    wire = intrude(scene.service)
    wire.sock.settimeout(AT_ONCE)
    wire.wait_closed()
    scene.expect_only_the_bystander()
    scene.expect_service()
    assert len(scene.mivo.lines(TIMED_OUT)) == 1


class Staying:
    """A separate mivo, with clients that send no more and stay."""

    def __init__(self, scene, ways):
        self.scene, self.start = scene, time.monotonic()
        self.wires = [go(scene.service) for go in ways]

    def seconds_until_ended(self):
        for wire in self.wires:
            wire.wait_closed()
        return time.monotonic() - self.start


def expect_end_by_the_time_out(scene, intrude):
    staying = Staying(scene, [intrude])
    scene.mivo.expect_idle()
    scene.expect_service()
    assert staying.seconds_until_ended() <= TIMEOUT + 2.5


# A response that cannot be encrypted any more shows the fault at once, too.
@pytest.mark.parametrize("intrusion", [*INTRUSIONS, "forged_record_after_a_request"])
def test_client_sends_bytes_that_are_no_tls__session_ends_at_once_as_timed_out(scene, intrusion):
    expect_end_at_once(scene, {**INTRUSIONS, **INTRUSIONS_READ_WHOLE}[intrusion])


def test_clients_break_off_or_send_no_tls_and_stay__no_processor_time_and_ended_by_the_time_out(serve_tls):
    """All clients stay at the same time, because each is ended only after the time that an idle client has."""
    kinds = {**{name: [go] for name, go in INTRUSIONS_READ_WHOLE.items()}, "every stage": STAGES.values()}
    scenes = {name: Scene(serve_tls({"echo": -1})) for name in kinds}
    staying = {name: Staying(scenes[name], ways) for name, ways in kinds.items()}
    expect_idle(*(scene.mivo for scene in scenes.values()))
    for scene in scenes.values():
        scene.expect_service()
    at_stages = scenes["every stage"].mivo
    assert not at_stages.lines(TIMED_OUT)
    seconds = {name: those.seconds_until_ended() for name, those in staying.items()}
    assert max(seconds.values()) <= TIMEOUT + 2.5, seconds
    assert seconds["every stage"] >= TIMEOUT - 1
    assert len(at_stages.lines(TIMED_OUT)) >= len(STAGES)


def test_client_sends_plain_http_and_stays__session_ends_at_once_or_at_the_time_out(scene):
    expect_end = expect_end_by_the_time_out if scene.service.openssl() >= READS_ON else expect_end_at_once
    expect_end(scene, PLAIN_HTTP)


def test_forged_record_before_the_reply_of_the_upstream__no_processor_time_and_both_ended(
        serve_tls, listen):
    upstream = listen()
    scene = Scene(serve_tls({"echo": -1, "up": upstream.port}))
    client = finished(scene.service)
    client.wire.send(client.encrypt(request("up")))
    at_upstream = upstream.accept()
    at_upstream.read_head()
    client.wire.send(FORGED_RECORD)
    at_upstream.send(reply(b"too late"))
    scene.service.mivo.expect_idle()
    scene.expect_service()
    client.wire.wait_closed()
    at_upstream.wait_closed()


def test_client_says_goodbye__session_ends_at_once(scene):
    client = finished(scene.service)
    with pytest.raises(ssl.SSLWantReadError):
        client.tls.unwrap()
    client.wire.send(client.sent.read())
    client.wire.sock.settimeout(AT_ONCE)
    client.wire.wait_closed()
    scene.expect_only_the_bystander()


def test_all_faults_one_after_the_other__no_processor_time_is_taken_afterwards(scene):
    for end in ENDINGS.values():
        for go in STAGES.values():
            end(go(scene.service))
    for go in [*INTRUSIONS.values(), *([PLAIN_HTTP] if scene.service.openssl() < READS_ON else [])]:
        go(scene.service)
    scene.expect_only_the_bystander()
    scene.service.mivo.expect_idle()
    scene.expect_service()


@pytest.mark.parametrize("version", [ssl.TLSVersion.TLSv1_2, ssl.TLSVersion.TLSv1_3])
def test_handshake_and_request_in_single_bytes__are_served(scene, version):
    context = scene.service.context()
    context.minimum_version = context.maximum_version = version
    # Otherwise the first message of OpenSSL 3.5 is a kilobyte longer, and sending it in single bytes may take longer
    # than the time that an idle client has.
    context.set_ecdh_curve("prime256v1")
    scene.service.context = lambda: context
    client = Handshake(scene.service)

    def drip(data):
        for byte in data:
            client.wire.send(bytes([byte]))
            client.wire.wait_delivered()
            time.sleep(PACE)  # lets mivo see most of the bytes one by one
    while flight := client.next_flight():
        drip(flight)
    drip(client.encrypt(PAGE))
    assert client.read(15) == b"HTTP/1.1 200 OK"
    scene.expect_service()


@pytest.mark.parametrize("ending", ["closes", "resets"])
def test_client_ends_in_the_middle_of_a_download__both_connections_end_at_once(scene, ending):
    client = finished(scene.service)
    client.wire.send(client.encrypt(request("node", f"/repeat/{1 << 30}")))
    client.read(100000)
    ENDINGS[ending](client.wire)
    scene.expect_only_the_bystander()
    scene.expect_service()
    scene.service.mivo.expect_idle()


def test_hundred_connections_are_opened_and_dropped_at_once__all_end(scene):
    wires = [scene.service.connect() for _ in range(100)]
    for wire in wires:
        wire.close()
    until(lambda: len(scene.mivo.lines(TIMED_OUT)) == len(wires), "every session has ended", AT_ONCE)
    scene.expect_only_the_bystander()
    scene.expect_service()
