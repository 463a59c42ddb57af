"""A short soak: mixed clients, with every byte compared. script/soak runs a long one."""

import json
import os
import pathlib
import subprocess
import sys

from mivo_process import PROGRAM, REPOSITORY

BUILD = pathlib.Path(os.environ.get("MIVO_BUILD", REPOSITORY / "build/release"))
LOAD = BUILD / "tests/soak/soak_load"


def soak(folder, *arguments):
    """Runs a soak and returns its exit status and its results."""
    done = subprocess.run(
        [sys.executable, "-B", REPOSITORY / "tests/soak/run.py", "--program", PROGRAM, "--load", LOAD,
         "--out", folder, "--seconds", "60", *arguments], stdout=subprocess.PIPE, timeout=120, check=False)
    print(done.stdout.decode())  # the seed, when the test fails
    return done.returncode, json.loads(pathlib.Path(folder, "soak.json").read_text())


def test_100000_mixed_requests__no_wrong_byte_no_error_and_nothing_left_open(folder):
    status, result = soak(folder, "--requests", "100000")
    assert result["findings"] == [] and status == 0
    assert result["requests"] >= 100000 and result["left"] > 0


def test_one_wrong_reply_of_the_upstream__is_found(folder):
    status, result = soak(folder, "--requests", "2000", "--wrong", "1000")
    assert result["findings"] == ["1 exchanges with a wrong byte"] and status == 1
