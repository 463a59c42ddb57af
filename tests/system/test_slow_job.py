"""slow_job: threads work while the loop serves other clients. A thread ends when the client that asked leaves."""

import contextlib
import os
import pathlib
import resource

import pytest

from example_process import every_build
from mivo_process import processor_seconds
from websocket_frames import REFUSED, handshake
from wire import Wire, request, until

HEAD = b"HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nTransfer-Encoding: chunked\r\n\r\n"
ENDLESS = "/1000000000000"
MAX_JOBS = 16


def answer(primes):
    return HEAD + b"%X\r\n%s\r\n0\r\n\r\n" % (len(primes), primes)


program = every_build("slow_job")


def threads(jobs):
    return len(os.listdir(f"/proc/{jobs.pid}/task"))


@pytest.fixture
def jobs(start_mivo):
    started = start_mivo()
    # The thread sanitizer starts a thread of its own together with the program's first thread.
    wire = Wire.connect(started.port)
    wire.send(request("jobs", "/1"))
    wire.read(len(answer(b"0")))
    wire.close()
    started.idle_threads = threads(started)
    return started


def workers(jobs):
    return threads(jobs) - jobs.idle_threads


def wait_for_workers(jobs, count):
    until(lambda: workers(jobs) == count, f"{count} workers")


@pytest.mark.parametrize("below, primes", [("1", b"0"), ("3", b"1"), ("1000", b"168"), ("1000000", b"78498")])
def test_number__is_answered_with_the_primes_below_it(jobs, connect, below, primes):
    wire = connect(jobs.port)
    for _ in range(2):
        wire.send(request("jobs", "/" + below))
        assert wire.read(len(answer(primes))) == answer(primes)


@pytest.mark.parametrize("target, method", [("/", "GET"), ("/abc", "GET"), ("/0", "GET"), ("/-5", "GET"),
                                            ("/1000", "POST")])
def test_no_number__is_a_bad_request(jobs, connect, target, method):
    wire = connect(jobs.port)
    wire.send(request("jobs", target, method))
    head, body = wire.read_reply()
    assert head.startswith(b"HTTP/1.1 400 Bad Request\r\n")
    assert body == b"Ask for a number: GET /1000000\n"


@pytest.mark.parametrize("leave", ["close", "reset"])
def test_client_leaves_early__work_ends(jobs, connect, leave):
    wires = [connect(jobs.port) for _ in range(2)]
    for wire in wires:
        wire.send(request("jobs", ENDLESS))
    wait_for_workers(jobs, 2)  # two jobs at once
    other = connect(jobs.port)
    other.send(request("jobs", "/1000"))  # others are served meanwhile
    assert other.read(len(answer(b"168"))) == answer(b"168")
    for wire in wires:
        getattr(wire, leave)()
    wait_for_workers(jobs, 0)
    before = processor_seconds(jobs.pid)
    other.ask(request("jobs", "/none"))
    assert processor_seconds(jobs.pid) - before < 0.1


def test_refused_upgrade__starts_no_job(jobs, connect):
    wire = connect(jobs.port)
    wire.send(handshake(key="", target=ENDLESS))
    assert wire.read(len(REFUSED)) == REFUSED
    wire.send(request("jobs", "/1000"))
    assert wire.read(len(answer(b"168"))) == answer(b"168")
    wait_for_workers(jobs, 0)


def test_bytes_after_a_last_request__start_no_job(jobs, connect):
    wire, other = connect(jobs.port), connect(jobs.port)
    wire.send(f"GET {ENDLESS} HTTP/1.0\r\n\r\n".encode())
    for _ in range(20):
        wire.wait_delivered()
        for _ in range(2):  # after the second answer, the server has seen the byte
            other.ask(request("jobs", "/none"))
        wait_for_workers(jobs, 1)
        wire.send(b"x")


def test_client_that_keeps_asking_without_waiting__gets_no_more_threads_and_is_ended(jobs, connect):
    wire, other = connect(jobs.port), connect(jobs.port)
    for _ in range(20):
        with contextlib.suppress(ConnectionError):  # the server may have ended the connection already
            wire.send(request("jobs", ENDLESS))
        for _ in range(2):  # after the second answer, the server has seen the request
            other.ask(request("jobs", "/none"))
        assert workers(jobs) <= 1
    wire.wait_closed()
    wait_for_workers(jobs, 0)


def test_more_clients_than_threads__are_told_to_come_back(jobs, connect):
    wires = [connect(jobs.port) for _ in range(MAX_JOBS)]
    for wire in wires:
        wire.send(request("jobs", ENDLESS))
    wait_for_workers(jobs, MAX_JOBS)
    late = connect(jobs.port)
    late.send(request("jobs", "/1000"))
    head, body = late.read_reply()
    assert head.startswith(b"HTTP/1.1 503 Service Unavailable\r\n") and body == b"Too many at once. Ask again.\n"
    wires[0].close()
    wait_for_workers(jobs, MAX_JOBS - 1)
    late.send(request("jobs", "/1000"))
    assert late.read(len(answer(b"168"))) == answer(b"168")


def test_system_gives_no_further_thread__client_is_told_to_come_back(jobs, connect):
    wires = [connect(jobs.port) for _ in range(4)]
    for wire in wires:
        wire.ask(request("jobs", "/none"))
    # There is room for a few requests, but not for the stack of a thread. One stack is left from an earlier thread.
    pages = int(pathlib.Path(f"/proc/{jobs.pid}/statm").read_text().split()[0])
    room = pages * os.sysconf("SC_PAGE_SIZE") + (1 << 20)
    before = resource.prlimit(jobs.pid, resource.RLIMIT_AS)
    resource.prlimit(jobs.pid, resource.RLIMIT_AS, (room, before[1]))
    for wire in wires[:-1]:
        wire.send(request("jobs", ENDLESS))
        wires[-1].ask(request("jobs", "/none"))
    wires[-1].send(request("jobs", "/1000"))
    head, body = wires[-1].read_reply()
    assert head.startswith(b"HTTP/1.1 503 Service Unavailable\r\n") and body == b"Too many at once. Ask again.\n"
    resource.prlimit(jobs.pid, resource.RLIMIT_AS, before)
    wires[-1].send(request("jobs", "/1000"))
    assert wires[-1].read(len(answer(b"168"))) == answer(b"168")


def test_interrupt_while_a_job_works__ends_in_good_order(jobs, connect):
    connect(jobs.port).send(request("jobs", ENDLESS))
    wait_for_workers(jobs, 1)
    jobs.interrupt()
