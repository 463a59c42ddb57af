"""The chat: the WebSocket handshake, a full room, the clients that are removed from it, and two tabs of a browser."""

import asyncio
import contextlib
import json
import socket
import struct

import pytest
import websockets

from devtools import Browser
from example_process import every_build, run_node
from websocket_frames import (BINARY, PING, PONG, REFUSED, TEXT, expect_frame, frame, frame_16, frame_64_start,
                              handshake, server_frame, upgrade)
from wire import request, until

CROWD = 200
LONGEST = 4096
ACCEPTED = (b"HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
            b"Sec-WebSocket-Accept: s3pPLMBiTxaQ9kYGzzhZRbK+xOo=\r\nContent-Length: 0\r\n\r\n")


program = every_build("chat")


@pytest.fixture
def chat(start_mivo):
    return start_mivo()


@pytest.fixture
def join(chat, connect):
    """join(): one more client in the room."""
    return lambda: upgrade(connect(chat.port))


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


def test_frame_right_after_the_handshake__is_read(chat, connect):
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


# The room


@pytest.mark.parametrize("size", [0, 125])
def test_ping__is_answered_by_a_pong_with_the_same_bytes_to_its_sender_only(join, size):
    wire, other = join(), join()
    wire.send(frame(b"p" * size, PING))
    expect_frame(wire, b"p" * size, PONG)
    wire.send(frame(b"all"))
    expect_frame(other, b"all")


def test_full_room__everybody_gets_every_message(join):
    crowd = [join() for _ in range(CROWD)]
    said = [b"message %d" % number for number in range(CROWD)]
    for wire, message in zip(crowd, said):
        wire.send(frame(message))
    length = sum(len(server_frame(message)) for message in said)
    heard = {wire.read(length) for wire in crowd}
    assert len(heard) == 1  # all have heard the same, in the same order
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
        until(lambda: len(chat.descriptors()) == room_of_one, "the chat has closed the connections of those who left")
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
        wire.send(frame_16(b"x" * LONGEST, "<"))
        expect_frame(wire, b"x" * LONGEST)


@pytest.mark.parametrize("message", [b"\xff", b"a\xc3", b"\xed\xa0\x80", b"\xf4\x90\x80\x80", b"\xc0\x80"],
                         ids=["no_byte_of_utf_8", "cut_off", "surrogate", "above_10ffff", "overlong"])
@pytest.mark.parametrize("opcode", [TEXT, BINARY])
def test_message_that_is_not_text__is_passed_on_to_nobody(join, message, opcode):
    wire, other = join(), join()
    wire.send(frame(message, opcode) + frame("fine: ünïcödé 😀".encode(), opcode))
    for each in (wire, other):
        expect_frame(each, "fine: ünïcödé 😀".encode())


@pytest.mark.parametrize("message", [frame_16(b"m" * (LONGEST + 1), "<"), frame_64_start(1 << 20),
                                     frame(b"m", fin=False) + frame_16(b"m" * LONGEST, "<")],
                         ids=["one_byte_over", "1_mib", "in_fragments"])
def test_message_that_is_too_long__ends_only_the_connection_of_its_sender(join, message):
    wire, other = join(), join()
    wire.send(message)
    assert wire.read_to_end() == b""
    other.send(frame_16(b"m" * LONGEST, "<"))
    expect_frame(other, b"m" * LONGEST)


def test_mib_of_empty_messages__is_cut_short_and_ends_the_connection_of_its_sender(join):
    crowd, wire = [join() for _ in range(20)], join()
    with contextlib.suppress(ConnectionError):  # the chat ends the connection before all is sent
        wire.send(frame(b"") * ((1 << 20) // 6))
    wire.wait_closed()
    crowd[0].send(frame(b"after"))
    for member in crowd:
        # 100 messages are passed on in each second of the clock. A second may end meanwhile, so there may be two.
        assert len(member.read_until(server_frame(b"after"))) < 2 * 100 * len(server_frame(b"")) + 10


def test_member_that_does_not_read__is_removed(chat, join):
    crowd = [join() for _ in range(30)]
    silent = join()
    silent.sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
    before = len(chat.descriptors())

    def everybody_talks():
        for wire in crowd:
            wire.send(frame_16(b"x" * LONGEST, "<"))
        for wire in crowd:
            wire.read(len(crowd) * len(server_frame(b"x" * LONGEST)))
        return len(chat.descriptors()) == before - 1

    until(everybody_talks, "only the clients that read are left", 60)
    crowd[0].send(frame(b"still here"))
    expect_frame(crowd[1], b"still here")


def test_client_that_keeps_asking_for_the_page_without_reading__is_ended(chat, connect):
    wire, other = connect(chat.port), connect(chat.port)
    wire.sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
    page = other.ask(request("chat"))
    before = len(chat.descriptors())
    with contextlib.suppress(ConnectionError):  # the chat may have ended the connection already
        for _ in range((6 << 20) // len(page)):  # more than the system takes
            wire.send(request("chat"))
            other.ask(request("chat", "/other"))  # the chat has seen the request now
    until(lambda: len(chat.descriptors()) < before, "the client is ended before its time-out of 10 s", 5)


def test_member_that_only_pings__takes_no_memory(chat, join):
    wire, other = join(), join()
    wire.sock.settimeout(0.5)
    before = chat.resident_peak_kib()
    with contextlib.suppress(OSError):  # the chat ends the connection, or the send times out
        for _ in range(300):
            wire.send(frame(b"p" * 125, PING) * 8000)
    other.send(frame(b"others go on"))
    expect_frame(other, b"others go on")
    assert chat.resident_peak_kib() - before < 100000


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
    assert code == 1006  # the connection was closed without a close frame


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
