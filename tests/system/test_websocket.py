"""WebSocket frames byte by byte, to a server that keeps its connections and echoes every message."""

import struct

import pytest

from example_process import BUILD
from websocket_frames import (BINARY, CLOSE, CONTINUATION, MASK, PING, PONG, TEXT, expect_frame, frame, frame_16,
                              frame_64, frame_64_start, masked, server_frame, upgrade)
from wire import request

MAX_FRAME, MAX_MESSAGE = 1048576, 10485760


@pytest.fixture
def program():
    return str(BUILD / "tests/websocket_echo")


@pytest.fixture
def echo(start_mivo):
    return start_mivo()


@pytest.fixture
def join(echo, connect):
    """join(): one more WebSocket."""
    return lambda: upgrade(connect(echo.port))


@pytest.fixture
def wait_a_turn(echo, connect):
    """wait_a_turn(): after this call, the server has seen everything that was delivered before the call."""
    def wait():
        other = connect(echo.port)
        for _ in range(2):
            other.ask(request("echo"))
        other.close()
    return wait


@pytest.mark.parametrize("size", [0, 1, 124, 125])
@pytest.mark.parametrize("opcode", [TEXT, BINARY, CONTINUATION])
def test_message_of_one_frame__comes_back_as_text(join, size, opcode):
    wire = join()
    payload = bytes(range(256))[-size:] if size else b""
    wire.send(frame(payload, opcode))
    expect_frame(wire, payload)


@pytest.mark.parametrize("fragments", [
    [frame(b"Hel", fin=False), frame(b"lo", CONTINUATION)],
    [frame(b"H", fin=False), frame(b"", CONTINUATION, fin=False), frame(b"ello", CONTINUATION)],
    [frame(b"Hel", BINARY, fin=False), frame(b"lo", TEXT)],
    [frame(bytes([byte]), fin=False) for byte in b"Hello"] + [frame(b"", CONTINUATION)],
], ids=["two", "one_empty", "kinds_mixed", "one_byte_each"])
@pytest.mark.parametrize("at_once", [True, False])
def test_fragments__are_one_message(join, wait_a_turn, fragments, at_once):
    wire = join()
    for piece in [b"".join(fragments)] if at_once else fragments:
        wire.send(piece)
        if not at_once:
            wait_a_turn()
    wire.send(frame(b"next"))
    expect_frame(wire, b"Hello")
    expect_frame(wire, b"next")


def test_fragments_of_125_bytes__make_a_long_message(join):
    wire = join()
    message = bytes(range(256)) * 500
    cuts = range(0, len(message), 125)
    wire.send(b"".join(frame(message[cut:cut + 125], CONTINUATION if cut else TEXT, cut == cuts[-1])
                       for cut in cuts))
    expect_frame(wire, message)


def test_ping_between_fragments__is_answered_first(join):
    wire = join()
    wire.send(frame(b"Hel", fin=False) + frame(b"x", PING) + frame(b"lo", CONTINUATION))
    assert wire.read(3) == b"\x8a\x01x"
    expect_frame(wire, b"Hello")


@pytest.mark.parametrize("opcode", [3, 7, PONG, 11, 15])
def test_unknown_opcode__is_ignored_with_a_warning(echo, join, opcode):
    wire = join()
    wire.send(frame(b"what", opcode) + frame(b"next"))
    expect_frame(wire, b"next")
    echo.wait_for_line(f"Warning! Unhandled opcode: {opcode}")


def test_reserved_bits__are_ignored(join):
    wire = join()
    wire.send(frame(b"bits", reserved=7))
    expect_frame(wire, b"bits")


@pytest.mark.parametrize("payload", [b"", struct.pack(">H", 1000) + b"bye"])
def test_close_frame__closes_without_an_answer(join, payload):
    wire = join()
    wire.send(frame(payload, CLOSE) + frame(b"too late"))
    assert wire.read_to_end() == b""


def test_close_after_a_message__sends_the_message_first(join):
    wire = join()
    wire.send(frame(b"last") + frame(b"", CLOSE))
    assert wire.read_to_end() == server_frame(b"last")


def test_frame_without_mask__ends_the_connection_with_a_warning(echo, join):
    wire = join()
    wire.send(frame(b"good") + b"\x81\x05Hello")
    assert wire.read_to_end() == server_frame(b"good")
    echo.wait_for_line("Warning! Incoming frame has no mask[.]")


@pytest.mark.parametrize("build, message", [
    (frame, b"half a frame"), (lambda message: frame_16(message, "<"), b"y" * 300),
    (frame_64, bytes(6) + b"z" * 20)], ids=["short", "2_byte_length", "8_byte_length"])
def test_frame_in_two_parts_at_any_place__is_read_once_when_whole(join, wait_a_turn, build, message):
    wire, whole = join(), build(message)
    for cut in [*range(1, 22 if build is frame_64 else 10), len(whole) - 1]:
        wire.send(whole[:cut])
        wire.wait_delivered()
        wait_a_turn()
        wire.send(whole[cut:] + frame(b"end"))
        expect_frame(wire, message)
        expect_frame(wire, b"end")


def test_frame_that_comes_byte_by_byte_after_another__is_read(join):
    wire = join()
    for byte in frame(b"first") + frame_16(b"second" * 30, "<") + frame(b"third"):
        wire.send(bytes([byte]))
    for message in (b"first", b"second" * 30, b"third"):
        expect_frame(wire, message)


# Longer frames, whose lengths this library reads least significant byte first


@pytest.mark.parametrize("size", [126, 200, 255, 65535])
def test_2_byte_length_least_significant_first__is_read_and_the_answer_is_standard(join, size):
    wire = join()
    wire.send(frame_16(b"n" * size, "<"))
    expect_frame(wire, b"n" * size)


@pytest.mark.parametrize("size, read_as", [(126, 0x7e00), (200, 0xc800)])
def test_standard_2_byte_length__waits_for_the_bytes_of_the_other_order(join, wait_a_turn, size, read_as):
    wire, other = join(), join()
    wire.send(frame_16(b"a" * size, ">"))
    wire.wait_delivered()
    wait_a_turn()
    other.send(frame(b"others go on"))
    expect_frame(other, b"others go on")
    # If the server had sent anything to `wire` before, these bytes would come first.
    rest = masked(b"a" * size + b"b" * (read_as - size))[size:]
    wire.send(rest)
    expect_frame(wire, b"a" * size + b"b" * (read_as - size))


def test_70000_bytes__are_answered_with_an_8_byte_length(join):
    wire = join()
    message = bytes(6) + b"m" * 69994
    wire.send(frame_64(message))
    assert wire.read(10) == b"\x81\x7f" + bytes(5) + b"\x01\x11\x70"
    assert wire.read(70000) == message


@pytest.mark.parametrize("start", [frame_64_start(MAX_FRAME + 1), frame_64_start(1 << 63),
                                   b"\x81\xff" + struct.pack(">Q", 70000) + MASK + masked(b"a" * 50)],
                         ids=["one_byte_over", "2_to_the_63", "standard_70000"])
def test_frame_over_the_limit__ends_the_connection_with_a_warning(echo, join, start):
    wire = join()
    wire.send(start)
    assert wire.read_to_end() == b""
    echo.wait_for_line(f"Warning! Frame exceeds max length of {MAX_FRAME}[.]")


def test_message_of_1_mib_less_a_byte__is_sent(join):
    wire = join()
    message = bytes(6) + b"m" * (MAX_FRAME - 7)
    wire.send(frame_64(message))
    expect_frame(wire, message)


def test_message_over_the_limit__ends_the_connection_with_a_warning(echo, join):
    wire = join()
    for number in range(MAX_MESSAGE // MAX_FRAME):
        wire.send(frame_64(bytes(MAX_FRAME), opcode=CONTINUATION if number else TEXT, fin=False))
    wire.send(frame(b"x", PING))
    expect_frame(wire, b"x", PONG)  # a message of exactly MAX_MESSAGE bytes is allowed
    wire.send(frame(b"y", CONTINUATION))
    assert wire.read_to_end() == b""
    echo.wait_for_line(f"Warning! Message exceeds max length of {MAX_MESSAGE}[.]")
