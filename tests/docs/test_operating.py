"""The claims of docs/operating.md: its filters on a real log, its limits, and two processes on one port.

The tests do not run commands that need a running systemd. systemd's own verifier checks the settings on the page.
"""

import configparser
import re
import resource
import signal
import socket
import subprocess

import pytest

from mivo_process import REPOSITORY, Mivo, ReservedPort
from page_blocks import blocks
from wire import Wire, request, until

BLOCKS = blocks("operating.md")
PAGE = (REPOSITORY / "docs/operating.md").read_text()
MIB = 1 << 20


@pytest.fixture
def start(tmp_path):
    """start(hosts, port): a running mivo, which has to end in good order after the test."""
    started = []

    def run(hosts, port="{port}"):
        maps = [word for host, local_port in hosts.items() for word in ("-map", host, str(local_port))]
        started.append(Mivo(tmp_path, [str(port), *maps]))
        started[-1].wait_until_it_runs()
        return started[-1]

    yield run
    try:
        for mivo in started:
            if mivo.is_running():
                mivo.interrupt()
    finally:
        for mivo in started:
            mivo.kill()


def ask(port, data):
    client = Wire.connect(port)
    client.send(data)
    head = client.read_reply()[0]
    client.close()
    return head


# The log


def filtered(name, lines):
    """The lines that a filter of the page leaves. journalctl and grep take the same expressions."""
    pattern = re.search(r"--grep '(.*)'$", BLOCKS["filter", name].strip())[1]
    done = subprocess.run(["grep", "-P", pattern], input=lines, capture_output=True, text=True, check=False)
    assert done.returncode in (0, 1), done.stderr
    return done.stdout.splitlines()


def test_filters__leave_the_lines_that_the_page_says(start):
    mivo = start({"blog.example": -1, "shop.example": -1, "wrong": -5})
    for host in ("blog.example", "shop.example", "blog.example", "blogsexample"):
        ask(mivo.port, request(host))
    client = Wire.connect(mivo.port)
    client.send(request("wrong"))
    client.read_to_end()
    client.close()
    client = Wire.connect(mivo.port)
    mivo.wait_for_line("1 connections")
    client.close()
    console = mivo.console()
    assert len(filtered("requests", console)) == 5
    assert [line.split()[0] for line in filtered("one name", console)] == ["[blog.example]"] * 2
    rest = filtered("the rest", console)
    assert "getaddrinfo() failed for host localhost:-5!" in rest
    assert [line for line in rest if "connections" in line or line.startswith("[")] == []


def test_line_of_a_request__has_what_the_page_says(start):
    mivo = start({"blog.example": -1})
    shown = re.search(r"^    (\[blog\.example\] .*)$", PAGE, re.M)[1]
    agent = re.search(r"\[([^]]*)\]$", shown)[1]
    ask(mivo.port, request("blog.example", "/archive?page=2", headers=[f"User-Agent: {agent}"]))
    address = r"\d+\.\d+\.\d+\.\d+:\d+"
    assert [re.sub(address, "", line) for line in mivo.requests()] == [re.sub(address, "", shown)]


def test_line_feed_in_a_request__lets_the_client_forge_a_log_line(start):
    mivo = start({"blog.example": -1})
    forged = "[blog.example] 203.0.113.9:1 GET /forged HTTP/1.1 []"
    ask(mivo.port, f"GET /\n{forged}\n HTTP/1.1\r\nHost: blog.example\r\n\r\n".encode())
    assert forged in mivo.requests()


# The limits


def test_settings_of_the_page__are_known_to_systemd(tmp_path):
    for name in ("journal", "memory"):
        unit = tmp_path / f"{name}.service"
        text = BLOCKS["drop-in", name]
        unit.write_text(f"{text}ExecStart=/bin/true\n")
        done = subprocess.run(["systemd-analyze", "verify", "--man=no", unit], capture_output=True, text=True,
                              check=False)
        assert (done.returncode, done.stderr) == (0, "")
    settings = configparser.ConfigParser()
    settings.optionxform = str
    settings.read_string(BLOCKS["drop-in", "memory"])
    data, whole = (int(settings["Service"][key].removesuffix("M")) for key in ("LimitDATA", "MemoryMax"))
    assert data < whole


def test_limits_of_the_page__are_those_of_the_unit():
    unit = (REPOSITORY / "packaging/mivo.service.in").read_text()
    for setting in ("LimitDATA", "MemoryMax", "LimitNOFILE"):
        assert re.search(rf"`({setting}=\w+)`", PAGE)[1] in unit.splitlines()


def test_memory_limit__is_enough_for_as_many_idle_clients_as_the_page_says(start):
    mebibytes, told = map(int, re.search(r"(\d+) MiB are enough for (\d+)\s+idle", PAGE).groups())
    mivo = start({"echo": -1})
    resource.prlimit(mivo.pid, resource.RLIMIT_DATA, (mebibytes * MIB, mebibytes * MIB))
    clients = []
    while len(clients) < 2 * told:
        clients.append(Wire.connect(mivo.port))
        clients[-1].send(request("echo"))
        try:
            if not clients[-1].read_some():
                break
        except ConnectionResetError:
            break
    for client in clients:
        client.close()
    assert told * 0.95 < len(clients) - 1 < told * 1.05


# Two processes on one port


def test_old_process_ends_beside_a_new_one__cuts_only_its_own_clients(start):
    """The system gives each connection to one of the two when it comes, before any process accepts it."""
    reserved = ReservedPort()
    old, new = start({"echo": -1}, reserved.port), start({"echo": -1}, reserved.port)
    kept = [Wire.connect(reserved.port) for _ in range(40)]
    for client in kept:
        client.ask(request("echo"))
    with old.stopped():
        waiting = [Wire.connect(reserved.port) for _ in range(40)]
        for client in waiting:
            client.send(request("echo"))
        old.process.send_signal(signal.SIGINT)
    until(lambda: not old.is_running(), "the end of the old process")
    assert new.is_running()

    assert {answered_again(client) for client in kept} == {True, False}
    assert {answered(client) for client in waiting} == {True, False}
    for _ in range(40):
        assert ask(reserved.port, request("echo")).startswith(b"HTTP/1.1 200 ")
    for client in kept + waiting:
        client.close()
    reserved.close()


def answered_again(client):
    try:
        client.send(request("echo"))
    except ConnectionError:
        return False
    return answered(client)


def answered(client):
    try:
        return client.read_some().startswith(b"HTTP/1.1 200 ")
    except (ConnectionError, socket.timeout):
        return False
