"""Long transfers: every byte arrives, and a long download takes little memory."""

import hashlib
import threading

import pytest

from clients import curl
from wire import reply, request

MIB = 1 << 20
GIB = 1 << 30
PIECE = 4 * MIB
RESIDENT_LIMIT_KIB = 64 * 1024


def digest_of(wire, length):
    digest = hashlib.sha256()
    while length > 0:
        data = wire.read_some()
        assert data, f"closed {length} bytes before the end"
        digest.update(data)
        length -= len(data)
    return digest.hexdigest()


def start_download(mivo, wire, length):
    """Asks for `length` bytes; returns the processor time that mivo takes until the first byte has come."""
    start = mivo.processor_seconds()
    wire.send(request("node", f"/repeat/{length}"))
    wire.read_head()
    first = wire.read(1)
    seconds = mivo.processor_seconds() - start
    wire.unread = first + wire.unread
    return seconds


@pytest.fixture
def relay(start_mivo, node):
    mivo = start_mivo({"node": node.port, "127.0.0.1:{port}": node.port})
    mivo.url = f"http://127.0.0.1:{mivo.port}"
    return mivo


def test_download_of_1_gib__is_exact_and_begins_at_once(relay, connect, site):
    client = connect(relay.port)
    assert start_download(relay, client, GIB) < 0.1
    assert digest_of(client, GIB) == site.digest_of_repeated_block(GIB)


def test_download_of_1_gib_by_a_client_that_keeps_up__takes_little_memory(start_mivo, listen, connect):
    upstream = listen()
    mivo = start_mivo({"up": upstream.port})
    client = connect(mivo.port)
    client.send(request("up"))
    at_upstream = upstream.accept()
    at_upstream.read_head()
    room = threading.Semaphore(4)  # the most pieces that are sent and not yet read, however busy the machine is

    def send_pieces():
        piece = bytes(PIECE)
        for _ in range(GIB // PIECE):
            room.acquire()
            at_upstream.send(piece)
    sender = threading.Thread(target=send_pieces, daemon=True)
    sender.start()
    buffer = memoryview(bytearray(PIECE))
    for _ in range(GIB // PIECE):
        missing = PIECE
        while missing > 0:
            missing -= client.sock.recv_into(buffer[:missing])
        room.release()
    sender.join()
    assert mivo.resident_peak_kib() < RESIDENT_LIMIT_KIB


def test_upload_of_64_mib_by_curl__is_exact(relay, site, folder):
    path = f"{folder}/upload"
    with open(path, "wb") as upload:
        upload.writelines(site.pieces(64 * MIB))
    for _ in range(2):
        expected = f"{64 * MIB} {site.digest_of_repeated_block(64 * MIB)}"
        assert curl("--upload-file", path, f"{relay.url}/digest") == expected


def test_upload_of_16_mib_that_is_echoed__comes_back_while_it_goes(relay, connect, site):
    length = 16 * MIB
    client = connect(relay.port)

    def upload():
        client.send(request("node", "/echo", "POST", [f"Content-Length: {length}"]))
        for piece in site.pieces(length):
            client.send(piece)
    sender = threading.Thread(target=upload)
    sender.start()
    client.read_head()
    assert digest_of(client, length) == site.digest_of_repeated_block(length)
    sender.join()


@pytest.mark.parametrize("size", [1, 1000, MIB - 1, MIB, MIB + 1, 5 * MIB + 3])
def test_upload_that_curl_gets_echoed__is_exact(relay, site, folder, size):
    sent, received = f"{folder}/sent", f"{folder}/received"
    with open(sent, "wb") as upload:
        upload.writelines(site.pieces(size))
    curl("--output", received, "--data-binary", f"@{sent}", f"{relay.url}/echo")
    with open(sent, "rb") as expected, open(received, "rb") as echoed:
        assert echoed.read() == expected.read()


def test_hundred_clients_with_interleaved_bodies__get_their_own_bytes_back(relay, connect, site):
    size, piece = 120000, 4000
    bodies = [site.block[i * 7:i * 7 + size] for i in range(100)]
    clients = [connect(relay.port) for _ in bodies]
    for client in clients:
        client.send(request("node", "/echo", "POST", [f"Content-Length: {size}"]))
    for at in range(0, size, piece):
        for client, body in zip(clients, bodies):
            client.send(body[at:at + piece])
    for client, body in zip(clients, bodies):
        assert client.read_reply()[1] == body


def test_hundred_downloads_at_once__are_exact(relay, connect, site):
    length = 2 * MIB + 17
    clients = [connect(relay.port) for _ in range(100)]
    for client in clients:
        client.send(request("node", f"/repeat/{length}"))
    for client in clients:
        client.read_head()
        assert digest_of(client, length) == site.digest_of_repeated_block(length)


def test_download_that_is_read_in_bursts__is_exact(relay, connect, site):
    client = connect(relay.port)
    client.send(request("node", f"/repeat/{32 * MIB}"))
    client.read_head()
    bystander = connect(relay.port)
    digest, missing = hashlib.sha256(), 32 * MIB
    while missing:
        for _ in range(10):
            assert bystander.ask(request("node", "/small")) == b"hello, world\n"
        data = client.read(min(missing, 3 * MIB))
        digest.update(data)
        missing -= len(data)
    assert digest.hexdigest() == site.digest_of_repeated_block(32 * MIB)


def test_pieces_that_grow__arrive_each_before_the_next_is_sent(start_mivo, listen, connect, site):
    upstream = listen()
    mivo = start_mivo({"up": upstream.port})
    client = connect(mivo.port)
    client.send(request("up"))
    at_upstream = upstream.accept()
    at_upstream.read_head()
    for exponent in range(20):
        expected = reply(site.block[:2 ** exponent])
        at_upstream.send(expected)
        assert client.read(len(expected)) == expected
