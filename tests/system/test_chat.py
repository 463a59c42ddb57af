"""The chat: the WebSocket handshake and frames byte by byte, a full room, and two tabs of a browser."""

import asyncio
import json
import os
import pathlib
import struct
import zlib

import pytest
import websockets

from devtools import Browser
from example_process import example, run_node
from websocket_frames import (BINARY, CLOSE, CONTINUATION, MASK, PING, PONG, REFUSED, TEXT, expect_frame, frame,
                              frame_16, frame_64, frame_64_start, handshake, masked, server_frame, upgrade)
from wire import request, until

CROWD = 200
MAX_FRAME, MAX_MESSAGE = 1048576, 10485760
ACCEPTED = (b"HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
            b"Sec-WebSocket-Accept: s3pPLMBiTxaQ9kYGzzhZRbK+xOo=\r\nContent-Length: 0\r\n\r\n")


@pytest.fixture
def program():
    return example("chat")


@pytest.fixture
def chat(start_mivo):
    return start_mivo()


@pytest.fixture
def join(chat, connect):
    """join(): one more in the room."""
    return lambda: upgrade(connect(chat.port))


@pytest.fixture
def wait_a_turn(chat, connect):
    """wait_a_turn(): what has been delivered before it, the chat has seen behind it."""
    def wait():
        other = connect(chat.port)
        for _ in range(2):
            other.ask(request("chat", "/nothing"))
        other.close()
    return wait


@pytest.fixture
def browser(chat, folder):
    started = Browser(folder, "--no-proxy-server")
    yield started
    started.close()


# The page and the handshake


def test_root__is_the_page(chat, connect):
    wire = connect(chat.port)
    wire.send(request("chat"))
    head, body = wire.read_reply()
    assert head.startswith(b"HTTP/1.1 200 OK\r\nContent-Type: text/html; charset=utf-8\r\n")
    assert body.startswith(b"<!doctype html>") and body.endswith(b"</script>\n")


def test_other_path__is_not_found(chat, connect):
    wire = connect(chat.port)
    wire.send(request("chat", "/other"))
    assert wire.read_reply() == (b"HTTP/1.1 404 Not Found\r\nContent-Type: text/plain\r\n"
                                 b"Content-Length: 29\r\n\r\n", b"There is only one page here.\n")


def test_handshake_of_the_rfc__is_accepted(chat, connect):
    wire = connect(chat.port)
    wire.send(handshake())
    assert wire.read(len(ACCEPTED)) == ACCEPTED


def test_frame_right_behind_the_handshake__is_read(chat, connect):
    wire = connect(chat.port)
    wire.send(handshake() + frame(b"early"))
    expected = ACCEPTED + server_frame(b"early")
    assert wire.read(len(expected)) == expected


@pytest.mark.parametrize("wrong", [{"version": "8"}, {"version": ""}, {"version": "14"}, {"key": ""}])
def test_handshake_with_wrong_version_or_no_key__is_refused_and_http_goes_on(chat, connect, wrong):
    wire = connect(chat.port)
    wire.send(handshake(**wrong))
    assert wire.read(len(REFUSED)) == REFUSED
    assert wire.ask(request("chat")).startswith(b"<!doctype html>")
    assert not chat.lines("Warning!.*")


def test_upgrade_in_another_letter_case__is_an_ordinary_request(chat, connect):
    wire = connect(chat.port)
    assert wire.ask(handshake(upgrade="WebSocket")).startswith(b"<!doctype html>")


# Frames


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


@pytest.mark.parametrize("size", [0, 125])
def test_ping__is_answered_by_a_pong_with_the_same_bytes_to_its_sender_only(join, size):
    wire, other = join(), join()
    wire.send(frame(b"p" * size, PING))
    expect_frame(wire, b"p" * size, PONG)
    wire.send(frame(b"all"))
    expect_frame(other, b"all")


@pytest.mark.parametrize("opcode", [3, 7, PONG, 11, 15])
def test_unknown_opcode__is_ignored_with_a_warning(chat, join, opcode):
    wire = join()
    wire.send(frame(b"what", opcode) + frame(b"next"))
    expect_frame(wire, b"next")
    chat.wait_for_line(f"Warning! Unhandled opcode: {opcode}")


def test_reserved_bits__are_ignored(join):
    wire = join()
    wire.send(frame(b"bits", reserved=7))
    expect_frame(wire, b"bits")


@pytest.mark.parametrize("payload", [b"", struct.pack(">H", 1000) + b"bye"])
def test_close_frame__closes_without_an_answer(join, payload):
    wire = join()
    wire.send(frame(payload, CLOSE) + frame(b"too late"))
    assert wire.read_to_end() == b""


def test_close_behind_a_message__sends_the_message_first(join):
    wire = join()
    wire.send(frame(b"last") + frame(b"", CLOSE))
    assert wire.read_to_end() == server_frame(b"last")


def test_frame_without_mask__ends_the_connection_with_a_warning(chat, join):
    wire = join()
    wire.send(frame(b"good") + b"\x81\x05Hello")
    assert wire.read_to_end() == server_frame(b"good")
    chat.wait_for_line("Warning! Incoming frame has no mask[.]")


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


def test_frame_that_comes_byte_by_byte_behind_another__is_read(join):
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
    expect_frame(wire, b"others go on")  # and nothing before it
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
def test_frame_over_the_limit__ends_the_connection_with_a_warning(chat, join, start):
    wire = join()
    wire.send(start)
    assert wire.read_to_end() == b""
    chat.wait_for_line(f"Warning! Frame exceeds max length of {MAX_FRAME}[.]")


def test_message_of_1_mib_less_a_byte__is_sent(join):
    wire = join()
    message = bytes(6) + b"m" * (MAX_FRAME - 7)
    wire.send(frame_64(message))
    expect_frame(wire, message)


def test_message_over_the_limit__ends_the_connection_with_a_warning(chat, join):
    wire = join()
    for number in range(MAX_MESSAGE // MAX_FRAME):
        wire.send(frame_64(bytes(MAX_FRAME), opcode=CONTINUATION if number else TEXT, fin=False))
    wire.send(frame(b"x", PING))
    expect_frame(wire, b"x", PONG)  # the limit itself is allowed
    wire.send(frame(b"y", CONTINUATION))
    assert wire.read_to_end() == b""
    chat.wait_for_line(f"Warning! Message exceeds max length of {MAX_MESSAGE}[.]")


# The room


def test_full_room__everybody_gets_every_message(join):
    crowd = [join() for _ in range(CROWD)]
    said = [b"message %d" % number for number in range(CROWD)]
    for wire, message in zip(crowd, said):
        wire.send(frame(message))
    length = sum(len(server_frame(message)) for message in said)
    heard = {wire.read(length) for wire in crowd}
    assert len(heard) == 1  # and in the same order
    heard = heard.pop()
    for message in said:
        assert heard.count(server_frame(message)) == 1


@pytest.mark.parametrize("leave", ["reset", "close"])
def test_client_that_vanishes__leaves_the_room_and_others_go_on(chat, join, leave):
    staying = join()
    room_of_one = len(chat.descriptors())
    for round_number in range(3):
        leaving = [join() for _ in range(5)]
        leaving[0].send(frame(b"half", fin=False) + frame(b"x" * 50)[:20])
        leaving[0].wait_delivered()
        for wire in leaving:
            getattr(wire, leave)()
        staying.send(frame(b"still here %d" % round_number))
        expect_frame(staying, b"still here %d" % round_number)
        until(lambda: len(chat.descriptors()) == room_of_one, "those who left are gone")
    assert not chat.lines("Error!.*")


def test_empty_room__can_be_entered_again(chat, join):
    for number in range(3):
        wire = join()
        wire.send(frame(b"%d" % number))
        expect_frame(wire, b"%d" % number)
        wire.close()
        chat.wait_until_idle()


def test_client_that_does_not_read__keeps_nobody_waiting(join):
    join()  # reads nothing, ever
    wire = join()
    for _ in range(30):
        wire.send(frame_64(bytes(500000)))
        expect_frame(wire, bytes(500000))


# Client libraries and a browser


def test_client_of_node__says_one_of_each_kind(chat):
    output = run_node("websocket_client.js", "talk", f"ws://127.0.0.1:{chat.port}/")
    assert json.loads(output) == {"messages": ["text", "binary", "fragments", "x" * 125],
                                  "pong": "are you there?", "code": 1006}


def test_room_of_node__everybody_gets_every_message(chat):
    output = json.loads(run_node("websocket_client.js", "room", f"ws://127.0.0.1:{chat.port}/", str(CROWD)))
    assert sorted(output["messages"]) == sorted(f"message {number}" for number in range(CROWD))
    assert len(output["digests"]) == CROWD and len(set(output["digests"])) == 1


def test_client_of_python__says_one_of_each_kind(chat):
    async def talk():
        async with websockets.connect(f"ws://127.0.0.1:{chat.port}/", close_timeout=15) as socket:
            for message in ("text", b"binary", ["frag", "ments"], "x" * 125):
                await socket.send(message)
            heard = [await socket.recv() for _ in range(4)]
            await (await socket.ping("there?"))
        return heard, socket.close_code

    heard, code = asyncio.run(asyncio.wait_for(talk(), 30))
    assert heard == ["text", "binary", "fragments", "x" * 125]
    assert code == 1006  # closed without a close frame


def pixels(png):
    """The picture's unpacked rows."""
    assert png.startswith(b"\x89PNG\r\n\x1a\n")
    data, offset = b"", 8
    while offset < len(png):
        length, kind = struct.unpack(">I4s", png[offset:offset + 8])
        if kind == b"IDAT":
            data += png[offset + 8:offset + 8 + length]
        offset += length + 12
    return zlib.decompress(data)


def test_two_tabs__talk_to_each_other(chat, browser):
    url = f"http://127.0.0.1:{chat.port}/"
    tabs = [browser.open(url), browser.open(url)]
    for tab in tabs:
        tab.wait_for_text("You are in.")
    said = ["Hello, is anybody there?", "Yes: ünïcödé and 😀, too.", "x" * 100]
    for number, line in enumerate(said):
        tabs[number % 2].type_line(line)
        for tab in tabs:
            tab.wait_for_text(line)
    # One for the eye, and for the documentation.
    picture = tabs[0].screenshot()
    assert len(set(pixels(picture))) > 10
    if "MIVO_SCREENSHOT_DIR" in os.environ:
        pathlib.Path(os.environ["MIVO_SCREENSHOT_DIR"], "chat.png").write_bytes(picture)
    for tab in tabs:
        assert tab.evaluate("[...log.children].map(line => line.textContent)") == ["You are in.", *said]


def test_line_of_more_than_125_bytes__is_not_let_through_by_the_page(chat, browser):
    tab = browser.open(f"http://127.0.0.1:{chat.port}/")
    tab.wait_for_text("You are in.")
    tab.type_line("😀" * 40)  # 160 bytes, 80 units of UTF-16
    tab.wait_for_text("That is too long.")
    tab.evaluate("say.value = ''")
    tab.type_line("short")
    tab.wait_for_text("short")
    assert "😀" not in tab.evaluate("log.textContent")
