"""A model of how chunks become requests, written from the description of the rules alone.

It is a second model beside that of the unit tests. Python's strings, numbers and regular expressions have nothing in
common with the program's.
"""

import re


def to_int32(number):
    return (number + 2**31) % 2**32 - 2**31


def parse_number(text):
    """The number that strtol reads, cut to 32 bits. strtol stops at the limits of a 64-bit number."""
    match = re.match(rb"[ \t\n\v\f\r]*([+-]?[0-9]+)", text)
    number = int(match.group(1)) if match else 0
    return to_int32(max(-(2**63), min(2**63 - 1, number)))


def get_header(name, text):
    """The value after `name` in the first line that begins with it, in any letter case."""
    match = re.search(rb"\r\n" + re.escape(name) + rb"..", text, re.IGNORECASE | re.DOTALL)
    return text[match.end() :].split(b"\r\n", 1)[0] if match else b""


def copy_headers(head):
    """All lines except those for the connection itself. A line has at least two bytes."""
    if b"\r\n" not in head or head.startswith(b"\r\n"):
        return b""
    lines = re.findall(rb"(..(?:(?!\r\n).)*\r\n)", head.split(b"\r\n", 1)[1], re.DOTALL)
    return b"".join(line for line in lines if not line.startswith((b"Proxy", b"Connection")))


class Request:
    """One connection. `calls` has the calls of its hooks, in the words of the probe."""

    def __init__(self, limit, answers_upgrades):
        self.limit = limit or 104857600
        self.answers_upgrades = answers_upgrades
        self.keep_alive = True
        self.upgraded = False
        self.calls = []
        self.start()

    def start(self):
        self.head = self.content = b""
        self.has_head = False
        self.method = self.target = self.version = self.path = self.query = self.cookie = b""
        self.length = self.announced = self.received = 0

    def receive(self, chunk):
        if 0 < self.limit < self.length:
            return
        self.length += len(chunk)
        if self.has_head:
            self.received += len(chunk)
            self.take_data(chunk)
        elif not chunk:
            return
        else:
            self.head += chunk
            lines, end, rest = self.head.partition(b"\r\n\r\n")
            if end and lines:
                self.take_head(lines + b"\r\n", rest)
        self.finish()

    def take_head(self, head, rest):
        self.has_head = True
        self.head = head
        self.parse_request_line()
        self.announced = parse_number(get_header(b"content-length", head))
        self.received = len(rest)
        if self.version == b"HTTP/1.0" and get_header(b"connection", head) != b"Keep-Alive":
            self.keep_alive = False
        self.cookie = get_header(b"cookie", head)
        self.path = self.target
        if b"?" in self.target[1:] and not self.target.startswith(b"?"):
            self.path, _, self.query = self.target.partition(b"?")
        if self.answers_upgrades and get_header(b"Upgrade", head) == b"websocket":
            self.upgrade()
        else:
            self.note("headers")
        if rest:
            self.take_data(rest)

    def parse_request_line(self):
        """A position that is not found is -1, and the search after it starts at 0 again."""
        first = self.head.find(b" ")
        second = self.head.find(b" ", first + 1)
        end = self.head.find(b"\r\n", second + 1)
        if first > 0:
            self.method = self.head[:first]
        if second > 0:
            self.target = self.head[first + 1 : second]
        if end > 0:
            self.version = self.head[second + 1 : end]

    def upgrade(self):
        version = parse_number(get_header(b"Sec-WebSocket-Version", self.head))
        if version != 13 or not get_header(b"Sec-WebSocket-Key", self.head):
            return
        self.upgraded = True
        self.limit = 0
        self.note("upgrade")
        self.keep_alive = False  # no client has asked to keep the connection

    def take_data(self, run):
        self.calls += ["data", "=" + run.hex()]
        self.content += run

    def finish(self):
        if self.upgraded or not self.has_head or self.received < self.announced:
            return
        self.note("request")
        if self.keep_alive:
            self.limit = 104857600
            self.start()

    def note(self, hook):
        fields = [self.head, self.method, self.target, self.version, self.path, self.query, self.cookie]
        numbers = [self.announced, self.received, self.length, int(self.keep_alive)]
        self.calls += [hook, *("=" + field.hex() for field in fields), *map(str, numbers)]

    def report(self):
        return ["left", "=" + self.head.hex(), "=" + self.content.hex(), str(int(self.upgraded)), *self.calls]
