"""Clients that leave as soon as their handshake is done, as scanners and health checks do. mivo ends them at once and
prints nothing about them."""

import contextlib
import ssl
import subprocess

import pytest

from tls_service import Handshake
from wire import request, until

pytest_plugins = ["tls_service"]

AT_ONCE = 3  # seconds; far below the time after which idle clients end
TIMED_OUT = r"\d+ has timed out\."
PAGE = request("echo")


@pytest.fixture
def service(serve_tls):
    return serve_tls({"echo": -1})


def context(service, version):
    only = service.context()
    only.minimum_version = only.maximum_version = version
    return only


def say_goodbye(client):
    with contextlib.suppress(ssl.SSLError):  # mivo sends no close notification, and there may be unread bytes
        client.tls.unwrap()
    client.wire.send(client.sent.read())


def goodbye_and_close(client):
    say_goodbye(client)
    client.wire.close()


def goodbye_and_reset(client):
    say_goodbye(client)
    client.wire.reset()


LEAVES = {
    "close": lambda client: client.wire.close(),
    "half_close": lambda client: client.wire.half_close(),
    "reset": lambda client: client.wire.reset(),
    "goodbye": say_goodbye,
    "goodbye_and_close": goodbye_and_close,
    "goodbye_and_reset": goodbye_and_reset,
}


def expect_silent_end(service):
    until(lambda: service.mivo.descriptors() == service.mivo.idle_descriptors, "the session has ended", AT_ONCE)
    assert service.mivo.lines(TIMED_OUT) == []


# The client reads what the server sends after the handshake, or it does not. If it leaves these bytes unread, the
# system turns the close into a reset.
@pytest.mark.parametrize("reads_all", [True, False], ids=["all_read", "something_unread"])
@pytest.mark.parametrize("leave", list(LEAVES))
@pytest.mark.parametrize("version", [ssl.TLSVersion.TLSv1_2, ssl.TLSVersion.TLSv1_3],
                         ids=lambda version: version.name)
def test_client_leaves_after_its_handshake__ends_at_once_and_silently(service, version, leave, reads_all):
    for _ in range(3):
        client = Handshake(service, context(service, version))
        client.finish()
        if reads_all:
            client.wire.send(client.encrypt(PAGE))
            client.read(len(PAGE))
        client.wire.wait_delivered()
        LEAVES[leave](client)
        expect_silent_end(service)


@pytest.mark.parametrize("version", ["-tls1_2", "-tls1_3"])
def test_health_check_of_openssl__ends_at_once_and_silently(service, version):
    for _ in range(3):
        subprocess.run(["openssl", "s_client", "-connect", f"127.0.0.1:{service.port}", version],
                       stdin=subprocess.DEVNULL, capture_output=True, check=True, timeout=15)
        expect_silent_end(service)
