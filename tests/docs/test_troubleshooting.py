"""The tests provoke each symptom of docs/troubleshooting.md, and the commands of the page prove its cause.

They do not run commands that need a running systemd; packaging/test_service.py checks the settings by which the
service fails.
"""

import contextlib
import http.server
import re
import select
import signal
import socket
import subprocess
import threading

import pytest

from certificates import Authority
from mivo_process import REPOSITORY, Mivo
from page_blocks import House, blocks, ended_in_good_order
from wire import Listener, Wire, request, until

BLOCKS = blocks("troubleshooting.md")
SYMPTOMS = dict(re.findall(r"^## (.+?)$\n(.*?)(?=^## |\Z)", (REPOSITORY / "docs/troubleshooting.md").read_text(),
                           re.MULTILINE | re.DOTALL))
PROVOKED = ["blank 404", "unable to connect", "handshake", "start", "port", "empty log", "lines at once",
            "two copies", "stopped", "websocket", "without mivo"]
NEED_SYSTEMD = ["service", "start again"]
MIB = 1 << 20


@pytest.fixture
def house():
    made = House([3000, 8080, 8081, 8443])
    yield made
    made.close()


def prove(house, name, **options):
    return house.run(BLOCKS["run", name], **options)


@pytest.fixture
def serve(house, tmp_path):
    """serve(arguments, port): a running mivo on port 8080 of the page."""
    with ended_in_good_order() as started:
        def start(*arguments, port=8080, **options):
            words = [house.place(word) for word in (str(port), *arguments)]
            started.append(Mivo(tmp_path, words, **options))
            started[-1].wait_until_it_runs()
            return started[-1]

        yield start


@pytest.fixture
def upstream(house):
    """A scripted server on port 3000 of the page."""
    listener = Listener(house.port(3000))
    yield listener
    listener.close()


class LocalServer:
    """A server on port 3000 of the page that answers every request with its own page."""

    class Handler(http.server.BaseHTTPRequestHandler):
        def do_GET(self):
            self.send_response(404)
            self.end_headers()
            self.wfile.write(b"the server's own 404\n")

        def log_message(self, *_):
            pass

    def __init__(self, port):
        self.server = http.server.ThreadingHTTPServer(("127.0.0.1", port), self.Handler)
        threading.Thread(target=self.server.serve_forever, args=(0.05,), daemon=True).start()

    def close(self):
        self.server.shutdown()
        self.server.server_close()


@pytest.fixture
def local_server(house):
    made = LocalServer(house.port(3000))
    yield made
    made.close()


def test_page__has_a_cause_a_proof_and_a_remedy_for_each_symptom():
    assert len(SYMPTOMS) >= 9
    for symptom, text in SYMPTOMS.items():
        assert re.findall(r"^\*\*(\w+)\.\*\*", text, re.M) == ["Cause", "Proof", "Remedy"], symptom
        assert f"* [{symptom}](#" in (REPOSITORY / "docs/troubleshooting.md").read_text()


def test_page__has_these_commands_and_no_other():
    assert sorted(BLOCKS) == sorted([*(("run", name) for name in PROVOKED),
                                     *(("needs systemd", name) for name in NEED_SYSTEMD)])


def test_blank_404__has_no_body_and_the_log_has_the_name_to_map(house, serve, local_server):
    wrong = serve("-map", "localhost", "3000")
    output = prove(house, "blank 404")
    assert output.startswith("HTTP/1.1 404 Not Found\n")
    assert output.endswith("\n\n")
    named = re.search(r"^\[(.*?)\] ", wrong.console(), re.M)[1]
    wrong.interrupt()
    serve("-map", named, "3000")
    assert prove(house, "blank 404").endswith("the server's own 404\n")


def test_port_that_is_no_number__opens_no_port_and_mivo_keeps_running(house, serve):
    mivo = serve("-map", "localhost:8080", "-1", port="http")
    assert "Binding" not in mivo.console() and mivo.is_running()
    assert "LISTEN" not in prove(house, "port")


def test_unable_to_connect__nobody_listens_on_the_mapped_port(house, serve):
    serve("-map", "localhost:8080", "3000")
    output = prove(house, "unable to connect")
    assert output.startswith("HTTP/1.1 502 Bad Gateway\n")
    assert "Unable to connect" in output
    assert str(house.port(3000)) not in output
    server = LocalServer(house.port(3000))
    output = prove(house, "unable to connect")
    server.close()
    assert f"127.0.0.1:{house.port(3000)}" in output and "502" not in output


def test_unable_to_connect__the_server_listens_on_ipv6_only(house, serve):
    serve("-map", "localhost:8080", "3000")
    with socket.create_server(("::1", house.port(3000)), family=socket.AF_INET6):
        output = prove(house, "unable to connect")
    assert "Unable to connect" in output
    assert f"[::1]:{house.port(3000)}" in output and f"127.0.0.1:{house.port(3000)}" not in output


@pytest.mark.parametrize("fault", ["not there", "wrong order", "another key"])
def test_handshake_that_fails_for_all__shows_no_certificate(house, serve, tmp_path, fault):
    authority = Authority(tmp_path, "ecdsa")
    certificate, other = authority.issue("one"), authority.issue("two")
    files = {"not there": ["/nonexistent/key.pem", certificate.crt], "wrong order": [certificate.crt, certificate.key],
             "another key": [other.key, certificate.crt]}[fault]
    serve("-ssl", "8443", *map(str, files), "-map", "a", "-1")
    assert prove(house, "handshake") == "no peer certificate available\n"


def test_handshake_that_works__does_not_print_the_line_of_a_failed_one(house, serve, tmp_path):
    certificate = Authority(tmp_path, "ecdsa").issue("one")
    serve("-ssl", "8443", str(certificate.key), str(certificate.crt), "-map", "a", "-1")
    assert prove(house, "handshake", expected_status=1) == ""


def test_port_of_another_program__ends_the_start_with_success_and_bad_value_for_ai_flags(house):
    with socket.create_server(("0.0.0.0", house.port(8080)), reuse_port=False) as other:
        assert other
        output = prove(house, "start")
        assert "bind() failed: -1 Bad value for ai_flags\n" in output
        assert output.endswith("exit status 0\n")
        assert re.search(rf"LISTEN .*:{house.port(8080)} .*python3", prove(house, "port"))


def test_log_that_is_a_file__is_empty_until_the_end_unless_lines_are_written_at_once(house):
    before, after = map(int, re.findall(r"^(\d+)$", prove(house, "empty log"), re.M))
    assert before == 0 and after > 0
    assert f"[localhost:{house.port(8081)}]" in prove(house, "lines at once")


def test_second_copy__is_a_second_line_with_another_process(house, serve):
    first, second = serve("-map", "localhost:8080", "-1"), serve("-map", "other", "-1")
    statuses = set()

    def both_have_answered():
        client = Wire.connect(house.port(8080))
        client.send(request(f"localhost:{house.port(8080)}"))
        statuses.add(client.read_reply()[0].split()[1])
        client.close()
        return statuses == {b"200", b"404"}

    until(both_have_answered, "the answers of both")
    assert set(re.findall(r"pid=(\d+)", prove(house, "two copies"))) == {str(first.pid), str(second.pid)}


def test_stopped_process__lets_requests_hang_and_has_a_t_until_it_goes_on(house, serve):
    mivo = serve("-map", "localhost:8080", "-1")
    client = Wire.connect(house.port(8080))

    def state():
        return re.search(rf"^ *{mivo.pid} +(\S)", prove(house, "stopped"), re.M)[1]

    with mivo.stopped():
        client.send(request(f"localhost:{house.port(8080)}"))
        assert state() == "T"
        assert select.select([client.sock], [], [], 0.2)[0] == []
    assert client.read_reply()[0].startswith(b"HTTP/1.1 200 ")
    assert state() != "T"
    client.close()


WEBSOCKET_SERVER = """
import asyncio, sys, websockets
async def main():
    async with websockets.serve(lambda socket: socket.wait_closed(), "127.0.0.1", int(sys.argv[1]), reuse_port=True):
        print("ready", flush=True)
        await asyncio.Future()
asyncio.run(main())
"""


def test_websocket__is_answered_by_the_server_and_not_through_mivo(house, serve):
    server = subprocess.Popen(["/usr/bin/python3", "-c", WEBSOCKET_SERVER, str(house.port(3000))],
                              stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
    try:
        assert server.stdout.readline() == b"ready\n"
        serve("-map", "localhost:8080", "3000")
        direct, through = re.findall(r"^HTTP/1.1 (\d+)", prove(house, "websocket"), re.M)
        assert direct == "101" and through != "101"
    finally:
        server.send_signal(signal.SIGKILL)
        server.wait()
        server.stdout.close()


def test_length_without_a_blank__is_a_404_and_a_line_with_empty_brackets(house, serve, upstream):
    mivo = serve("-map", "up", "3000")
    client = Wire.connect(house.port(8080))
    client.send(b"POST /up HTTP/1.1\r\nHost: up\r\nContent-Length:50\r\n\r\n")
    server = upstream.accept()
    server.read_head()
    client.send(b"first paragraph\r\n\r\nsecond paragraph")
    assert client.read_head().startswith(b"HTTP/1.1 404 ")
    line = re.search(r"^\[\] .*$", mivo.console(), re.M)[0]
    shown = SYMPTOMS["An upload that ends in a 404"]
    assert re.sub(r"127\.0\.0\.1:\d+", "", line) in re.sub(r"127\.0\.0\.1:\d+", "", shown)
    client.close()


def test_upload_beyond_100_mib__is_not_answered_and_the_log_has_the_warning(house, serve):
    mivo = serve("-map", "up", "-1")
    client = Wire.connect(house.port(8080))
    client.send(request("up", method="POST", headers=[f"Content-Length: {110 * MIB}"]))
    client.read_head()
    for _ in range(110):
        client.send(bytes(MIB))
    line = re.search(r"`(Warning! .*)`", SYMPTOMS["An upload that never ends"])[1]
    mivo.wait_for_line(re.escape(line))
    client.close()


@pytest.mark.parametrize("piece, status, words", [
    (b"", 52, "Empty reply from server"),
    (b"HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n123", 18, "transfer closed with 7 bytes remaining"),
])
def test_server_that_closes_early__does_so_directly_as_well_and_the_log_has_only_the_request(
        house, serve, upstream, piece, status, words):
    mivo = serve("-map", "up", "3000")

    def close_early():
        server = upstream.accept()
        server.read_head()
        server.send(piece)
        server.close()

    client = Wire.connect(house.port(8080))
    client.send(request("up"))
    close_early()
    assert client.read_to_end() == piece
    client.close()
    lines = [line for line in mivo.console().splitlines() if "connections" not in line]
    assert lines[-1].startswith("[up] 127.0.0.1:")
    thread = threading.Thread(target=close_early)
    thread.start()
    assert f"curl: ({status}) {words}" in prove(house, "without mivo", expected_status=status)
    thread.join()


@pytest.fixture
def waiting(house, upstream):
    """waiting(): a client whose request has reached the server on port 3000. So mivo does not end it as idle."""
    clients = []

    def connect():
        clients.append(Wire.connect(house.port(8080)))
        clients[-1].send(request("up"))
        upstream.accept().read_head()
        return clients[-1]

    yield connect
    for client in clients:
        client.close()


def test_end_of_mivo__cuts_a_client_and_the_log_says_so(serve, waiting):
    mivo = serve("-map", "up", "3000")
    client = waiting()
    mivo.interrupt()
    client.wait_closed()
    assert mivo.console().endswith("Shutting down...\n")


def test_limit_on_descriptors_that_is_too_low__cuts_every_client_and_the_log_says_accept_failed(house, serve, waiting):
    mivo = serve("-map", "up", "3000", descriptors=(300, 300))
    client = waiting()
    crowd = []
    while not mivo.lines(r"accept\(\) failed") and len(crowd) < 300:
        with contextlib.suppress(ConnectionRefusedError):  # while mivo opens its port again
            crowd.append(Wire.connect(house.port(8080)))
    mivo.wait_for_line(r"accept\(\) failed")
    assert client.read_to_end() == b""
    for other in crowd:
        other.close()
