"""WebSocket on a Wire, frame by frame, so that a test can also send frames that no client library would send."""

import struct

from wire import header

CONTINUATION, TEXT, BINARY, CLOSE, PING, PONG = 0, 1, 2, 8, 9, 10
MASK = b"\x11\x82\x03\xf4"
KEY = "dGhlIHNhbXBsZSBub25jZQ=="  # the example of RFC 6455, section 1.3
REFUSED = b"HTTP/1.1 400 Bad Request\r\nSec-WebSocket-Version: 13\r\nContent-Length: 0\r\n\r\n"


def handshake(key=KEY, version="13", upgrade="websocket", target="/"):
    return (f"GET {target} HTTP/1.1\r\nHost: chat\r\nUpgrade: {upgrade}\r\nConnection: Upgrade\r\n"
            f"Sec-WebSocket-Key: {key}\r\nSec-WebSocket-Version: {version}\r\n\r\n").encode()


def masked(payload, mask=MASK):
    repeated = (mask * (len(payload) // 4 + 1))[:len(payload)]
    return (int.from_bytes(payload, "big") ^ int.from_bytes(repeated, "big")).to_bytes(len(payload), "big")


def frame(payload, opcode=TEXT, fin=True, reserved=0):
    """A masked frame of up to 125 bytes, by RFC 6455."""
    assert len(payload) <= 125
    first = fin << 7 | reserved << 4 | opcode
    return bytes([first, 0x80 | len(payload)]) + MASK + masked(payload)


def frame_16(payload, order):
    """A masked text frame with a 2-byte length; order is ">" by RFC 6455 and "<" by this library."""
    return b"\x81\xfe" + struct.pack(order + "H", len(payload)) + MASK + masked(payload)


def frame_64_start(length, opcode=TEXT, fin=True):
    """The beginning of a frame of more than 65535 bytes, as this library reads it: the length is at byte 8, and the
    mask, which is zero here, is at byte 16. The payload starts at byte 14. So its first six bytes are the last six
    bytes of this beginning, which are zero."""
    return bytes([fin << 7 | opcode, 0xff]) + bytes(6) + struct.pack("<Q", length) + bytes(4)


def frame_64(payload, **options):
    assert payload.startswith(bytes(6))
    return frame_64_start(len(payload), **options) + payload[6:]


def server_frame(payload, opcode=TEXT):
    """A frame by RFC 6455 as a server has to send it: one piece, not masked, in the shortest form."""
    if len(payload) <= 125:
        length = bytes([len(payload)])
    elif len(payload) <= 65535:
        length = b"\x7e" + struct.pack(">H", len(payload))
    else:
        length = b"\x7f" + struct.pack(">Q", len(payload))
    return bytes([0x80 | opcode]) + length + payload


def upgrade(wire):
    """Turns a connection into a WebSocket."""
    wire.send(handshake())
    head = wire.read_head()
    assert head.startswith(b"HTTP/1.1 101 ") and header(head, b"upgrade") == b"websocket", head
    return wire


def expect_frame(wire, payload, opcode=TEXT):
    expected = server_frame(payload, opcode)
    assert wire.read(len(expected)) == expected
