"""The whole program when a call into the system fails, at its start or while it serves."""

import errno
import pathlib
import signal
import subprocess

import pytest

from answers import BAD_GATEWAY, NOT_FOUND
from mivo_process import programs
from wire import Wire, reply, request, until

HERE = pathlib.Path(__file__).resolve().parent
SHUTTING_DOWN = "Shutting down...\n"
BIND_FAILED = ("bind() failed: -1 Bad value for ai_flags\n"
               "Check that the port isn't already taken.\n"
               "This can be done with 'netstat -an' on windows/mac/linux.\n")
FAILED_TO_START = "Failed to start server(s).\n"


@pytest.fixture(scope="session")
def stub(tmp_path_factory):
    path = tmp_path_factory.mktemp("stub") / "stub_faults.so"
    subprocess.run(["g++", "-std=c++17", "-O1", "-fPIC", "-shared", HERE / "stub_faults.cpp", "-o", path], check=True)
    return path


@pytest.fixture(params=list(programs().values()), ids=list(programs()))
def real_program(request):
    return request.param


@pytest.fixture
def program():
    """A script that sets the environment and then runs the program in its own process."""
    return "env"


@pytest.fixture
def run_with_fault(run_mivo, stub, real_program):
    """run_with_fault("call", first, times, "ERRNO", arguments...): starts mivo; see stub_faults.cpp."""
    def run(call, first, times, error, *arguments):
        fault = f"{call} {first} {times} {getattr(errno, error)}"
        return run_mivo(f"LD_PRELOAD={stub}", f"MIVO_STUB_FAULT={fault}", real_program, *arguments)
    return run


def tail(mivo):
    """The console without the addresses of the machine's adapters, and without counts."""
    lines = [line for line in mivo.console().splitlines()
             if not line.replace(".", "").isdigit() and not line.endswith(" connections")]
    return "".join(line + "\n" for line in lines)


def serve_and_stop(mivo, errors=""):
    """Checks that the program serves, and that it ends in good order."""
    mivo.wait_for_line("0 connections")
    client = Wire.connect(mivo.port)
    client.send(request("nobody"))
    assert client.read(len(NOT_FOUND)) == NOT_FOUND
    client.close()
    mivo.process.send_signal(signal.SIGINT)
    assert mivo.process.wait(15) == 0
    assert mivo.console().endswith(SHUTTING_DOWN)
    assert mivo.errors() == errors


START_FAILURES = [
    ("getaddrinfo", "EAGAIN", "getaddrinfo() failed: -3 Temporary failure in name resolution\n"),
    ("socket", "EMFILE", "socket() failed\n"),
    ("bind", "EACCES", BIND_FAILED),
    ("listen", "EADDRINUSE", "listen() failed\n"),
]


@pytest.mark.parametrize("call, error, text", START_FAILURES, ids=[call for call, *_ in START_FAILURES])
def test_plain_server_cannot_start__cause_is_printed_and_good_exit(run_with_fault, call, error, text):
    mivo = run_with_fault(call, 1, 1, error, "{port}")
    assert mivo.wait_for_exit() == 0
    assert tail(mivo) == f"Binding to port {mivo.port} on all adapters:\n{text}"


@pytest.mark.parametrize("which", [1, 2], ids=["http", "https"])
@pytest.mark.parametrize("call, error, text", START_FAILURES, ids=[call for call, *_ in START_FAILURES])
def test_server_beside_another_cannot_start__cause_is_printed_and_good_exit(
        run_with_fault, folder, call, error, text, which):
    mivo = run_with_fault(call, which, 1, error, "{port}", "-ssl", "{port}", f"{folder}/key", f"{folder}/crt")
    assert mivo.wait_for_exit() == 0
    binding = f"Binding to port {mivo.port} on all adapters:\n"
    assert tail(mivo) == (f"Redirecting http ({mivo.port}) to https ({mivo.port})\n" + binding * which + text +
                          FAILED_TO_START)


@pytest.mark.parametrize("call, error", [
    ("getrlimit", "EPERM"), ("setrlimit", "EPERM"), ("getifaddrs", "ENOMEM"), ("select", "EINTR")])
def test_call_that_is_not_needed_fails_at_the_start__serves_as_usual(run_with_fault, call, error):
    serve_and_stop(run_with_fault(call, 1, 1, error, "{port}"))


def test_linkers_caches_and_library_cannot_be_opened__plain_mode_serves(run_with_fault):
    serve_and_stop(run_with_fault("dlopen", 1, 9, "ENOENT", "{port}"), "Unable to load libssl.so\n")
    mivo = run_with_fault("fopen", 1, 2, "EMFILE", "{port}")
    mivo.wait_for_line("0 connections")
    assert mivo.errors().startswith("Unable to find ld.so.cache!\n")


@pytest.mark.parametrize("call, error, text", [
    ("select", "EBADF", f"select() failed! {errno.EBADF}\n"), ("accept4", "EMFILE", "accept() failed\n")])
def test_wait_or_accept_fails__server_listens_again_and_serves(run_with_fault, call, error, text):
    mivo = run_with_fault(call, 1, 1, error, "{port}")
    if call == "accept4":
        mivo.wait_for_line("0 connections")
        with pytest.raises(ConnectionResetError):  # the reset may come before the connection is reported
            Wire.connect(mivo.port).read_some()
    until(lambda: mivo.console().count(f"Binding to port {mivo.port}") == 2, "the restart")
    assert text in mivo.console()
    serve_and_stop(mivo)


# The memory of the client's connection is mapped first, that of the upstream's connection second.
@pytest.mark.parametrize("call, first, error", [("mmap", 2, "ENOMEM"), ("socket", 2, "EMFILE"),
                                                ("getaddrinfo", 2, "EAGAIN"), ("connect", 1, "EADDRNOTAVAIL")])
def test_upstream_connection_cannot_be_made__502_and_the_next_request_is_served(
        run_with_fault, listen, call, first, error):
    upstream = listen()
    mivo = run_with_fault(call, first, 1, error, "{port}", "-map", "up", str(upstream.port))
    mivo.wait_for_line("0 connections")
    client = Wire.connect(mivo.port)
    client.send(request("up"))
    assert client.read_to_end() == BAD_GATEWAY
    client.close()
    if call == "mmap":
        assert upstream.accept().read_to_end() == b""
    client = Wire.connect(mivo.port)
    client.send(request("up"))
    at_upstream = upstream.accept()
    at_upstream.read_head()
    at_upstream.send(reply(b"fine"))
    assert client.read_reply()[1] == b"fine"
    client.close()
    serve_and_stop(mivo)


def test_client_connection_cannot_be_made__it_is_refused_and_the_next_is_served(run_with_fault):
    mivo = run_with_fault("mmap", 1, 1, "ENOMEM", "{port}")
    mivo.wait_for_line("0 connections")
    refused = Wire.connect(mivo.port)
    assert refused.read_to_end() == b""
    refused.close()
    serve_and_stop(mivo)
