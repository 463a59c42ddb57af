"""Live HTTPS connections on links of real rates. Whatever the pace of the bytes, no connection is cut, and each byte
is right.

Two settings change the uploads: MIVO_LINK_UPLOADS is the number of uploads by curl at each rate, and
MIVO_LINK_MEGABYTES is the length of each. With 40 and 90, 200 uploads take half an hour.
"""

import os
import ssl
import time

import pytest

from clients import curl
from links import RATES, on_links
from tls_service import Handshake
from wire import request

pytest_plugins = ["links", "tls_service"]

UPLOADS = int(os.environ.get("MIVO_LINK_UPLOADS", "2"))
MEGABYTES = int(os.environ.get("MIVO_LINK_MEGABYTES", "6"))
TIMED_OUT = r"\d+ has timed out\."
PAUSE = 0.002  # seconds between two bursts


@pytest.fixture
def service(serve_tls, own_node):
    return serve_tls({"node": own_node.port, "localhost:{ssl_port}": own_node.port})


@on_links(*RATES)
def test_uploads_by_curl__all_arrive_exactly(link, service, site, folder):
    length = MEGABYTES * 1000000
    path = f"{folder}/upload"
    with open(path, "wb") as upload:
        upload.writelines(site.pieces(length))
    expected = f"{length} {site.digest_of_repeated_block(length)}"
    cut = []
    for number in range(UPLOADS):
        try:
            assert curl("--cacert", service.root.crt, "--upload-file", path, f"{service.url}/digest") == expected
        except AssertionError as error:
            cut.append(f"{number}: {error}")
    assert cut == [] and service.mivo.lines(TIMED_OUT) == [], f"{len(cut)} of {UPLOADS} on {link} Mbit/s"


def drip(wire, data, size, burst):
    """Sends pieces of `size` bytes. `burst`, if there is one, is the number of pieces that are sent at a time."""
    data = memoryview(data)
    for number, at in enumerate(range(0, len(data), size), 1):
        wire.send(data[at:at + size])
        if burst and number % burst == 0:
            time.sleep(PAUSE)


def upload_in_pieces(service, site, length, size, burst=None):
    client = Handshake(service)
    client.finish()
    head = request("node", "/digest", "PUT", [f"Content-Length: {length}"])
    drip(client.wire, client.encrypt(head) + client.encrypt(b"".join(site.pieces(length))), size, burst)
    expected = f"{length} {site.digest_of_repeated_block(length)}".encode()
    seen = b""
    while expected not in seen:  # a client whose connection is cut gets no more bytes and fails here
        seen += client.read(1)


@pytest.mark.parametrize("size", [60, 150])
@on_links(None, 400)
def test_records_in_pieces_of_one_size__all_arrive_exactly(link, service, site, size):
    for _ in range(3):
        upload_in_pieces(service, site, 10000 * size, size)
    assert service.mivo.lines(TIMED_OUT) == []


# Whole segments, and sizes around that of a record: the session cannot use a record before its last piece is there.
@pytest.mark.parametrize("size, burst", [(1, 500), (100, 40), (1448, 12), (16405, 1)])
@on_links(200, 500)
def test_records_in_bursts_of_pieces__all_arrive_exactly(link, service, site, size, burst):
    upload_in_pieces(service, site, min(200 * size * burst, 1500000), size, burst)
    assert service.mivo.lines(TIMED_OUT) == []


@pytest.mark.parametrize("version", [ssl.TLSVersion.TLSv1_2, ssl.TLSVersion.TLSv1_3],
                         ids=lambda version: version.name)
@on_links(100, 500)
def test_download_that_is_read_in_bursts__is_exact(link, service, site, version):
    context = service.context()
    context.minimum_version = context.maximum_version = version
    service.context = lambda: context
    length = 4000000
    client = service.handshake()
    client.send(request("node", f"/repeat/{length}"))
    client.read_head()
    received = b""
    while len(received) < length:
        time.sleep(0.01)
        received += client.read(min(length - len(received), 150000))
    assert received == b"".join(site.pieces(length))
    assert service.mivo.lines(TIMED_OUT) == []
