"""The codecs, compared with Python's, which takes its SHA-1 from OpenSSL."""

import base64
import hashlib
import math
import struct
import subprocess

from probe import ask, hexed, seeded, unhexed

CASES = 2000


def random_bytes(rng, longest=200):
    return rng.randbytes(rng.randrange(longest))


def test_base64_and_sha1_are_those_of_the_library():
    rng = seeded("base64")
    cases = [rng.randbytes(n) for n in range(200)] + [random_bytes(rng, 3000) for _ in range(CASES)]
    encoded = ask([f"base64 {hexed(case)}" for case in cases])
    digests = ask([f"sha1 {hexed(case)}" for case in cases])
    for case, (text,), (digest,) in zip(cases, encoded, digests):
        assert unhexed(text) == base64.b64encode(case), case
        assert unhexed(digest) == hashlib.sha1(case).digest(), case


def test_base64_and_sha1_are_those_of_the_openssl_program():
    case = seeded("openssl").randbytes(100000)

    def openssl(*arguments):
        return subprocess.run(["openssl", *arguments], input=case, capture_output=True, check=True).stdout

    [[text], [digest]] = ask([f"base64 {hexed(case)}", f"sha1 {hexed(case)}"])
    assert unhexed(text) == openssl("base64", "-A")
    assert unhexed(digest) == openssl("dgst", "-sha1", "-binary")


def random_number(rng):
    kind = rng.randrange(4)
    if kind == 0:
        return float(rng.randrange(-(10**6), 10**6))
    if kind == 1:
        return rng.uniform(-1000, 1000)
    if kind == 2:
        return math.ldexp(rng.randrange(1, 2**53), rng.randrange(-1100, 970))
    return struct.unpack("<d", rng.randbytes(8))[0]


def test_whole_numbers_are_written_in_full_and_others_with_six_digits():
    rng = seeded("num")
    numbers = [x for x in (random_number(rng) for _ in range(CASES)) if math.isfinite(x)]
    for x, (text,) in zip(numbers, ask([f"num {x!r}" for x in numbers])):
        if x.is_integer():
            assert float(text) == x and text.lstrip("-").isdigit(), x
        else:
            assert text == f"{x:g}"


# Code points from all parts of Unicode, but no surrogates, because UTF-8 cannot hold them.
RANGES = [(0x20, 0x7E), (0x80, 0x17F), (0x370, 0x6FF), (0x3040, 0x30FF), (0x4E00, 0x9FFF), (0xE000, 0xFFFD)]
RANGES += [(0x1F300, 0x1F6FF), (0x10000, 0x10FFFF)]


def random_label(rng):
    ranges = [rng.choice(RANGES) for _ in range(2)] + [(0x61, 0x7A)]
    characters = (chr(rng.randint(*rng.choice(ranges))) for _ in range(rng.randrange(30)))
    return "".join(characters).replace(".", "")


def ascii_label(label):
    return label if label.isascii() else "xn--" + label.encode("punycode").decode()


def test_host_names_become_what_pythons_punycode_makes_of_them():
    rng = seeded("idn")
    hosts = [".".join(random_label(rng) for _ in range(rng.randint(1, 4))) for _ in range(CASES)]
    for host, (text,) in zip(hosts, ask([f"idn {hexed(host.encode())}" for host in hosts])):
        assert unhexed(text).decode() == ".".join(ascii_label(label) for label in host.split(".")), host


def test_escaped_bytes_mean_themselves_in_a_python_literal():
    rng = seeded("escape")
    cases = [random_bytes(rng).replace(b"\0", b"") for _ in range(CASES)]  # \0 and a digit would be octal there
    for case, (_, plain) in zip(cases, ask([f"escape {hexed(case)}" for case in cases])):
        literal = unhexed(plain).decode("ascii")
        assert literal.encode("ascii").decode("unicode_escape").encode("latin-1") == case
