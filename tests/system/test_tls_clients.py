"""HTTPS with real clients. They trust the root of a test authority and verify the chain that the server shows."""

import hashlib
import pathlib
import re
import ssl
import subprocess
import time
import xml.etree.ElementTree

import pytest

from answers import BAD_GATEWAY, NOT_FOUND, echo_page
from certificates import pem_blocks
from clients import ENVIRONMENT, PATIENCE, curl, run
from test_speed import quickest_tenth
from upstreams import end
from wire import request, until

pytest_plugins = ["tls_service"]

MIB = 1 << 20
GIB = 1 << 30
HELLO = b"hello, world\n"
KINDS = ["rsa", "ecdsa"]
CURL_VERSIONS = {"TLSv1.2": ["--tls-max", "1.2"], "TLSv1.3": ["--tlsv1.3"]}

RATIO_LIMIT = 3  # of HTTPS to plain HTTP on a kept connection
NOISE = 0.001  # seconds
FRESH_LIMIT = 0.060  # seconds; a handshake takes far less, a turn that waits takes 0.1
ROUNDS = 200

NODE_CLIENT = """
const https = require("https"), fs = require("fs"), crypto = require("crypto");
const [url, ca, digestUrl] = process.argv.slice(1);
const agent = new https.Agent({ family: 4, keepAlive: true, maxSockets: 1, ca: fs.readFileSync(ca) });
const get = (path) => new Promise((resolve, reject) => https.get(url + path, { agent }, (response) => {
  const { authorized } = response.socket, protocol = response.socket.getProtocol(), parts = [];
  const reused = response.req.reusedSocket;
  response.on("data", (data) => parts.push(data));
  response.on("end", () => resolve({ authorized, protocol, reused, status: response.statusCode,
    digest: crypto.createHash("sha256").update(Buffer.concat(parts)).digest("hex") }));
}).on("error", reject));
(async () => {
  console.log(JSON.stringify([await get("/small"), await get("/repeat/3000000")]));
  agent.destroy();
})();
"""


@pytest.fixture
def serve(serve_tls, node, refusing_port):
    """A service with an upstream for every name by which a client may reach it."""
    def start(kind="ecdsa", **options):
        return serve_tls({"node": node.port, "echo": -1, "refusing": refusing_port,
                          "localhost:{ssl_port}": node.port}, kind, **options)
    return start


def secure_curl(service, *arguments):
    return curl("--fail", "--cacert", service.root.crt, *arguments)


@pytest.fixture
def s_client(folder):
    """s_client(service, arguments...): one small request with openssl's client; returns what the client prints."""
    def ask(service, *arguments):
        path = pathlib.Path(folder, "s_client_output")
        with open(path, "wb") as output:
            client = subprocess.Popen(
                ["stdbuf", "-oL", "openssl", "s_client", "-connect", f"127.0.0.1:{service.port}", "-servername",
                 "localhost", "-CAfile", service.root.crt, "-verify_return_error", *arguments],
                env=ENVIRONMENT, stdin=subprocess.PIPE, stdout=output, stderr=subprocess.DEVNULL)
        try:
            client.stdin.write(request("node", "/small"))
            client.stdin.flush()
            until(lambda: HELLO in path.read_bytes(), "the response for openssl s_client")
            client.stdin.close()  # this ends the client
            assert client.wait(PATIENCE) == 0
        finally:
            client.stdin.close()
            end(client)
        return path.read_text()
    return ask


@pytest.mark.parametrize("kind", KINDS)
@pytest.mark.parametrize("version", list(CURL_VERSIONS))
def test_curl__trusts_the_chain_and_reuses_its_connection(serve, kind, version):
    service = serve(kind)
    told = secure_curl(service, *CURL_VERSIONS[version], "--write-out",
                       "%{http_version} %{ssl_verify_result} %{num_connects}\n",
                       *(f"{service.url}/small" for _ in range(3)))
    assert told == "hello, world\n1.1 0 1\n" + "hello, world\n1.1 0 0\n" * 2


def test_curl_with_an_older_protocol__is_refused(serve):
    service = serve()
    with pytest.raises(AssertionError, match="gave 35"):
        secure_curl(service, "--ciphers", "DEFAULT:@SECLEVEL=0", "--tlsv1.0", "--tls-max", "1.1", service.url)


def test_curl_that_trusts_others__refuses_the_certificate(serve):
    service = serve()
    with pytest.raises(AssertionError, match="gave 60"):
        curl(service.url)


@pytest.mark.parametrize("kind", KINDS)
@pytest.mark.parametrize("option, version", [("-tls1_2", "TLSv1.2"), ("-tls1_3", "TLSv1.3")])
def test_openssl_client__is_shown_the_whole_chain(serve, s_client, kind, option, version):
    service = serve(kind)
    told = s_client(service, option, "-showcerts")
    assert pem_blocks(told.partition("Server certificate")[0])[:2] == service.certificate.chain()[:2]
    assert len(set(pem_blocks(told))) == 2
    assert re.search(rf"New, {re.escape(version)}, ", told)
    assert "Verify return code: 0 (ok)" in told
    assert "Compression: NONE" in told


@pytest.mark.parametrize("option", ["-tls1_2", "-tls1_3"])
def test_openssl_client_with_an_earlier_session__resumes_it(serve, s_client, folder, option):
    service = serve()
    assert "\nNew, " in s_client(service, option, "-sess_out", f"{folder}/session")
    assert "\nReused, " in s_client(service, option, "-sess_in", f"{folder}/session")


@pytest.mark.parametrize("kind", KINDS)
@pytest.mark.parametrize("version", [ssl.TLSVersion.TLSv1_2, ssl.TLSVersion.TLSv1_3])
def test_python_client__gets_exactly_what_mivo_answers_itself(serve, kind, version):
    service = serve(kind)
    trusted = service.context
    def context():
        only = trusted()
        only.minimum_version = only.maximum_version = version
        return only
    service.context = context
    client = service.handshake()
    assert client.sock.version() == version.name.replace("_", ".")
    for expected in [(request("nowhere"), NOT_FOUND), (request("echo", "/a"), echo_page(request("echo", "/a"))),
                     (request("nowhere"), NOT_FOUND)]:
        client.send(expected[0])
        assert client.read(len(expected[1])) == expected[1]
    client.close()
    client = service.handshake()
    client.send(request("refusing"))
    assert client.read_to_end() == BAD_GATEWAY


def test_node_client__gets_its_bytes_on_one_connection(serve, site):
    service = serve()
    # Node 12 has no option that prefers IPv4, so the script asks for IPv4.
    told = run("env", "-u", "NODE_OPTIONS", "node", "-e", NODE_CLIENT, service.url, service.root.crt)
    def answer(digest, reused):
        return (f'{{"authorized":true,"protocol":"TLSv1.3","reused":{reused},"status":200,'
                f'"digest":"{digest}"}}')
    assert told == (f'[{answer(hashlib.sha256(HELLO).hexdigest(), "false")},'
                    f'{answer(site.digest_of_repeated_block(3000000), "true")}]\n')


def test_gnutls_client__trusts_the_chain_and_gets_its_bytes(serve, folder):
    service = serve()
    path = f"{folder}/gnutls_output"
    with open(path, "wb") as output:
        client = subprocess.Popen(
            ["stdbuf", "-oL", "gnutls-cli", "--x509cafile", service.root.crt, "--port", str(service.port),
             "localhost"], env=ENVIRONMENT, stdin=subprocess.PIPE, stdout=output, stderr=output)
    def told():
        with open(path, "rb") as output:
            return output.read()
    try:
        until(lambda: b"- Simple Client Mode:" in told(), "the handshake of gnutls-cli")
        client.stdin.write(request("node", "/small"))
        client.stdin.flush()
        until(lambda: HELLO in told(), "the response for gnutls-cli")
    finally:
        end(client)
        client.stdin.close()
    assert b"- Status: The certificate is trusted." in told()
    assert b"- Got a certificate list of 2 certificates." in told()


def test_browser_that_opens_the_http_address__ends_on_the_https_page(serve_tls, python_site, site, folder):
    (site.folder / "landing.html").write_text(
        "<!doctype html><body><script>document.write('arrived at ' + location.href)</script></body>")
    service = serve_tls({"localhost:{ssl_port}": python_site.port})
    told = run("chromium", "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
               "--disable-background-networking", "--disable-component-update", "--disable-sync",
               "--disable-dev-shm-usage", "--no-proxy-server", "--ignore-certificate-errors",
               f"--user-data-dir={folder}/profile", "--dump-dom",
               f"http://localhost:{service.mivo.port}/landing.html?query", stderr=subprocess.DEVNULL)
    assert f"arrived at {service.url}/landing.html<" in told


@pytest.mark.parametrize("kind", KINDS)
def test_scanner__finds_nothing_weaker_than_the_defaults_of_openssl(serve, kind):
    service = serve(kind)
    report = xml.etree.ElementTree.fromstring(
        run("sslscan", "--xml=-", "--no-check-certificate", f"localhost:{service.port}"))
    enabled = {f"{entry.get('type')} {entry.get('version')}" for entry in report.iter("protocol")
               if entry.get("enabled") == "1"}
    assert enabled == {"tls 1.2", "tls 1.3"}
    assert "1" not in {entry.get("supported") for entry in report.iter("compression")}
    assert {entry.get("vulnerable") for entry in report.iter("heartbleed")} == {"0"}
    ciphers = {entry.get("cipher") for entry in report.iter("cipher")}
    defaults = set(run("openssl", "ciphers", "-s", "DEFAULT").strip().split(":"))
    assert ciphers and ciphers <= defaults
    assert not [name for name in ciphers if re.search("NULL|EXP|ADH|AECDH|RC4|DES|MD5", name)]


def test_upload_of_64_mib__is_exact(serve, site, folder):
    service = serve()
    path = f"{folder}/upload"
    with open(path, "wb") as upload:
        upload.writelines(site.pieces(64 * MIB))
    assert (secure_curl(service, "--upload-file", path, f"{service.url}/digest")
            == f"{64 * MIB} {site.digest_of_repeated_block(64 * MIB)}")


def test_upload_that_is_echoed__comes_back_exactly(serve, site, folder):
    service = serve()
    sent, received = f"{folder}/sent", f"{folder}/received"
    for size in (1, 16383, 16384, 16385, MIB, 5 * MIB + 3):  # around the size of a record, and of mivo's buffer
        with open(sent, "wb") as upload:
            upload.writelines(site.pieces(size))
        secure_curl(service, "--output", received, "--data-binary", f"@{sent}", f"{service.url}/echo")
        with open(received, "rb") as echoed:
            assert hashlib.sha256(echoed.read()).hexdigest() == site.digest_of_repeated_block(size)


def test_download_of_1_gib__is_exact(serve, site):
    service = serve()
    told = run("sh", "-c", 'curl -q --silent --fail --noproxy "*" --cacert "$0" "$1" | sha256sum',
               service.root.crt, f"{service.url}/repeat/{GIB}")
    assert told.split()[0] == site.digest_of_repeated_block(GIB)


def test_two_hundred_clients_at_once__are_served_each(serve, site):
    service = serve()
    clients = [service.handshake() for _ in range(200)]
    for round_number in range(3):
        for number, client in enumerate(clients):
            client.send(request("node", f"/repeat/{20000 + number + round_number}"))
        for number, client in enumerate(clients):
            assert client.read_reply()[1] == site.block[:20000 + number + round_number]


def seconds_to_ask(client, sent):
    start = time.monotonic()
    assert client.ask(sent) == HELLO
    return time.monotonic() - start


def test_small_reply_on_a_kept_connection__takes_at_most_three_times_as_long_as_without_tls(
        serve, start_mivo, node, connect):
    plain = connect(start_mivo({"node": node.port}).port)
    secure = serve().handshake()
    sent = request("node", "/small")
    pairs = [(seconds_to_ask(plain, sent), seconds_to_ask(secure, sent)) for _ in range(ROUNDS)]
    # A busy machine delays some responses, or even most. A cause that makes every response wait makes the quickest
    # tenth wait, too.
    without, with_tls = map(quickest_tenth, zip(*pairs))
    assert with_tls <= RATIO_LIMIT * without + NOISE, (with_tls, without)


def test_request_on_a_fresh_connection__does_not_wait(serve):
    service = serve()
    context = service.context()
    service.context = lambda: context
    def fresh():
        start = time.monotonic()
        client = service.handshake()
        assert client.ask(request("node", "/small")) == HELLO
        seconds = time.monotonic() - start
        client.close()
        return seconds
    assert quickest_tenth([fresh() for _ in range(40)]) < FRESH_LIMIT
