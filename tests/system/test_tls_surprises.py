"""Behaviour of the certificate file that is intended and nevertheless surprises."""

import os
import pathlib
import shutil
import socket
import stat

import pytest

from fake_clock import clock, clock_library  # noqa: F401
from mivo_process import PROGRAM
from test_tls_reload import INTERVAL, Renewal, pass_some_turns, reloads, wait_for_reload
from wire import until

pytest_plugins = ["tls_service"]

DAY = 86400  # seconds
NOBODY = "65534"


@pytest.fixture
def program(folder, clock, clock_library):
    """Like the program of fake_clock, but run as a user who may not read every file."""
    # Copies, because that user may not be able to enter the folders of the originals, for example /root.
    library = shutil.copy(clock_library, folder)
    own_program = shutil.copy(PROGRAM, folder)
    os.chmod(folder, 0o755)
    drop = f"setpriv --reuid={NOBODY} --regid={NOBODY} --clear-groups" if os.getuid() == 0 else ""
    script = pathlib.Path(folder, "mivo_with_clock")
    script.write_text(f'#!/bin/sh\nexec {drop} env LD_PRELOAD="$LD_PRELOAD:{library}" MIVO_CLOCK={clock.path} '
                      f'{own_program} "$@"\n')
    script.chmod(0o755)
    return str(script)


@pytest.fixture
def renewal(authorities, folder):
    """A certificate file and a key that every user may read."""
    made = Renewal(authorities["ecdsa"], folder)
    made.first.key = pathlib.Path(shutil.copy(made.first.key, folder))
    made.first.key.chmod(0o644)
    return made


@pytest.fixture
def serve(serve_tls, renewal):
    return lambda: serve_tls({"echo": -1}, certificate=renewal.first, crt=renewal.path)


def look_again(clock):
    clock.advance(INTERVAL + 1)
    pass_some_turns()


def test_file_that_gets_its_permission_later__is_not_loaded_until_it_is_touched(serve, renewal, clock):
    service = serve()
    assert service.serial() == renewal.first.serial
    mask = os.umask(0o777)
    try:
        renewal.install(renewal.second)
    finally:
        os.umask(mask)
    assert stat.S_IMODE(renewal.path.stat().st_mode) == 0
    clock.advance(INTERVAL + 1)
    wait_for_reload(service)
    renewal.path.chmod(0o644)
    for _ in range(3):
        look_again(clock)
    assert service.serial() == renewal.first.serial and len(reloads(service)) == 1
    os.utime(renewal.path, (renewal.time + 1, renewal.time + 1))
    clock.advance(INTERVAL + 1)
    wait_for_reload(service, 2)
    assert service.serial() == renewal.second.serial


def test_fifo_in_the_place_of_the_file__nobody_is_served_until_somebody_writes_to_it(serve, renewal, clock):
    service = serve()
    assert is_served(service)
    renewal.path.unlink()
    os.mkfifo(renewal.path)
    renewal.path.chmod(0o644)
    later = renewal.time + 10
    os.utime(renewal.path, (later, later))
    clock.advance(INTERVAL + 1)
    wait_for_reload(service)
    assert not is_served(service)
    until(lambda: write_nothing(renewal.path) and is_served(service), "mivo goes on")


def is_served(service):
    """Returns whether a new client soon finishes its handshake."""
    client = service.connect()
    client.sock.settimeout(1)
    try:
        service.context().wrap_socket(client.sock, server_hostname="localhost").close()
        return True
    except socket.timeout:  # TimeoutError, but not before Python 3.10
        client.close()
        return False


def write_nothing(path):
    """Opens the fifo for writing, and closes it. Returns whether a process is reading the fifo."""
    try:
        os.close(os.open(path, os.O_WRONLY | os.O_NONBLOCK))
    except OSError:  # no process reads the fifo any more
        pass
    return True


def test_clock_was_a_day_ahead_at_the_start__file_is_not_checked_for_a_day(serve, renewal, clock):
    clock.advance(DAY)
    service = serve()
    clock.advance(-DAY)
    renewal.install(renewal.second)
    for _ in range(3):
        look_again(clock)
    assert service.serial() == renewal.first.serial and not reloads(service)
    clock.advance(DAY)
    wait_for_reload(service)
    assert service.serial() == renewal.second.serial
