"""Clients that come and go make no pause in the download of another one."""

import contextlib
import time

from wire import reply, request

MIB = 1 << 20
LENGTH = 40 * MIB  # more than the system and the output buffer hold, so that the rest waits in mivo's queue
PAUSE = 0.08  # seconds; a turn in which nothing is ready takes 0.1
ATTEMPTS = 4  # a busy machine makes pauses, too, but not each time


def drain(wire):
    """Reads what the system holds for the client; returns how much it was."""
    wire.sock.setblocking(False)
    count = 0
    with contextlib.suppress(BlockingIOError):
        while data := wire.sock.recv(MIB):
            count += len(data)
    wire.sock.settimeout(15)
    return count


def longest_pause(wire, missing):
    longest, last = 0, time.monotonic()
    while missing > 0:
        data = wire.sock.recv(MIB)
        assert data, f"closed {missing} bytes before the end"
        missing -= len(data)
        now = time.monotonic()
        longest, last = max(longest, now - last), now
    return longest


def pause_when_another_goes(mivo, connect, upstream):
    """The one that goes is in front of the reader, in order of arrival, and its upstream connection between them:
    it ends when it is asked for output, in the turn in which the reader's output has just been sent."""
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
    pause = longest_pause(reader, missing)
    reader.close()
    at_upstream.wait_closed()
    return pause


def test_client_goes_when_the_output_of_the_next_is_sent__the_rest_follows_at_once(start_mivo, connect, listen):
    upstream = listen()
    mivo = start_mivo({"up": upstream.port})
    pauses = []
    while len(pauses) < ATTEMPTS and min(pauses, default=PAUSE) >= PAUSE:
        pauses.append(pause_when_another_goes(mivo, connect, upstream))
    print(pauses)
    assert min(pauses) < PAUSE, pauses
