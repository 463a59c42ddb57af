"""The effect of LimitDATA= of the service: the system refuses memory, and mivo ends one connection because of that."""

import resource

from wire import request, until

MIB = 1 << 20
LIMIT = 100 * MIB
MORE_THAN_THE_LIMIT = 200 * MIB
PIECE = bytes(MIB)


def head_of(client):
    client.send(request("echo"))
    return client.read_reply()[0]


def test_limit_on_memory__ends_the_connection_that_asks_for_too_much_and_no_other(
        start_mivo, connect, listen):
    upstream = listen()
    mivo = start_mivo({"up": upstream.port, "echo": -1})
    resource.prlimit(mivo.pid, resource.RLIMIT_DATA, (LIMIT, LIMIT))
    bystander, slow_reader = connect(mivo.port), connect(mivo.port)
    slow_reader.send(request("up"))
    source = upstream.accept()
    source.read_head()

    sent = 0
    try:
        source.send(f"HTTP/1.1 200 OK\r\nContent-Length: {MORE_THAN_THE_LIMIT}\r\n\r\n".encode())
        while sent < MORE_THAN_THE_LIMIT:
            source.send(PIECE)
            sent += len(PIECE)
            assert b"200 OK" in head_of(bystander)
    except ConnectionError:
        pass
    assert sent < MORE_THAN_THE_LIMIT
    until(lambda: mivo.lines(r"\d+ has failed: std::bad_alloc"), "the line about the connection")
    assert len(mivo.lines(r"\d+ has failed: .*")) == 1
    assert b"200 OK" in head_of(bystander)
    # The client gets what had come before, and then the end.
    received = len(slow_reader.read_to_end())
    assert LIMIT // 2 < received < MORE_THAN_THE_LIMIT
