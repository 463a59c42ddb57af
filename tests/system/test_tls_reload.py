"""mivo looks at the certificate file once a minute. The test sets the clock."""

import os
import pathlib
import shutil
import ssl
import subprocess
import threading
import time

import pytest

from fake_clock import STEP, clock, clock_library, program  # noqa: F401
from wire import request, until

pytest_plugins = ["tls_service"]

HELLO = b"hello, world\n"
RELOADING = "Reloading certificate..."
INTERVAL = 60  # seconds between two checks of the file
SOME_TURNS = 0.4  # seconds; a turn in which nothing is ready takes 0.1


class Renewal:
    """A certificate file that is replaced, and the certificates that it may hold. All certificates have one key."""

    def __init__(self, authority, folder):
        self.first = authority.issue("first")
        self.second = authority.issue("second", key=self.first.key)
        self.path = pathlib.Path(folder, "served.pem")
        self.time = int(time.time()) - 1000
        self.install(self.first)

    def install(self, certificate, later=10):
        """Replaces the file in one step, as a renewal does. `later`: by how many seconds the file becomes newer."""
        self.time += later
        new = self.path.with_suffix(".new")
        shutil.copyfile(certificate.crt, new)
        os.utime(new, (self.time, self.time))
        new.rename(self.path)


@pytest.fixture
def renewal(authorities, folder):
    return Renewal(authorities["ecdsa"], folder)


@pytest.fixture
def service(serve_tls, node, renewal):
    return serve_tls({"node": node.port}, certificate=renewal.first, crt=renewal.path)


def reloads(service):
    return service.mivo.lines(RELOADING)


def wait_for_reload(service, count=1):
    until(lambda: len(reloads(service)) == count, "the certificate is loaded again")


def pass_some_turns():
    time.sleep(SOME_TURNS)


class Load:
    """Clients that send requests in bursts, each over a connection that stays and over new connections.

    Between the bursts they pause for longer than a turn waits, because mivo only checks the file in a turn in which
    no socket is ready."""

    CLIENTS, BURST, PAUSE = 6, 10, 0.25

    def __init__(self, service):
        self.service = service
        self.kept = [service.handshake() for _ in range(self.CLIENTS)]
        self.failures, self.served, self.stop = [], 0, False
        self.together = threading.Barrier(self.CLIENTS)
        self.threads = [threading.Thread(target=self._ask, args=[wire], daemon=True) for wire in self.kept]
        for thread in self.threads:
            thread.start()

    def _ask(self, kept):
        sent = request("node", "/small")
        while True:
            try:
                for _ in range(self.BURST):
                    assert kept.ask(sent) == HELLO
                fresh = self.service.handshake()
                assert fresh.ask(sent) == HELLO
                fresh.close()
                self.served += 1
            except (AssertionError, OSError) as error:
                self.failures.append(repr(error))
                self.stop = True
            time.sleep(self.PAUSE)
            self.together.wait(15)
            stop = self.stop
            self.together.wait(15)
            if stop:
                return

    def finish(self):
        self.stop = True
        for thread in self.threads:
            thread.join(30)
        assert self.failures == []
        return self.served


def test_certificate_is_replaced_under_load__no_request_fails_and_new_clients_see_the_new_one(
        service, renewal, clock):
    assert service.serial() == renewal.first.serial
    load = Load(service)
    until(lambda: load.served >= Load.CLIENTS, "the first requests")
    renewal.install(renewal.second)
    clock.advance_in_steps(INTERVAL + STEP)
    wait_for_reload(service)
    served = load.served
    until(lambda: load.served >= served + 2 * Load.CLIENTS, "requests after the certificate was loaded")
    load.finish()
    assert service.serial() == renewal.second.serial
    assert len(reloads(service)) == 1


def test_certificate_is_replaced_every_second_under_load__no_request_fails_and_nothing_stays(
        service, renewal, clock):
    service.mivo.wait_until_idle()
    load = Load(service)
    installed = 0
    start = time.monotonic()
    while installed < 6:
        if time.monotonic() - start > installed:
            renewal.install([renewal.second, renewal.first][installed % 2])
            installed += 1
        clock.advance_in_steps(STEP)  # a minute of mivo's clock in little more than a second of the real one
    clock.advance_in_steps(INTERVAL + STEP)
    until(lambda: service.serial() == renewal.first.serial, "the last certificate is shown")
    assert load.finish() > Load.CLIENTS * installed
    assert len(reloads(service)) >= installed // 2
    for wire in load.kept:
        wire.close()
    service.mivo.wait_until_idle()
    service.mivo.expect_idle()
    assert service.handshake().ask(request("node", "/small")) == HELLO


def test_second_change_within_a_minute__is_seen_at_the_next_look(service, renewal, clock):
    renewal.install(renewal.second)
    clock.advance(INTERVAL // 2)
    pass_some_turns()
    assert service.serial() == renewal.first.serial and not reloads(service)
    clock.advance(INTERVAL // 2 + 1)
    wait_for_reload(service)
    assert service.serial() == renewal.second.serial
    renewal.install(renewal.first)
    clock.advance(INTERVAL - 10)
    pass_some_turns()
    assert service.serial() == renewal.second.serial and len(reloads(service)) == 1
    clock.advance(11)
    wait_for_reload(service, 2)
    assert service.serial() == renewal.first.serial


@pytest.mark.parametrize("later", [0, -5])
def test_file_that_is_not_newer__is_not_loaded(service, renewal, clock, later):
    renewal.install(renewal.second, later)
    clock.advance(INTERVAL + 1)
    pass_some_turns()
    assert service.serial() == renewal.first.serial and not reloads(service)


def test_file_that_goes_and_comes_back__is_loaded_only_when_it_is_newer(service, renewal, clock):
    renewal.path.unlink()
    clock.advance(INTERVAL + 1)
    pass_some_turns()
    assert service.serial() == renewal.first.serial and not reloads(service)
    renewal.install(renewal.second)
    clock.advance(INTERVAL + 1)
    wait_for_reload(service)
    assert service.serial() == renewal.second.serial


def test_certificate_for_another_key__clients_fail_from_then_on(service, renewal, clock, authorities):
    """OpenSSL drops a key that does not match, so the right certificate alone does not help afterwards."""
    renewal.install(authorities["ecdsa"].issue("other"))
    for count, certificate in [(1, renewal.second), (2, renewal.first)]:
        clock.advance(INTERVAL + 1)
        wait_for_reload(service, count)
        with pytest.raises((ssl.SSLError, ConnectionError)):
            service.serial()
        renewal.install(certificate)


def test_certificate_is_loaded_again__its_chain_is_shown_once(service, renewal, clock):
    renewal.install(renewal.second)
    clock.advance(INTERVAL + 1)
    wait_for_reload(service)
    told = subprocess.run(["openssl", "s_client", "-connect", f"127.0.0.1:{service.port}", "-showcerts"],
                          stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, check=True).stdout.decode()
    shown = told.partition("Server certificate")[0]
    assert shown.count("-----BEGIN CERTIFICATE-----") == 2
    assert all(block in shown for block in renewal.second.chain())


def test_file_that_is_missing_at_the_start__is_loaded_silently_when_it_is_there(
        serve_tls, node, renewal, clock):
    renewal.path.unlink()
    service = serve_tls({"node": node.port}, certificate=renewal.first, crt=renewal.path)
    with pytest.raises((ssl.SSLError, ConnectionError)):
        service.handshake()
    renewal.install(renewal.first)
    clock.advance(INTERVAL + 1)
    pass_some_turns()
    assert service.serial() == renewal.first.serial and not reloads(service)


def test_path_with_needless_parts__is_found_again(serve_tls, node, renewal, clock):
    roundabout = f"{renewal.path.parent}//.///./{renewal.path.name}"
    service = serve_tls({"node": node.port}, certificate=renewal.first, crt=roundabout)
    renewal.install(renewal.second)
    clock.advance(INTERVAL + 1)
    wait_for_reload(service)
    assert service.serial() == renewal.second.serial
