"""A proxy in front of mivo shares its connections among its clients. Each client still gets the answers to its own
requests."""

import subprocess

import pytest

from fronts import BufferingNginxFront, Crowd, HAProxy, NginxFront
from upstreams import HERE, end

BODIES = ("none", "length", "chunks")
RELAYED = [(body, host) for body in BODIES for host in ("a", "b")]
ANSWERED_HERE = [("none", "unknown"), ("none", "echo")]
FRONTS = [HAProxy, NginxFront, BufferingNginxFront]
ANSWERED_IN_FRONT = [(body, "unknown") for body in BODIES]


@pytest.fixture
def hosts(start_mivo):
    """Two upstreams and the echo page."""
    processes = [subprocess.Popen(["node", HERE / "own_answers.js", name], stdin=subprocess.DEVNULL,
                                  stdout=subprocess.PIPE) for name in ("a", "b")]
    try:
        yield {"a": int(processes[0].stdout.readline()), "b": int(processes[1].stdout.readline()), "echo": -1}
    finally:
        for process in processes:
            end(process)
            process.stdout.close()


def expect_own_answers(front, mivo, kinds):
    try:
        crowd = Crowd(front.port, kinds, clients=8, requests=125)
    finally:
        front.close()
    assert (crowd.own, crowd.wrong) == (1000, [])
    # mivo saw each request that was passed on once, and the clients shared the connections.
    lines = mivo.requests()
    assert 500 < len(lines) <= 1000
    assert len({line.split()[1] for line in lines}) <= 8


@pytest.mark.parametrize("front_class", FRONTS)
def test_thousand_requests_of_eight_clients__each_gets_its_own_answer(start_mivo, hosts, folder, front_class):
    mivo = start_mivo(hosts)
    expect_own_answers(front_class(folder, mivo.port), mivo, RELAYED + ANSWERED_IN_FRONT)


@pytest.mark.parametrize("front_class", FRONTS)
def test_requests_without_a_body_are_answered_by_mivo__each_gets_its_own_answer(
        start_mivo, hosts, folder, front_class):
    mivo = start_mivo(hosts)
    expect_own_answers(front_class(folder, mivo.port, is_open=True), mivo, RELAYED + ANSWERED_HERE)
