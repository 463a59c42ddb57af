"""The programs of examples/, which run and end as mivo does, and what their tests need besides.

MIVO_EXAMPLES names their folder, MIVO_BUILD that of the programs of the tests, among which there are the examples
with the sanitizers; where slow_job was built with the thread sanitizer, that runs as well.
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


def example(name):
    return str(EXAMPLES / name)


def builds(name):
    """The programs of an example, by the names of the builds: as users build it, and with the sanitizers."""
    folders = {"release": EXAMPLES, "sanitized": BUILD / "examples", "threads": REPOSITORY / "build/tsan/examples"}
    found = {build: str(folder / name) for build, folder in folders.items() if (folder / name).exists()}
    assert found, f"{name} is not built"
    return found


def every_build(name):
    """A fixture `program`, which has each test of a file run every build of an example."""
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
