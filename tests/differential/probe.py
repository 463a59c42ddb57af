"""The shared part of the tests in this folder: the probe, and random input whose seed can be set and is printed."""

import os
import random
import subprocess
from pathlib import Path

PROBE = Path(os.environ["MIVO_BUILD"]) / "tests" / "differential_probe"
SEED = os.environ.get("MIVO_SEED") or str(random.SystemRandom().randrange(10**9))


def seeded(name):
    """A random generator for one test. pytest shows the printed line on a failure; it says how to repeat the test."""
    print(f"MIVO_SEED={SEED}")
    return random.Random(f"{SEED} {name}")


def hexed(data):
    return "=" + data.hex()


def unhexed(word):
    assert word[0] == "="
    return bytes.fromhex(word[1:])


def ask(lines):
    """The probe's answers, one for each line, as lists of words."""
    text = "".join(line + "\n" for line in lines)
    result = subprocess.run([str(PROBE)], input=text, capture_output=True, text=True, timeout=60)
    assert result.returncode == 0, result.stderr
    answers = [line.split() for line in result.stdout.splitlines()]
    assert len(answers) == len(lines)
    return answers
