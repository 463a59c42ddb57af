"""A clock for mivo that the test sets. Import the fixtures: `program` has to replace the one of conftest.py."""

import pathlib
import struct
import time

import pytest

from mivo_process import PROGRAM
from preload import build_preload

STEP = 5  # seconds; less than the time after which an idle connection ends


class Clock:
    """The clock of mivo, which is ahead of the real one."""

    def __init__(self, path):
        self.path = pathlib.Path(path)
        self.path.write_bytes(bytes(8))
        self.ahead = 0

    def advance(self, seconds):
        self.ahead += seconds
        with open(self.path, "r+b", buffering=0) as file:  # one write, into the file that mivo has mapped
            file.write(struct.pack("=q", self.ahead))

    def advance_in_steps(self, seconds):
        """Sets the clock forward in small steps, so that connections in constant use do not become idle."""
        for _ in range(0, seconds, STEP):
            self.advance(STEP)
            time.sleep(0.1)


@pytest.fixture(scope="session")
def clock_library(tmp_path_factory):
    return build_preload(tmp_path_factory, "clock")


@pytest.fixture
def clock(folder):
    return Clock(f"{folder}/clock")


@pytest.fixture
def program(folder, clock, clock_library):
    """A script that sets the clock and then runs the program in its own process."""
    script = pathlib.Path(folder, "mivo_with_clock")
    script.write_text(f'#!/bin/sh\nLD_PRELOAD="$LD_PRELOAD:{clock_library}" MIVO_CLOCK={clock.path} '
                      f'exec {PROGRAM} "$@"\n')
    script.chmod(0o755)
    return str(script)
