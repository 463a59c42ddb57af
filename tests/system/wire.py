"""One TCP connection of a test, seen as bytes, and the listener that plays a scripted upstream.

Every wait has a deadline, so a lost byte fails the test instead of stopping it. A Wire owns its socket; a Listener
owns the wires that it has accepted. The fixtures of conftest.py close both.
"""

import fcntl
import socket
import struct
import termios
import time

DEADLINE = 15  # seconds; only a failing test ever waits this long


def until(condition, what, deadline=DEADLINE):
    """Waits for `condition` to become true and returns its value."""
    end = time.monotonic() + deadline
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > end:
            raise AssertionError(f"not within {deadline} s: {what}")
        time.sleep(0.005)


def request(host, target="/", method="GET", headers=(), body=b""):
    """A request as a small client would write it. A body gets a Content-Length."""
    lines = [f"{method} {target} HTTP/1.1", f"Host: {host}", *headers]
    if body:
        lines.append(f"Content-Length: {len(body)}")
    return "\r\n".join(lines).encode() + b"\r\n\r\n" + body


def reply(body=b"", *headers):
    """A response with a known length, as a scripted upstream sends it."""
    lines = ["HTTP/1.1 200 OK", *headers, f"Content-Length: {len(body)}"]
    return "\r\n".join(lines).encode() + b"\r\n\r\n" + body


def header(head, name):
    """The value of the first header `name` in a head, or None."""
    for line in head.split(b"\r\n")[1:]:
        key, _, value = line.partition(b":")
        if key.lower() == name.lower():
            return value.strip()
    return None


class Wire:
    def __init__(self, sock):
        sock.settimeout(DEADLINE)
        sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.sock = sock
        self.unread = b""

    @classmethod
    def connect(cls, port, host="127.0.0.1", source=None):
        return cls(socket.create_connection((host, port), DEADLINE, (source, 0) if source else None))

    @property
    def port(self):
        return self.sock.getsockname()[1]

    def send(self, data):
        self.sock.sendall(data)

    def wait_delivered(self):
        """Returns when the peer's system has received everything that was sent."""
        until(lambda: fcntl.ioctl(self.sock, termios.TIOCOUTQ, bytes(4)) == bytes(4), "delivery")

    def read_some(self):
        """At least one byte, or b"" when the peer has closed."""
        if self.unread:
            data, self.unread = self.unread, b""
            return data
        return self.sock.recv(1 << 20)

    def read(self, count):
        """Exactly `count` bytes."""
        parts, missing = [], count
        while missing > 0:
            data = self.read_some()
            assert data, f"closed {missing} bytes before the {count} expected: ...{b''.join(parts)[-200:]!r}"
            parts.append(data[:missing])
            self.unread = data[missing:]
            missing -= len(parts[-1])
        return b"".join(parts)

    def read_until(self, end):
        """Everything up to and including `end`."""
        seen = b""
        while end not in seen:
            data = self.read_some()
            assert data, f"closed before {end!r}: {seen!r}"
            seen += data
        cut = seen.index(end) + len(end)
        self.unread = seen[cut:]
        return seen[:cut]

    def read_head(self):
        return self.read_until(b"\r\n\r\n")

    def read_reply(self):
        """Reads one response with a Content-Length, as (head, body)."""
        head = self.read_head()
        return head, self.read(int(header(head, b"content-length")))

    def ask(self, data):
        """Sends a whole request and returns the body of its response."""
        self.send(data)
        return self.read_reply()[1]

    def read_to_end(self):
        """Reads everything until the peer closes in good order."""
        parts = []
        while data := self.read_some():
            parts.append(data)
        return b"".join(parts)

    def wait_closed(self):
        """Waits until the peer closes, in good order or not, and drops the bytes that still come."""
        try:
            self.read_to_end()
        except ConnectionError:
            pass

    def half_close(self):
        self.sock.shutdown(socket.SHUT_WR)

    def reset(self):
        """Closes at once with a reset instead of in good order."""
        self.sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.sock.close()

    def close(self):
        self.sock.close()


class Listener:
    """An upstream that does nothing on its own: the test accepts, reads and writes step by step."""

    def __init__(self, port=0):
        self.sock = socket.create_server(("127.0.0.1", port), backlog=512)
        self.sock.settimeout(DEADLINE)
        self.port = self.sock.getsockname()[1]
        self.wires = []

    def accept(self):
        self.wires.append(Wire(self.sock.accept()[0]))
        return self.wires[-1]

    def accept_if_waiting(self):
        """The connection that waits to be accepted, or None."""
        self.sock.setblocking(False)
        try:
            return self.accept()
        except BlockingIOError:
            return None
        finally:
            self.sock.settimeout(DEADLINE)

    def close(self):
        self.sock.close()
        for wire in self.wires:
            wire.close()
