"""Requests, compared with a model in Python."""

from probe import ask, hexed, seeded, unhexed
from request_model import Request, copy_headers, get_header

CASES = 2000

METHODS = [b"GET", b"POST", b"HEAD", b"CONNECT", b"", b"get"]
TARGETS = [b"/", b"/a?b=c", b"?x", b"?x?y", b"/a?b?c", b"", b"*", b"http://h/p?q", b"/?", b"/a b"]
VERSIONS = [b"HTTP/1.1", b"HTTP/1.0", b"HTTP/1.0 ", b"", b"HTTP/2"]
LINES = [
    b"Host: h",
    b"host:h",
    b"Connection: Keep-Alive",
    b"connection: keep-alive",
    b"Connection: close",
    b"Proxy-Connection: x",
    b"CONTENT-LENGTH: 3",
    b"Content-Length: 11",
    b"content-length:9",
    b"Content-Length: -4",
    b"Content-Length:  \t+7",
    b"Content-Length: 4294967297",
    b"Content-Length: 99999999999999999999999",
    b"Content-Length: -99999999999999999999999",
    b"Content-Length-Hint: 5",
    b"Content-Length",
    b"Cookie: a=b",
    b"cookies:none",
    b"Upgrade: websocket",
    b"Upgrade: h2c",
    b"Sec-WebSocket-Key: abc",
    b"sec-websocket-version: 13",
    b"Sec-WebSocket-Version: 8",
    b"A",
    b"",
]
PIECES = [b" ", b"\r\n", b"\r\n\r\n", b"\r", b"\n", b"?", b"*", b":", b"\0", b"\xff", b"GET / HTTP/1.1"] + LINES


def random_request(rng):
    head = rng.choice(METHODS) + b" " + rng.choice(TARGETS) + b" " + rng.choice(VERSIONS) + b"\r\n"
    head += b"".join(rng.choice(LINES) + b"\r\n" for _ in range(rng.randrange(8)))
    return head + b"\r\n" + b"b" * rng.randrange(15)


def random_soup(rng):
    return b"".join(rng.choice(PIECES) for _ in range(rng.randrange(25)))


def spoiled(rng, data):
    for _ in range(rng.choice([0, 0, 1, 3])):
        at = rng.randrange(len(data) + 1)
        data = data[:at] + rng.choice([b"", b" ", b"\r", b"\n", b"\0", b"?"]) + data[at + rng.randrange(2) :]
    return data


def cut(rng, data):
    longest = rng.choice([1, 3, 20, 400])
    chunks = []
    while data:
        n = rng.randint(0 if rng.randrange(20) == 0 else 1, longest)
        chunks.append(data[:n])
        data = data[n:]
    return chunks


def test_requests_are_those_of_the_model():
    rng = seeded("requests")
    cases = []
    for _ in range(CASES):
        data = random_soup(rng) if rng.randrange(3) == 0 else random_request(rng)
        if rng.randrange(3) == 0:
            data += random_request(rng)
        limit = rng.choice([0, 0, 0, 20, 60])
        cases.append((limit, rng.randrange(2), cut(rng, spoiled(rng, data))))
    lines = [f"request {limit} {upgrades} {' '.join(map(hexed, chunks))}" for limit, upgrades, chunks in cases]
    completed = 0
    for (limit, upgrades, chunks), answer in zip(cases, ask(lines)):
        model = Request(limit, upgrades)
        for chunk in chunks:
            model.receive(chunk)
        assert answer == model.report(), (limit, upgrades, chunks)
        completed += "request" in answer
    assert completed > CASES / 4  # otherwise the cases would show little


def test_header_look_up_is_that_of_the_model():
    rng = seeded("headers")
    names = [b"host", b"HOST", b"content-length", b"a", b"Cookie", b"", b"x:y"]
    cases = [(rng.choice(names), random_soup(rng) + b"xx") for _ in range(CASES)]
    answers = ask([f"header {hexed(name)} {hexed(text)}" for name, text in cases])
    for (name, text), (value,) in zip(cases, answers):
        assert unhexed(value) == get_header(name, text), (name, text)


def test_copied_headers_are_those_of_the_model():
    rng = seeded("copied")
    cases = [random_soup(rng) if rng.randrange(2) else spoiled(rng, random_request(rng)) for _ in range(CASES)]
    for head, (lines,) in zip(cases, ask([f"copy_headers {hexed(head)}" for head in cases])):
        assert unhexed(lines) == copy_headers(head), head
