"""Real clients that send bodies in chunks, to real servers behind mivo, over HTTP and over HTTPS."""

import hashlib
import http.client
import os
import random
import ssl
import subprocess
import tempfile

import pytest

from clients import ENVIRONMENT, PATIENCE, curl
from images import layer_of, make_image
from repositories import Apache, Registry, run
from upstreams import HERE, end

pytest_plugins = ["tls_service"]

MIB = 1 << 20
HELLO = b"hello, world\n"


class Place:
    """The way to a server through mivo: its URL, and the certificate to trust, if there is one."""

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
    """put_before(port): starts a mivo in front of a server. Returns the server's Place."""
    def start(port):
        if request.param == "http":
            return Place(f"http://localhost:{start_mivo({'localhost:{port}': port}).port}")
        service = serve_tls({"localhost:{ssl_port}": port})
        return Place(service.url, service.root.crt)
    return start


# Clients of all kinds, and an upstream that responds with the length and the digest of what it received


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
    assert run(*trust, "node", HERE / "stream_bodies.js", "40", place.url) == b"ok\n"


# Git, Subversion and a registry of images: their clients send large bodies in chunks


@pytest.fixture(scope="module")
def apache():
    with tempfile.TemporaryDirectory(prefix="mivo_apache_") as path:
        os.chmod(path, 0o755)
        server = Apache(path)
        yield server
        server.close()


@pytest.fixture(scope="module")
def registry(tmp_path_factory):
    server = Registry(tmp_path_factory.mktemp("registry"))
    yield server
    server.close()


def large_file(path, mebibytes, seed):
    """Writes a file that cannot be compressed. Each seed gives another file."""
    path.write_bytes(random.Random(str(seed)).randbytes(mebibytes * MIB))
    return path


def test_git_push_of_30_mb__is_in_the_repository(put_before, apache, tmp_path):
    place = put_before(apache.port)
    scheme = place.url.split(":")[0]
    # The file cannot be compressed, so git must not try.
    git = ["git", "-C", tmp_path, "-c", "core.compression=0", "-c", "user.name=nobody", "-c", "user.email=nobody"]
    if place.root:
        git += ["-c", f"http.sslCAInfo={place.root}"]
    run(*git, "init", "--quiet", "--initial-branch", scheme)
    sent = large_file(tmp_path / "large", 30, place.url)
    run(*git, "add", "large")
    run(*git, "commit", "--quiet", "--message", "A large file")
    run(*git, "push", "--quiet", place.url + "/git/project.git", scheme)
    assert run("git", "-c", "safe.directory=*", "--git-dir", apache.git, "show", f"{scheme}:large") == sent.read_bytes()


def test_subversion_commit_of_20_mb__is_in_the_repository(put_before, apache, tmp_path):
    place = put_before(apache.port)
    options = ["--non-interactive", "--config-dir", tmp_path / "settings"]
    if place.root:
        options += ["--config-option", f"servers:global:ssl-authority-files={place.root}"]
    sent = large_file(tmp_path / "sent", 20, place.url)
    name = place.url.split(":")[0]
    run("svn", "import", "--quiet", *options, "--message", "A large file", sent, f"{place.url}/svn/{name}")
    assert run("svnlook", "cat", apache.svn, name) == sent.read_bytes()


# Only over HTTPS: for HTTP, skopeo tries HTTPS first and waits until that connection times out. skopeo sends chunks
# because it compresses the image while it sends, so it does not know the length.
@pytest.mark.parametrize("put_before", ["https"], indirect=True)
def test_image_is_copied_to_a_registry__is_there_when_it_is_copied_back(put_before, registry, tmp_path):
    place = put_before(registry.port)
    layer = make_image(tmp_path / "image", random.Random(place.url).randbytes(20 * MIB))
    (tmp_path / "trust").mkdir()
    (tmp_path / "trust/ca.crt").write_bytes(place.root.read_bytes())
    remote = "docker://" + place.url.split("//")[1] + "/image:1"
    command = ["skopeo", "--insecure-policy", "copy", "--quiet"]
    run(*command, "--dest-cert-dir", tmp_path / "trust", f"oci:{tmp_path}/image:1", remote)
    run(*command, "--src-cert-dir", tmp_path / "trust", remote, f"oci:{tmp_path}/back:1")
    assert layer_of(tmp_path / "back") == layer
