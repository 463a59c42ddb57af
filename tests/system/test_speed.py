"""Speed: limits far above the usual figures, and ratios measured within one run. No client waits for a time-out.

A busy machine delays some answers, or even most. Therefore waiting is measured by the quickest tenth of many answers:
a cause that makes every answer wait makes the quickest ones wait, too. Cost is measured in processor time. bench/run
measures the rest.
"""

import os
import re
import time

import pytest

from clients import Download, curl
from mivo_process import processor_seconds
from wire import request

MIB = 1 << 20
GIB = 1 << 30

# A delayed acknowledgement takes 40 ms; a request takes less than 1 ms.
LATENCY_LIMIT = 0.020  # seconds
SELECT_WAIT = 0.100  # seconds that a turn waits at most
ROUNDS = 200


def quickest_tenth(seconds):
    """The time that the quickest tenth did not exceed. If there are fewer than ten times, the shortest."""
    return sorted(seconds)[len(seconds) // 10]


def test_relaying_a_download_of_1_gib__takes_less_than_twice_the_processor_time_of_the_download(
        start_mivo, nginx, site):
    mivo = start_mivo({"nginx": nginx.port})
    with open(site.folder / "large", "wb") as large:
        large.truncate(GIB)

    def download(port):
        """The processor time of nginx and curl, and that of mivo."""
        before = os.times()
        at_start = processor_seconds(nginx.process.pid), processor_seconds(mivo.pid)
        curl("--output", "/dev/null", "--header", "Host: nginx", f"http://127.0.0.1:{port}/large")
        after = os.times()
        of_curl = after.children_user + after.children_system - before.children_user - before.children_system
        return (processor_seconds(nginx.process.pid) - at_start[0] + of_curl,
                processor_seconds(mivo.pid) - at_start[1])

    download(nginx.port)  # from now on the file is in memory
    direct, _ = download(nginx.port)
    _, relaying = download(mivo.port)
    assert relaying < 2 * direct, (relaying, direct)


def seconds_to_ask(wire, sent, answer):
    start = time.monotonic()
    wire.send(sent)
    assert wire.read_reply()[1] == answer
    return time.monotonic() - start


def expect_no_waits(direct, relayed, sent, answer):
    """Sends requests directly and through mivo in turn. The relayed requests take a small multiple of the time of
    the direct ones. This time is also far below any time-out."""
    seconds = [(seconds_to_ask(direct, sent, answer), seconds_to_ask(relayed, sent, answer))
               for _ in range(ROUNDS)]
    of_direct, of_relayed = map(quickest_tenth, zip(*seconds))
    assert of_relayed < LATENCY_LIMIT
    assert of_relayed < max(10 * of_direct, 0.002)


@pytest.fixture
def relay(start_mivo, node):
    return start_mivo({"node": node.port})


def test_small_replies_on_a_kept_connection__do_not_wait(relay, node, connect):
    expect_no_waits(connect(node.port), connect(relay.port), request("node", "/small"), b"hello, world\n")


def test_small_uploads_on_a_kept_connection__do_not_wait(relay, node, connect):
    expect_no_waits(connect(node.port), connect(relay.port),
                    request("node", "/echo", "POST", body=b"x" * 100), b"x" * 100)


class Stage:
    """A mivo with a scripted upstream."""

    def __init__(self, start_mivo, listen, connect):
        self.upstream = listen()
        self.mivo = start_mivo({"up": self.upstream.port})
        self.connect = lambda: connect(self.mivo.port)

    def accepted_client(self):
        client = self.connect()
        assert client.ask(request("nobody")) == b""
        return client

    def upstream_for(self, client):
        """Makes a client begin an upload, and returns the upstream connection that mivo opens for it."""
        client.send(request("up", "/", "POST", ["Content-Length: 1000000"]))
        upstream = self.upstream.accept()
        upstream.read_head()
        return upstream

    def seconds_from_one_turn_on(self, events, outcome):
        """Makes some events fall into one turn, and returns the seconds from that turn to the outcome."""
        with self.mivo.stopped():
            for event in events:
                event()
        start = time.monotonic()
        outcome()
        return time.monotonic() - start


@pytest.fixture
def stage(start_mivo, listen, connect):
    return Stage(start_mivo, listen, connect)


def expect_no_wait(measure, rounds=ROUNDS):
    assert quickest_tenth([measure() for _ in range(rounds)]) < LATENCY_LIMIT


def test_pieces_in_both_directions__do_not_wait_for_acknowledgements(stage):
    client = stage.accepted_client()
    upstream = stage.upstream_for(client)

    def seconds():
        start = time.monotonic()
        for sender, receiver in ((client, upstream), (upstream, client)):
            for piece in (b"one", b"two", b"six"):
                sender.send(piece)
                assert receiver.read(3) == piece
        return time.monotonic() - start
    expect_no_wait(seconds)


# When a connection ends, the turn passes over the next connection in the list. In these tests a client
# leaves, and then its upstream connection ends.


def test_reply_in_the_turn_that_ends_the_connection_before_it_in_the_list__does_not_wait(stage):
    def seconds():
        ending = stage.accepted_client()
        stage.upstream_for(ending)
        client = stage.accepted_client()
        upstream = stage.upstream_for(client)
        return stage.seconds_from_one_turn_on(
            [ending.close, lambda: upstream.send(b"reply")], lambda: client.read(5))
    expect_no_wait(seconds, 10)


def test_upload_in_the_turn_that_ends_the_connection_before_it_in_the_list__does_not_wait(stage):
    def seconds():
        # The client comes first in the list. Otherwise the turn would pass over it and only read it in the next turn.
        client, ending = stage.accepted_client(), stage.accepted_client()
        stage.upstream_for(ending)
        upstream = stage.upstream_for(client)
        return stage.seconds_from_one_turn_on(
            [ending.close, lambda: client.send(b"piece")], lambda: upstream.read(5))
    expect_no_wait(seconds, 10)


@pytest.mark.parametrize("target", ["/echo_of_mivo", "/unknown"])
def test_own_answers_on_a_kept_connection__do_not_wait(start_mivo, connect, target):
    mivo = start_mivo({"echo": -1})
    client = connect(mivo.port)
    sent = request("echo" if target == "/echo_of_mivo" else "unknown", target)
    answer = client.ask(sent)
    expect_no_wait(lambda: seconds_to_ask(client, sent, answer))


def expect_all_answered(output, count):
    """Checks in the output of ab that no request was lost."""
    assert re.search(rf"^Complete requests: +{count}$", output, re.M), output
    assert re.search(r"^Failed requests: +0$", output, re.M), output
    assert "Non-2xx" not in output


def start_ab(port, host, target, count, parallel, *options):
    command = ["ab", "-n", str(count), "-c", str(parallel), "-H", f"Host: {host}", *options,
               f"http://127.0.0.1:{port}{target}"]
    return Download("", [], command, None)


@pytest.fixture
def mixed(start_mivo, node, nginx, site):
    """A mivo in front of Node and nginx; below /closing/ nginx closes after each response."""
    mivo = start_mivo({"node": node.port, "nginx": nginx.port})
    mivo.small_file = next(name for name in site.names if 500 < len(site.read(name)) < 5000)
    return mivo


@pytest.mark.parametrize("options", [[], ["-k"]])
def test_5000_requests_of_ab_to_an_upstream_that_closes_after_each__all_are_answered(mixed, nginx, options):
    def median_ms(port, count):
        output = start_ab(port, "nginx", f"/closing/{mixed.small_file}", count, 20, *options).finish()
        expect_all_answered(output, count)
        return int(re.search(r"^ +50% +(\d+)$", output, re.M)[1])
    direct_ms = median_ms(nginx.port, 1000)
    assert median_ms(mixed.port, 5000) < max(SELECT_WAIT * 1000, 20 * direct_ms)


def test_kept_connection_while_others_end_all_the_time__does_not_wait(mixed, connect):
    client, sent = connect(mixed.port), request("node", "/small")
    ab = start_ab(mixed.port, "nginx", f"/closing/{mixed.small_file}", 5000, 10)
    seconds = []
    while ab.process.poll() is None:
        seconds.append(seconds_to_ask(client, sent, b"hello, world\n"))
    expect_all_answered(ab.finish(), 5000)
    assert quickest_tenth(seconds) < SELECT_WAIT / 2


def test_ab_with_200_clients__all_requests_are_answered(mixed):
    ab = start_ab(mixed.port, "nginx", f"/{mixed.small_file}", 4000, 200, "-k")
    expect_all_answered(ab.finish(), 4000)


def test_processor_time_after_load__is_next_to_nothing(relay, connect):
    clients = [connect(relay.port) for _ in range(20)]
    for _ in range(20):
        for client in clients:
            client.send(request("node", "/small"))
        for client in clients:
            assert client.read_reply()[1] == b"hello, world\n"
    clients[0].send(request("node", f"/repeat/{64 * MIB}"))
    assert len(clients[0].read_reply()[1]) == 64 * MIB
    relay.expect_idle()
