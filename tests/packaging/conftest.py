"""The paths by which the tests find the program, and an installation of it."""

import os
import pathlib
import subprocess
import sys

import pytest

for folder in ("system", "harness"):
    sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / folder))

from mivo_process import PROGRAM  # noqa: E402


@pytest.fixture(scope="session")
def installed(tmp_path_factory):
    """A folder that is the root of an installation below /usr."""
    root = tmp_path_factory.mktemp("root")
    subprocess.run(["cmake", "--install", pathlib.Path(PROGRAM).parent, "--prefix", "/usr"],
                   env={"PATH": os.environ["PATH"], "DESTDIR": str(root)}, check=True, capture_output=True)
    return root
