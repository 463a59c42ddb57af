"""The system's clock is set while mivo runs. mivo counts idle times by that clock."""

import pytest

from fake_clock import clock, clock_library, program  # noqa: F401
from wire import reply, request

DAY = 86400  # seconds
YEAR = 365 * DAY
TIMED_OUT = r"\d+ has timed out\."


@pytest.fixture
def mivo(start_mivo, upstream):
    return start_mivo({"echo": -1, "up": upstream.port})


class Scene:
    """A client without an upstream, and a client that waits for its response."""

    def __init__(self, mivo, connect, upstream):
        self.connect = lambda: connect(mivo.port)
        self.idle = self.connect()
        self.idle.ask(request("echo"))
        self.waiting = self.connect()
        self.waiting.send(request("up"))
        self.wire = upstream.accept()
        self.wire.read_head()

    def expect_late_reply(self):
        self.wire.send(reply(b"late"))
        assert self.waiting.read_reply()[1] == b"late"

    def leave(self):
        self.idle.close()
        self.waiting.close()
        self.wire.wait_closed()


@pytest.fixture
def scene(calm, mivo, connect, upstream):
    return Scene(mivo, connect, upstream)


# With 20 years, the seconds since 1970 no longer fit in 31 bits.
@pytest.mark.parametrize("ahead", [DAY, 20 * YEAR])
def test_clock_set_forward__ends_idle_clients_at_once_and_no_others(scene, calm, mivo, clock, ahead):
    clock.advance(ahead)
    assert scene.idle.read_to_end() == b""
    scene.expect_late_reply()
    newcomer = scene.connect()
    newcomer.ask(request("echo"))
    assert len(mivo.lines(TIMED_OUT)) == 1
    clock.advance(11)
    assert newcomer.read_to_end() == b""
    scene.leave()
    calm.expect_again()


@pytest.mark.parametrize("back", [60, 20 * YEAR])
def test_clock_set_back__ends_no_client_and_new_clients_time_out_as_usual(scene, calm, mivo, clock, back):
    clock.advance(-back)
    assert scene.idle.ask(request("echo", "/back")).startswith(b"GET /back ")
    scene.expect_late_reply()
    newcomer = scene.connect()
    newcomer.ask(request("echo"))
    assert not mivo.lines(TIMED_OUT)
    clock.advance(11)
    assert newcomer.read_to_end() == scene.idle.read_to_end() == b""
    scene.leave()
    calm.expect_again()


def test_clock_goes_forward_and_back_all_the_time__every_request_is_served(calm, mivo, connect, clock, upstream):
    client = connect(mivo.port)
    client.send(request("up"))
    wire = upstream.accept()
    for number in range(60):
        wire.read_head()
        clock.advance([3600, -7200, YEAR, -YEAR, 3600][number % 5])
        wire.send(reply(b"%d" % number))
        assert client.read_reply()[1] == b"%d" % number
        client.send(request("up"))
    client.close()
    wire.wait_closed()
    calm.expect_again()
