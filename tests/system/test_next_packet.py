"""A TLS client's next packet may come between any two calls that the program makes for this client. A preloaded library
makes this happen every time. On a real line it happens now and then, at rates that depend on the machine; see
test_links.py."""

import pathlib
import time

import pytest

from mivo_process import PROGRAM
from preload import build_preload
from tls_service import Handshake
from wire import request

pytest_plugins = ["tls_service"]

PACE = 0.0005  # seconds between two packets, so that one packet waits when the program looks


@pytest.fixture(scope="session")
def next_packet_library(tmp_path_factory):
    return build_preload(tmp_path_factory, "next_packet")


@pytest.fixture
def program(folder, next_packet_library):
    script = pathlib.Path(folder, "mivo_with_next_packet")
    script.write_text(f'#!/bin/sh\nLD_PRELOAD="$LD_PRELOAD:{next_packet_library}" exec {PROGRAM} "$@"\n')
    script.chmod(0o755)
    return str(script)


@pytest.mark.parametrize("size", [1, 30, 1448, 5000])
def test_next_piece_of_a_record_always_comes__every_byte_of_the_upload_arrives(serve_tls, node, site, size):
    service = serve_tls({"node": node.port})
    length = min(500 * size, 300000)
    client = Handshake(service)
    client.finish()
    client.wire.send(client.encrypt(request("node", "/digest", "PUT", [f"Content-Length: {length}"])))
    sent = client.encrypt(site.block[:length])
    for at in range(0, len(sent), size):
        client.wire.send(sent[at:at + size])
        time.sleep(PACE)
    expected = f"{length} {site.digest_of_repeated_block(length)}".encode()
    seen = b""
    while expected not in seen:  # a client whose connection is cut gets no more bytes and fails here
        seen += client.read(1)
    assert service.mivo.lines(r"\d+ has timed out\.") == []
