"""The programs of examples/, which run and end as mivo does, and other things that their tests need.

MIVO_EXAMPLES names the folder of the examples. MIVO_BUILD names the folder of the tests' own programs, which contains
the examples with sanitizers. If slow_job was built with the thread sanitizer, the tests run that program, too.
"""

import os
import pathlib
import subprocess

import pytest

from clients import ENVIRONMENT
from mivo_process import REPOSITORY
from node_packages import node_packages
from upstreams import HERE

EXAMPLES = pathlib.Path(os.environ.get("MIVO_EXAMPLES", REPOSITORY / "build/release/examples"))
BUILD = pathlib.Path(os.environ.get("MIVO_BUILD", REPOSITORY / "build/asan"))  # the tests' own programs


def expect_built(path):
    """Checks that a program of the release is there, and otherwise says how to make it."""
    assert path.exists(), f"{path} is not built: cmake --build --preset release --target {path.name}"


def example(name):
    expect_built(EXAMPLES / name)
    return str(EXAMPLES / name)


def builds(name):
    """The programs of an example, by the names of their builds: as users build it, and with sanitizers."""
    folders = {"release": EXAMPLES, "sanitized": BUILD / "examples", "threads": REPOSITORY / "build/tsan/examples"}
    found = {build: str(folder / name) for build, folder in folders.items() if (folder / name).exists()}
    if not found:
        expect_built(EXAMPLES / name)
    return found


def every_build(name):
    """A fixture `program`: each test of a file runs with every build of an example."""
    found = builds(name)

    @pytest.fixture(params=found)
    def program(request):
        return found[request.param]

    return program


def node_environment():
    """The environment in which Node finds the packages of the tests."""
    return {**ENVIRONMENT, "NODE_PATH": str(node_packages(HERE / "node"))}


def run_node(script, *arguments):
    """Runs a script that uses the packages and returns what it printed."""
    done = subprocess.run(["node", HERE / script, *arguments], env=node_environment(), check=True,
                          stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, timeout=60)
    return done.stdout.decode()
