"""Bodies in chunks, compared with the decoders of Python and of Node: all find the end at the same place."""

import http.client
import io
import subprocess
from pathlib import Path

from probe import ask, hexed, seeded

CASES = 2000
NODE_CASES = 800
NODE_PARSER = Path(__file__).with_name("node_parser.js")


def size_text(rng, size):
    text = rng.choice([f"{size:x}", f"{size:X}"])
    return ("0" * rng.choice([0, 0, 0, 1, 20]) + text).encode()


def extension(rng):
    return rng.choice([b"", b"", b";a", b";a=b", b' ;a="b c"', b"\t; a = b", b";a;b=1;c"])


def random_body(rng):
    body = b""
    for _ in range(rng.randrange(4)):
        data = rng.choice([rng.randbytes(rng.randrange(1, 40)), b"0\r\n\r\n", b"\r\n" * rng.randrange(1, 5)])
        body += size_text(rng, len(data)) + extension(rng) + b"\r\n" + data + b"\r\n"
    body += size_text(rng, 0) + extension(rng) + b"\r\n"
    for _ in range(rng.choice([0, 0, 1, 3])):
        body += rng.choice([b"Sum: 7", b"a:", b"X-Y: \t z ", b"Content-Length: 5"]) + b"\r\n"
    return body + b"\r\n"


SPOILERS = [b"", b" ", b"\r", b"\n", b"\0", b";", b"-", b"+", b"0x", b"\r\n", b"0", b"f", b":", b"\t", b"_"]


def spoiled(rng, data):
    for _ in range(rng.choice([1, 1, 2])):
        at = rng.randrange(len(data))
        data = data[:at] + rng.choice(SPOILERS) + data[at + rng.randrange(2) :]
    return data


def cut(rng, data):
    longest = rng.choice([1, 3, 20, 400])
    pieces = []
    while data:
        n = rng.randint(1, longest)
        pieces.append(data[:n])
        data = data[n:]
    return pieces


def probe_ends(rng, bodies):
    """For each body, the state of the scanner and the number of bytes that belong to the body."""
    answers = ask([f"chunks {' '.join(map(hexed, cut(rng, body)))}" for body in bodies])
    return [(state, int(used)) for state, used in answers]


class Source(io.BytesIO):
    """A socket for Python's client. The client closes it at the end of the body."""

    end = None

    def makefile(self, _):
        return self

    def close(self):
        self.end = self.tell()
        super().close()


def python_end(body):
    """The number of bytes that Python's client reads as a chunked body."""
    head = b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"
    source = Source(head + body)
    response = http.client.HTTPResponse(source)
    response.begin()
    response.read()
    return source.end - len(head)


def node_ends(messages):
    text = "".join(message.hex() + "\n" for message in messages)
    result = subprocess.run(["node", NODE_PARSER], input=text, capture_output=True, text=True, timeout=60)
    assert result.returncode == 0, result.stderr
    ends = result.stdout.split()
    assert len(ends) == len(messages)
    return ends


HEAD = b"POST / HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: chunked\r\n\r\n"


def test_whole_body_ends_after_its_last_byte():
    rng = seeded("whole")
    bodies = [random_body(rng) for _ in range(CASES)]
    rests = [rng.choice([b"", b"x", b"GET / HTTP/1.1\r\n\r\n"]) for _ in bodies]
    answers = probe_ends(rng, [body + rest for body, rest in zip(bodies, rests)])
    for body, answer in zip(bodies, answers):
        assert answer == ("ended", len(body)), body


def test_python_finds_the_same_end():
    rng = seeded("python")
    bodies = [spoiled(rng, random_body(rng)) + b"0\r\n\r\n" for _ in range(CASES)]
    ended = 0
    for body, (state, used) in zip(bodies, probe_ends(rng, bodies)):
        if state == "ended":
            assert python_end(body) == used, body
            ended += 1
    assert CASES / 10 < ended < CASES  # otherwise the cases would show little


def test_node_finds_the_same_end_or_refuses():
    rng = seeded("node")
    bodies = [random_body(rng) for _ in range(NODE_CASES)]
    bodies = [spoiled(rng, body) if rng.randrange(2) else body for body in bodies]
    bodies = [body + b"GET / HTTP/1.1\r\n\r\n" for body in bodies]
    agreed = 0
    for body, (state, used), end in zip(bodies, probe_ends(rng, bodies), node_ends([HEAD + b for b in bodies])):
        if end == "refused" or state == "malformed":
            continue
        assert end == (str(len(HEAD) + used) if state == "ended" else "open"), body
        agreed += state == "ended"
    assert agreed > NODE_CASES / 10


NAMES = [b"Transfer-Encoding:", b"transfer-encoding: ", b"TRANSFER-ENCODING:\t", b"Transfer-Encoding :",
         b"X-Transfer-Encoding:", b"Transfer-Encoding-X:", b" Transfer-Encoding:", b"Transfer-Encoding"]
VALUES = [b"chunked", b"Chunked", b"gzip, chunked", b"gzip", b"identity", b"chunked, gzip", b"xchunked", b"chunked ",
          b"", b",", b"chunked, chunked", b"chunked,", b"chunked;a=b", b'"chunked"', b"chunked\x0b", b"\x0bchunked"]
OTHERS = [b"X: y", b"a", b"Connection: x", b" folded", b"X: y\nZ: z", b"X: y\rZ: z", b"X: Transfer-Encoding: chunked"]


def random_head(rng):
    lines = [rng.choice(NAMES) + rng.choice(VALUES) for _ in range(rng.choice([1, 1, 1, 2]))]
    lines += [rng.choice(OTHERS) for _ in range(rng.choice([0, 0, 1]))]
    rng.shuffle(lines)
    line = rng.choice([b"POST / HTTP/1.1"] * 4 + [b"POST / HTTP/1.0"])
    return b"".join(line + b"\r\n" for line in [line, b"Host: a", *lines])


def test_node_reads_a_head_in_the_same_way_or_refuses():
    """Where the program knows the end of a request, Node finds the same end: after the head or the last chunk."""
    rng = seeded("heads")
    heads = [random_head(rng) for _ in range(NODE_CASES)]
    answers = [answer for (answer,) in ask([f"body_end {hexed(head)}" for head in heads])]
    body = b"3\r\nabc\r\n0\r\n\r\n"
    ends = node_ends([head + b"\r\n" + body + b"behind" for head in heads])
    seen = set()
    for head, answer, end in zip(heads, answers, ends):
        if end == "refused" or answer == "unknown":
            continue
        length = len(head) + 2 + (len(body) if answer == "by_last_chunk" else 0)
        assert end == str(length), (head, answer)
        seen.add(answer)
    assert seen == {"by_length", "by_last_chunk"}
