"""mivo ends the connections of idle clients."""

import time

from wire import reply, request, until

TIMEOUT = 10  # seconds; a connection that is idle for more whole seconds than this ends
TOLERANCE = 2.5  # seconds; covers the rounding to whole seconds, and one turn


def new_descriptor(mivo, connect, known):
    """Returns a new client connection and its descriptor in mivo. Adds the descriptor to `known`."""
    client = connect(mivo.port)
    found = until(lambda: mivo.descriptors() - known, "the connection is accepted")
    known |= found
    (descriptor,) = found
    return client, descriptor


def seconds_until_closed(wire, start):
    assert wire.read_to_end() == b""
    return time.monotonic() - start


def test_idle_clients__time_out_10_s_after_their_last_byte_unless_they_have_an_upstream(
        start_mivo, connect, listen):
    upstream = listen()
    mivo = start_mivo({"up": upstream.port, "echo": -1})
    known = mivo.descriptors()
    silent, silent_descriptor = new_descriptor(mivo, connect, known)
    echoed, echoed_descriptor = new_descriptor(mivo, connect, known)
    started, started_descriptor = new_descriptor(mivo, connect, known)
    slow, _ = new_descriptor(mivo, connect, known)
    active_again, active_again_descriptor = new_descriptor(mivo, connect, known)
    relayed, _ = new_descriptor(mivo, connect, known)

    relayed.send(request("up"))
    at_upstream = upstream.accept()
    at_upstream.read_head()
    echoed.ask(request("echo"))
    started.send(b"GET / HT")
    start = time.monotonic()
    sent = request("echo", "/slow")
    while time.monotonic() - start < TIMEOUT / 2:
        slow.send(sent[:1])
        sent = sent[1:]
        time.sleep(0.5)  # a slow sender's pause between two bytes; such a client is never idle
    active_again.ask(request("echo"))
    active_again_start = time.monotonic()
    for client in (silent, echoed, started):
        assert TIMEOUT - 1 <= seconds_until_closed(client, start) <= TIMEOUT + TOLERANCE
    slow.send(sent)
    assert slow.read_reply()[1].startswith(b"GET /slow ")
    at_upstream.send(reply(b"late"))
    assert relayed.read_reply()[1] == b"late"
    assert TIMEOUT - 1 <= seconds_until_closed(active_again, active_again_start) <= TIMEOUT + TOLERANCE
    assert sorted(mivo.lines(r".* timed out.*")) == sorted(
        f"{descriptor} has timed out." for descriptor in
        (silent_descriptor, echoed_descriptor, started_descriptor, active_again_descriptor))
