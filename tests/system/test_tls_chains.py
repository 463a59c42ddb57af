"""Clients see the intermediate certificates of the file that is loaded, and none of an earlier file."""

import os
import subprocess

import pytest

from certificates import pem_blocks
from fake_clock import clock, clock_library, program  # noqa: F401
from test_tls_reload import INTERVAL, Renewal, wait_for_reload

pytest_plugins = ["tls_service"]


@pytest.fixture
def renewal(authorities, folder):
    return Renewal(authorities["ecdsa"], folder)


@pytest.fixture
def service(serve_tls, renewal):
    return serve_tls({"echo": -1}, certificate=renewal.first, crt=renewal.path)


def shown(service):
    """The certificates that a new client gets, as PEM."""
    told = subprocess.run(["openssl", "s_client", "-connect", f"127.0.0.1:{service.port}", "-showcerts"],
                          stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                          timeout=15, check=False).stdout.decode()
    return pem_blocks(told.partition("Server certificate")[0])


def put(renewal, make):
    """Puts something newer in the place of the file."""
    new = renewal.path.with_suffix(".new")
    make(new)
    renewal.time += 10
    os.utime(new, (renewal.time, renewal.time))
    if new.is_dir():
        renewal.path.unlink()
    elif renewal.path.is_dir():
        renewal.path.rmdir()
    new.rename(renewal.path)


BROKEN = {
    "empty": lambda path: path.write_text(""),
    "no_certificate": lambda path: path.write_text("under construction\n"),
    "folder": lambda path: path.mkdir(),
}


@pytest.mark.parametrize("broken", list(BROKEN))
def test_chain_then_a_broken_file_then_one_certificate__that_alone_is_shown(service, renewal, clock, broken):
    assert shown(service) == renewal.first.chain()
    put(renewal, BROKEN[broken])
    clock.advance(INTERVAL + 1)
    wait_for_reload(service, 1)
    alone = renewal.second.chain()[0]
    put(renewal, lambda path: path.write_text(alone + "\n"))
    clock.advance(INTERVAL + 1)
    wait_for_reload(service, 2)
    assert shown(service) == [alone]


def test_chain_then_a_broken_file_then_another_chain__the_new_one_is_shown(service, renewal, clock):
    put(renewal, BROKEN["empty"])
    clock.advance(INTERVAL + 1)
    wait_for_reload(service, 1)
    renewal.install(renewal.second)
    clock.advance(INTERVAL + 1)
    wait_for_reload(service, 2)
    assert shown(service) == renewal.second.chain()
