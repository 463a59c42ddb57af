"""The JSON of a value, read back by a JSON parser.

Two things are not compared, because the output deliberately is no JSON there: zero bytes, which are written as \\0,
and values that contain themselves. Numbers with a fraction come back with six digits.
"""

import json
import math

from probe import ask, hexed, seeded, unhexed

CASES = 2000


def random_text(rng):
    if rng.randrange(3) == 0:
        return "".join(chr(rng.choice([*range(1, 0x30), 0x5C, 0x7F, 0x85, 0xE9])) for _ in range(rng.randrange(8)))
    points = [rng.choice([rng.randint(1, 0x7FF), rng.randint(0xE000, 0x10FFFF)]) for _ in range(rng.randrange(12))]
    return "".join(map(chr, points))


def random_value(rng, depth=0):
    kind = rng.randrange(5 if depth > 4 else 8)
    if kind == 0:
        return None
    if kind == 1:
        return rng.random() < 0.5
    if kind == 2:
        return rng.choice([float(rng.randrange(-1000, 1000)), rng.uniform(-1e9, 1e9), rng.uniform(-1, 1) * 1e-9])
    if kind <= 4:
        return random_text(rng)
    if kind == 5:
        return {random_text(rng): random_value(rng, depth + 1) for _ in range(rng.randrange(5))}
    return [random_value(rng, depth + 1) for _ in range(rng.randrange(5))]


def described(value):
    """The value in the probe's prefix form."""
    if value is None:
        return "z"
    if isinstance(value, bool):
        return "t" if value else "f"
    if isinstance(value, float):
        return f"n{value!r}"
    if isinstance(value, str):
        return "s" + hexed(value.encode())
    if isinstance(value, list):
        return " ".join([f"[{len(value)}", *map(described, value)])
    pairs = (f"{hexed(key.encode())} {described(element)}" for key, element in value.items())
    return " ".join([f"{{{len(value)}", *pairs])


def is_same(is_, should):
    if isinstance(should, float):
        exact = should.is_integer() or is_ == should
        return not isinstance(is_, bool) and math.isclose(is_, should, rel_tol=0 if exact else 1e-5)
    if type(is_) is not type(should):
        return False
    if isinstance(should, list):
        return len(is_) == len(should) and all(map(is_same, is_, should))
    if isinstance(should, dict):
        return list(is_) == list(should) and all(is_same(is_[key], should[key]) for key in should)
    return is_ == should


def test_values_come_back_from_both_forms():
    rng = seeded("json")
    values = [random_value(rng) for _ in range(CASES)]
    for value, forms in zip(values, ask([f"json {described(value)}" for value in values])):
        assert len(forms) == 2
        for form in forms:
            text = unhexed(form).decode("ascii")
            assert is_same(json.loads(text), value), text


def test_infinity_and_nan_are_null():
    assert ask(["json ninf", "json n-inf", "json nnan"]) == [[hexed(b"null")] * 2] * 3


def test_bytes_that_are_no_utf8_still_make_json():
    rng = seeded("bytes")
    cases = [bytes(rng.randrange(1, 256) for _ in range(rng.randrange(20))) for _ in range(CASES)]
    for case, forms in zip(cases, ask([f"json s{hexed(case)}" for case in cases])):
        text = json.loads(unhexed(forms[0]).decode("ascii"))
        try:
            assert text == case.decode()
        except UnicodeDecodeError:
            continue
