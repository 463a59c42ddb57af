"""The arguments, the usage text, and how a run begins and ends."""

import array
import fcntl
import pathlib
import re
import signal
import socket
import struct

import pytest

from answers import NOT_FOUND, echo_page
from wire import request

USAGE = b"""USAGE:
\tmivo [port] -ssl [ssl_port] [key] [crt] -map [host_header] [local_port]
WHERE:
\t-[port] is the http port
\t-if -ssl is specified, [ssl_port] is the https port and [key] and [crt]
\t are the key and certificate file paths
\t -if [port] is non-zero, it will redirect to [ssl_port]
\t -if [port] is zero, it will be ignored
\t-if -map is specified, incoming requests with [host_header] are forwarded
\t to [local_port]
\t -if [local_port] is -1, the [host_header] is mapped to an echo handler, which
\t  is useful for debugging
\t -multiple -map flags can be specified

"""


def local_addresses():
    """The IPv4 addresses of this machine's interfaces, from the kernel (SIOCGIFCONF)."""
    record_size = 40
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as any_socket:
        records = array.array("B", bytes(record_size * 128))
        address, _ = records.buffer_info()
        answer = fcntl.ioctl(any_socket, 0x8912, struct.pack("iL", len(records), address))
    used = struct.unpack("iL", answer)[0]
    return [socket.inet_ntoa(records[at + 20:at + 24]) for at in range(0, used, record_size)]


def expect_banner(console, port):
    """Checks the lines that a server prints when it binds, with the addresses in any order. Returns the lines after
    these."""
    first, *lines = console.split("\n")
    assert first == f"Binding to port {port} on all adapters:"
    addresses = local_addresses()
    assert sorted(lines[:len(addresses)]) == sorted(addresses)
    return "\n".join(lines[len(addresses):])


def kind_of_answer(client, host):
    """The kind of answer that mivo itself gives to a host: "echo" or "404"."""
    sent = request(host)
    client.send(sent)
    return {echo_page(sent): "echo", NOT_FOUND: "404"}[b"".join(client.read_reply())]


def test_no_arguments__the_usage_text_and_an_empty_line(run_mivo):
    mivo = run_mivo()
    assert mivo.wait_for_exit() == 0
    assert mivo.console_path.read_bytes() == USAGE


def test_port_alone__every_host_is_unknown(start_mivo, connect):
    mivo = start_mivo()
    assert kind_of_answer(connect(mivo.port), "a.example") == "404"


def test_start_and_stop__print_exactly_the_banner_the_count_and_the_farewell(start_mivo):
    mivo = start_mivo()
    mivo.interrupt()
    assert expect_banner(mivo.console(), mivo.port) == "0 connections\nShutting down...\n"


# Arguments after the port, and the answers that some hosts then get. The port -1 is the echo handler. A host is
# unknown if it is not mapped, or if it is mapped to a port that reads as 0.
WALKS = {
    "one_map": (["-map", "a", "-1"], {"a": "echo", "b": "404"}),
    "two_maps": (["-map", "a", "-1", "-map", "b", "-1"], {"a": "echo", "b": "echo"}),
    "later_map_wins": (["-map", "a", "0", "-map", "a", "-1"], {"a": "echo"}),
    "later_map_wins_even_with_zero": (["-map", "a", "-1", "-map", "a", "0"], {"a": "404"}),
    "port_with_trailing_text": (["-map", "a", "-1x"], {"a": "echo"}),
    "port_with_leading_blanks": (["-map", "a", " \t-1"], {"a": "echo"}),
    "port_without_digits": (["-map", "a", "minus1"], {"a": "404"}),
    "unknown_arguments_between": (
        ["x", "-map", "a", "-1", "--", "-v", "-map", "b", "-1", "y"], {"a": "echo", "b": "echo"}),
    "other_case": (["-MAP", "a", "-1", "-Map", "b", "-1"], {"a": "404", "b": "404"}),
    "double_dash": (["--map", "a", "-1"], {"a": "404"}),
    "map_without_port": (["-map", "b", "-1", "-map", "a"], {"a": "404", "b": "echo"}),
    "map_alone_at_the_end": (["-map", "a", "-1", "-map"], {"a": "echo"}),
    "ssl_takes_a_flag_as_its_port": (["-ssl", "-map", "a", "-1"], {"a": "404"}),
    "flag_as_a_host": (["-map", "-ssl", "-1"], {"-ssl": "echo"}),
    "map_as_a_host": (["-map", "-map", "-1", "-map", "a", "-1"], {"-map": "echo", "a": "echo"}),
    "map_takes_a_flag_as_its_port": (["-map", "a", "-map", "b", "-1"], {"a": "404", "b": "404"}),
    "ssl_with_two_values": (["-map", "a", "-1", "-ssl", "8443", "k.pem"], {"a": "echo"}),
    "ssl_with_port_zero": (["-ssl", "0", "k.pem", "c.pem", "-map", "a", "-1"], {"a": "echo"}),
    "ssl_with_port_without_digits": (["-ssl", "x", "k.pem", "c.pem", "-map", "a", "-1"], {"a": "echo"}),
    "later_ssl_wins": (["-ssl", "8443", "k.pem", "c.pem", "-map", "a", "-1", "-ssl", "0", "k", "c"],
                       {"a": "echo"}),
    "ssl_takes_flags_as_its_files": (["-ssl", "0", "-map", "a", "-1", "-map", "b", "-1"],
                                     {"a": "404", "b": "echo"}),
    "ssl_takes_map_as_its_last_file": (["-ssl", "0", "k.pem", "-map", "a", "-1"], {"a": "404"}),
    "ssl_in_other_spellings": (
        [text for flag in ("-SSL", "--ssl", "-ssl=8443", "-sslx", "-ss")
         for text in (flag, "8443", "k.pem", "c.pem")] + ["-map", "a", "-1"], {"a": "echo"}),
    "map_in_other_spellings": (
        [text for flag in ("-mapx", "-ma", "map", "-map ", " -map") for text in (flag, "a", "-1")], {"a": "404"}),
    "map_to_a_port_beyond_32_bits": (["-map", "a", str((1 << 32) - 1), "-map", "b", str(1 << 32)],
                                     {"a": "echo", "b": "404"}),
    "ssl_with_a_port_that_is_zero_in_32_bits": (["-ssl", str(1 << 32), "k.pem", "c.pem", "-map", "a", "-1"],
                                                {"a": "echo"}),
    "host_that_differs_in_case": (["-map", "A.Example", "-1"], {"A.Example": "echo", "a.example": "404"}),
    "empty_host": (["-map", "", "-1"], {"": "echo", "a": "404"}),
    "forty_maps": ([text for i in range(40) for text in ("-map", f"host{i}.example", "-1")],
                   {f"host{i}.example": "echo" for i in range(40)} | {"host40.example": "404"}),
}


@pytest.mark.parametrize("name", WALKS)
def test_arguments_after_the_port__map_the_hosts_that_they_name(start_mivo, connect, name):
    arguments, answers = WALKS[name]
    client = connect(start_mivo(arguments=arguments).port)
    assert {host: kind_of_answer(client, host) for host in answers} == answers


def test_map_of_a_flag_to_a_port__forwards_the_host_of_that_name(start_mivo, connect, listen):
    upstream = listen()
    mivo = start_mivo(arguments=["-map", "-ssl", str(upstream.port)])
    connect(mivo.port).send(request("-ssl", "/x"))
    assert upstream.accept().read_head().startswith(b"GET /x HTTP/1.1\r\nHost: -ssl\r\n")


@pytest.mark.parametrize("port", [" {port}", "+{port}", "0{port}", "{port}x", "{port} 80", "\n{port}-1"])
def test_port_that_is_not_just_digits__is_read_up_to_the_first_other_character(run_mivo, connect, port):
    mivo = run_mivo(port, "-map", "a", "-1")
    mivo.wait_until_it_runs()
    assert kind_of_answer(connect(mivo.port), "a") == "echo"
    mivo.interrupt()


@pytest.mark.parametrize("arguments", [
    *([port, "-map", "a", "-1"] for port in ("0", "-map", "-ssl", "x{port}", "", "-0", str(1 << 32))),
    ["-ssl", "{port}", "k.pem", "c.pem"]], ids=lambda arguments: arguments[0] + arguments[1])
def test_port_that_reads_as_zero__serves_nothing_until_sigint(run_mivo, arguments):
    mivo = run_mivo(*arguments)
    mivo.wait_until_it_runs()
    assert {"0", "1", "2"} == mivo.descriptors()
    mivo.interrupt()
    assert mivo.console() == "0 connections\nShutting down...\n"


@pytest.mark.parametrize("arguments", [[], ["-map", "a", "-1"], ["-ssl", "0", "k", "c"]])
def test_port_taken_by_another_process__the_cause_is_printed_and_the_exit_is_in_order(run_mivo, arguments):
    with socket.create_server(("0.0.0.0", 0)) as taken:
        port = taken.getsockname()[1]
        mivo = run_mivo(str(port), *arguments)
        assert mivo.wait_for_exit() == 0
        assert expect_banner(mivo.console(), port) == (
            "bind() failed: -1 Bad value for ai_flags\n"
            "Check that the port isn't already taken.\n"
            "This can be done with 'netstat -an' on windows/mac/linux.\n")


@pytest.mark.parametrize("limits, expected", [
    ((1024, 4096), (2048, 4096)), ((1024, 2049), (2048, 2049)), ((1024, 1500), (1500, 1500)),
    ((1024, 1024), (1024, 1024)),
    ((256, 4096), (256, 4096)), ((1023, 4096), (1023, 4096)), ((1025, 4096), (1025, 4096)),
    ((4096, 4096), (4096, 4096))])
def test_limit_on_descriptors__is_raised_from_the_usual_1024_and_left_alone_otherwise(
        start_mivo, limits, expected):
    assert start_mivo(descriptors=limits).descriptor_limits() == expected


def test_sigint_with_clients_connected__ends_them_and_the_run(start_mivo, connect, listen):
    upstream = listen()
    mivo = start_mivo({"echo": -1, "up": upstream.port})
    idle, echoed, waiting = (connect(mivo.port) for _ in range(3))
    assert kind_of_answer(echoed, "echo") == "echo"
    waiting.send(request("up"))
    at_upstream = upstream.accept()
    at_upstream.read_head()
    mivo.interrupt()
    assert [wire.read_to_end() for wire in (idle, echoed, waiting, at_upstream)] == [b""] * 4


def test_sigint_during_a_download__ends_the_run_within_a_turn(start_mivo, connect, node):
    mivo = start_mivo({"node": node.port})
    client = connect(mivo.port)
    client.send(request("node", f"/repeat/{1 << 32}"))
    client.read(1 << 20)
    mivo.interrupt()
    client.wait_closed()


def signals(mivo, kind):
    """The signals that /proc says mivo catches ("SigCgt") or ignores ("SigIgn")."""
    status = pathlib.Path(f"/proc/{mivo.pid}/status").read_text()
    mask = int(re.search(rf"^{kind}:\s+([0-9a-f]+)$", status, re.M)[1], 16)
    return {number for number in range(1, 65) if mask >> (number - 1) & 1}


# A program with sanitizers catches these signals, too.
SIGNS_OF_A_FAULT = {signal.SIGSEGV, signal.SIGBUS, signal.SIGFPE, signal.SIGILL, signal.SIGABRT}


def test_signals__sigint_alone_is_caught_and_sigpipe_ignored(start_mivo):
    mivo = start_mivo()
    assert signals(mivo, "SigCgt") - SIGNS_OF_A_FAULT == {signal.SIGINT}
    assert signal.SIGPIPE in signals(mivo, "SigIgn")


def test_sigterm__ends_the_run_at_once_and_not_in_order(run_mivo):
    mivo = run_mivo("{port}")
    mivo.wait_until_it_runs()
    mivo.process.send_signal(signal.SIGTERM)
    assert mivo.wait_for_exit() == -signal.SIGTERM
    assert "Shutting down" not in mivo.console()


def test_sigpipe_and_a_second_sigint__do_no_harm(start_mivo):
    mivo = start_mivo()
    for number in (signal.SIGPIPE, signal.SIGINT, signal.SIGINT):
        mivo.process.send_signal(number)
    mivo.expect_good_end()
