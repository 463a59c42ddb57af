"""Clients that come and leave make no pause in another client's download.

A pause is a tenth of a second in which mivo waits and nothing is ready, although mivo has bytes that a client could
take. A preloaded library counts these waits. A clock would also count the delays of a busy machine.
"""

import contextlib
import pathlib
import struct

import pytest

from mivo_process import PROGRAM
from preload import build_preload
from wire import reply, request

MIB = 1 << 20
LENGTH = 40 * MIB  # more than the system and the output buffer hold, so the rest waits in mivo's queue


class Pauses:
    def __init__(self, path):
        self.path = pathlib.Path(path)
        self.path.write_bytes(bytes(8))

    def count(self):
        return struct.unpack("=q", self.path.read_bytes())[0]


@pytest.fixture(scope="session")
def held_back_library(tmp_path_factory):
    return build_preload(tmp_path_factory, "held_back")


@pytest.fixture
def pauses(folder):
    return Pauses(f"{folder}/held_back")


@pytest.fixture
def program(folder, pauses, held_back_library):
    script = pathlib.Path(folder, "mivo_with_count")
    script.write_text(f'#!/bin/sh\nLD_PRELOAD="$LD_PRELOAD:{held_back_library}" MIVO_HELD_BACK={pauses.path} '
                      f'exec {PROGRAM} "$@"\n')
    script.chmod(0o755)
    return str(script)


def drain(wire):
    """Reads the bytes that the system holds for the client; returns their number."""
    wire.sock.setblocking(False)
    count = 0
    with contextlib.suppress(BlockingIOError):
        while data := wire.sock.recv(MIB):
            count += len(data)
    wire.sock.settimeout(15)
    return count


def download_when_another_goes(mivo, connect, upstream):
    """The client that leaves came before the reader, and its upstream connection is between the two in the list.
    mivo ends this upstream connection when it asks the connection for output. This happens in the turn in which the
    reader's output has just been sent."""
    goer = connect(mivo.port)
    goer.send(request("up", "/goer"))
    upstream.accept().read_head()
    reader = connect(mivo.port)
    reader.send(request("up", "/reader"))
    at_upstream = upstream.accept()
    at_upstream.read_head()
    sent = reply(bytes(LENGTH))
    at_upstream.send(sent)
    at_upstream.wait_delivered()
    mivo.expect_idle()
    with mivo.stopped():
        missing = len(sent) - drain(reader)
        goer.close()
    assert missing > 2 * MIB
    reader.read(missing)
    reader.close()
    at_upstream.wait_closed()


def test_client_leaves_when_the_output_of_the_next_is_sent__the_rest_follows_at_once(
        start_mivo, connect, listen, pauses):
    upstream = listen()
    mivo = start_mivo({"up": upstream.port})
    download_when_another_goes(mivo, connect, upstream)
    assert pauses.count() == 0
