"""Real clients that send bodies in chunks, to real servers behind mivo, over HTTP and over HTTPS."""

import hashlib
import http.client
import random
import ssl
import subprocess

import pytest

from clients import ENVIRONMENT, PATIENCE, curl, run
from upstreams import HERE, end

pytest_plugins = ["tls_service"]

MIB = 1 << 20
HELLO = b"hello, world\n"


class Place:
    """Where a server is to be found through mivo: its URL, and the certificate to trust, if there is one."""

    def __init__(self, url, root=None):
        self.url, self.root = url, root
        self.curl_options = ["--cacert", root] if root else []

    def connection(self):
        host = self.url.split("//")[1]
        if self.root:
            return http.client.HTTPSConnection(host, context=ssl.create_default_context(cafile=self.root))
        return http.client.HTTPConnection(host)


@pytest.fixture(params=["http", "https"])
def put_before(request, start_mivo, serve_tls):
    """put_before(port): a mivo in front of a server. Returns its Place."""
    def start(port):
        if request.param == "http":
            return Place(f"http://localhost:{start_mivo({'localhost:{port}': port}).port}")
        service = serve_tls({"localhost:{ssl_port}": port})
        return Place(service.url, service.root.crt)
    return start


# Any client, to an upstream that answers with the length and the digest of what it got


@pytest.fixture
def place(put_before, node):
    return put_before(node.port)


def digest(data):
    return f"{len(data)} {hashlib.sha256(data).hexdigest()}"


def test_curl_reads_from_a_slow_pipe__the_upload_arrives(place):
    data = random.Random(1).randbytes(3 * MIB)
    client = subprocess.Popen(
        ["curl", "-q", "--silent", "--show-error", "--fail", "--noproxy", "*", *place.curl_options, "-T", "-",
         "--no-buffer", place.url + "/digest", place.url + "/small"],
        env=ENVIRONMENT, stdin=subprocess.PIPE, stdout=subprocess.PIPE)
    try:
        for at in range(0, 1000, 100):
            client.stdin.write(data[at:at + 100])
            client.stdin.flush()
        output, _ = client.communicate(data[1000:], PATIENCE)
    finally:
        end(client)
    assert client.returncode == 0
    assert output.decode() == digest(data) + HELLO.decode()


def test_curl_waits_for_a_go_ahead__gets_it_from_the_upstream(place, folder):
    path = f"{folder}/upload"
    data = random.Random(2).randbytes(2 * MIB)
    with open(path, "wb") as upload:
        upload.write(data)
    output = curl("--fail", *place.curl_options, "--verbose", "--stderr", f"{folder}/log", "--expect100-timeout", "60",
                  "-H", "Expect: 100-continue", "-H", "Transfer-Encoding: chunked", "-T", path, place.url + "/digest")
    assert output == digest(data)
    with open(f"{folder}/log", encoding="latin-1") as log:
        assert "< HTTP/1.1 100 Continue" in log.read()


def test_python_client_on_one_connection__each_request_gets_its_own_reply(place):
    rng = random.Random(3)
    connection = place.connection()
    try:
        for number in range(60):
            pieces = [rng.randbytes(rng.choice([1, 2, 100, 5000, 70000])) for _ in range(rng.randrange(6))]
            connection.request("POST", "/digest", iter(pieces), encode_chunked=True, headers={
                "Transfer-Encoding": "chunked"})
            assert connection.getresponse().read().decode() == digest(b"".join(pieces)), number
            connection.request("GET", "/small")
            assert connection.getresponse().read() == HELLO
            connection.request("POST", "/digest", b"".join(pieces))
            assert connection.getresponse().read().decode() == digest(b"".join(pieces))
    finally:
        connection.close()


def test_fetch_of_node_streams_bodies__each_request_gets_its_own_reply(place):
    trust = ["env", f"NODE_EXTRA_CA_CERTS={place.root}"] if place.root else []
    assert run(*trust, "node", HERE / "stream_bodies.js", "40", place.url) == "ok\n"
