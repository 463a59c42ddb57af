"""Fixtures. They close whatever a test opened, and end the processes that it started, by their ids."""

import tempfile

import pytest

from calm import Calm
from mivo_process import PROGRAM, Mivo, ReservedPort
from upstreams import Nginx, NodeUpstream, PythonSite, Site
from wire import Listener, Wire


@pytest.fixture
def folder():
    with tempfile.TemporaryDirectory(prefix="mivo_test_") as path:
        yield path


@pytest.fixture(scope="session")
def site():
    with tempfile.TemporaryDirectory(prefix="mivo_site_") as path:
        yield Site(path)


@pytest.fixture
def program():
    """The program to run. A test may be parametrized with other programs."""
    return PROGRAM


@pytest.fixture
def run_mivo(folder, program):
    """run_mivo(arguments...): starts mivo with exactly these arguments and does not wait for anything."""
    started = []

    def run(*arguments, **options):
        started.append(Mivo(folder, arguments, program=program, **options))
        return started[-1]

    yield run
    for mivo in started:
        mivo.kill()


@pytest.fixture
def start_mivo(request, folder, program):
    """start_mivo({host: port}): a mivo that serves. After the test, when the clients are gone, mivo has to close
    every connection, and SIGINT has to end it in good order."""
    started = []

    def start(hosts=None, **options):
        started.append(Mivo.serve(folder, hosts, program=program, **options))
        return started[-1]

    yield start
    try:
        for mivo in started:
            if mivo.is_running():
                mivo.wait_until_idle()
                mivo.interrupt()
            mivo.expect_good_end()  # even of those that have ended; otherwise a crash would go unnoticed
    finally:
        for mivo in started:
            mivo.kill()


def closing_after_the_test(make):
    """A factory. At the end of the test it closes everything that it has made, the oldest first."""
    made = []

    def make_and_keep(*arguments, **options):
        made.append(make(*arguments, **options))
        return made[-1]

    yield make_and_keep
    for product in made:
        product.close()


# The clients and upstreams of a test end before its mivo is checked, because these fixtures ask for
# start_mivo first.


@pytest.fixture
def connect(start_mivo):
    """connect(port): a client connection."""
    yield from closing_after_the_test(Wire.connect)


@pytest.fixture
def listen(start_mivo):
    """listen(): a scripted upstream."""
    yield from closing_after_the_test(Listener)


@pytest.fixture
def upstream(listen):
    """A scripted upstream, for the tests that need one."""
    return listen()


@pytest.fixture
def calm(mivo, connect):
    """The Calm of the module's `mivo`, which maps `echo` to the echo page."""
    return Calm(mivo, connect)


@pytest.fixture
def refusing_port():
    """A port at which nobody listens as long as the test runs."""
    reserved = ReservedPort("127.0.0.1")
    yield reserved.port
    reserved.close()


@pytest.fixture
def python_site(start_mivo, site):
    yield from closed_at_the_end(PythonSite(site.folder))


@pytest.fixture
def nginx(start_mivo, site, folder):
    yield from closed_at_the_end(Nginx(site.folder, folder))


@pytest.fixture(scope="session")
def node_for_all(site):
    yield from closed_at_the_end(NodeUpstream(site))


@pytest.fixture
def node(node_for_all):
    """One Node process for all tests of a file, because most tests take less time than its start. It still runs when
    mivo is checked, so mivo has to close its connections to it when the clients leave."""
    node_for_all.count_anew()
    return node_for_all


@pytest.fixture
def own_node(start_mivo, site):
    """A separate Node process, for a test that has its own network or that ends its upstream."""
    yield from closed_at_the_end(NodeUpstream(site))


def closed_at_the_end(upstream):
    try:
        yield upstream
    finally:
        upstream.close()
