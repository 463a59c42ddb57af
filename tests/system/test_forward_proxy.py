"""forward_proxy: absolute URLs, tunnels, and the hosts that it blocks."""

import hashlib
import http.server
import re
import socket
import ssl
import subprocess
import threading

import pytest

from answers import BAD_GATEWAY, NOT_FOUND
from certificates import Authority
from clients import run
from example_process import every_build
from wire import Wire, reply, request

TUNNEL = 50 << 20


program = every_build("forward_proxy")


@pytest.fixture
def proxy(start_mivo):
    return start_mivo(arguments=["LocalHost", "7.0.0.1"])  # letter case does not count


def test_plain_url__is_fetched_by_curl_and_wget(proxy, python_site, site):
    base, through = f"http://127.0.0.1:{python_site.port}", f"http://127.0.0.1:{proxy.port}"
    urls = [f"{base}/{name}" for name in site.names[:5]]
    whole = "".join(hashlib.sha256(site.read(name)).hexdigest() for name in site.names[:5])
    for client in (["curl", "-q", "-sS", "--noproxy", "", "-x", through],
                   ["wget", "--no-config", "-qO-", "-e", "use_proxy=yes", "-e", f"http_proxy={through}"]):
        before = python_site.connections()
        got = "".join(run("sh", "-c", '"$@" | sha256sum', "-", *client, url).split()[0] for url in urls)
        assert got == whole and python_site.connections() - before == len(urls)


def test_second_request_to_one_host_and_port__takes_the_same_upstream(proxy, connect, listen):
    upstream, wire = listen(), connect(proxy.port)
    host = f"127.0.0.1:{upstream.port}"
    for number in range(2):
        wire.send(request(host, f"http://{host}/a?{number}", headers=["Proxy-Connection: x", "Connection: y"]))
        far = upstream.accept() if number == 0 else far
        assert far.read_head() == f"GET /a?{number} HTTP/1.1\r\nHost: {host}\r\n\r\n".encode()
        far.send(reply(b"yes"))
        assert wire.read_reply()[1] == b"yes"
    assert not upstream.accept_if_waiting()


def test_tunnel__carries_50_mib_each_way(proxy, connect, listen, site):
    upstream, wire = listen(), connect(proxy.port)
    wire.send(request("far", f"127.0.0.1:{upstream.port}", "CONNECT"))
    assert wire.read(19) == b"HTTP/1.1 200 OK\r\n\r\n"
    far = upstream.accept()

    def send(end):
        for piece in site.pieces(TUNNEL):
            end.send(piece)

    digests = {}

    def read(name, end):
        digest, missing = hashlib.sha256(), TUNNEL
        while missing:
            data = end.read(min(missing, 65536))
            digest.update(data)
            missing -= len(data)
        digests[name] = digest.hexdigest()

    threads = [threading.Thread(target=send, args=(end,), daemon=True) for end in (wire, far)]
    threads += [threading.Thread(target=read, args=pair, daemon=True) for pair in (("near", wire), ("far", far))]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join(60)
    assert digests == dict.fromkeys(("near", "far"), site.digest_of_repeated_block(TUNNEL))


@pytest.mark.parametrize("method, target", [("GET", "http://127.0.0.1:{}/"), ("CONNECT", "127.0.0.1:{}")])
def test_unreachable_port__is_a_bad_gateway(proxy, connect, refusing_port, method, target):
    wire = connect(proxy.port)
    wire.send(request("far", target.format(refusing_port), method))
    assert wire.read_to_end() == BAD_GATEWAY


@pytest.mark.parametrize("host", ["localhost", "www.localhost", "a.b.localhost", "LOCALHOST", "localhost."])
def test_blocked_host_or_subdomain_of_it__is_not_found(proxy, connect, listen, host):
    upstream, wire = listen(), connect(proxy.port)
    wire.send(request(host, f"http://{host}:{upstream.port}/"))
    assert wire.read(len(NOT_FOUND)) == NOT_FOUND
    assert not upstream.accept_if_waiting()


@pytest.mark.parametrize("host", ["7.0.0.1", "7.1", "117440513", "0x7.0.0.1", "07.0.0.01", "7.0.0.1.", "7.1\0",
                                  "7.1.\0"])
def test_blocked_address_in_any_spelling__is_not_found(proxy, connect, host):
    wire = connect(proxy.port)
    wire.send(request("far", f"http://{host}/"))
    assert wire.read(len(NOT_FOUND)) == NOT_FOUND


@pytest.mark.parametrize("host", ["a..b", "x" * 64, "a%20b", "a\x01b"])
def test_host_that_is_no_valid_name__is_a_bad_gateway(proxy, connect, host):
    wire = connect(proxy.port)
    wire.send(request("far", f"http://{host}/"))
    assert wire.read_to_end() == BAD_GATEWAY
    proxy.wait_for_line(rf"getaddrinfo\(\) failed for host {re.escape(host)}:80!")


def test_host_of_8_million_dots__takes_little_memory(proxy, connect):
    wire, before = connect(proxy.port), proxy.resident_peak_kib()
    wire.sock.settimeout(60)  # seconds; the program with sanitizers takes some, and on a busy machine many
    wire.send(request("far", "http://" + "." * 8000000 + "/"))
    assert wire.read_to_end() == BAD_GATEWAY
    assert proxy.resident_peak_kib() - before < 400000


LOOP = b"HTTP/1.1 508 Loop Detected\r\nContent-Type: text/plain\r\nContent-Length: 0\r\n\r\n"


@pytest.mark.parametrize("beyond", [0, 65536])  # the resolver takes a port modulo 65536
def test_request_for_the_proxy_itself__makes_it_ask_itself_once(start_mivo, connect, beyond):
    proxy = start_mivo()
    wire = connect(proxy.port)
    wire.send(request("loop", "http:" + f"//127.0.0.1:{proxy.port + beyond}" * 100 + "/"))
    assert wire.read(len(LOOP)) == LOOP
    assert len(proxy.lines(".* HTTP/1.1 .*")) == 2


def test_request_for_the_proxy_itself_from_a_client_that_leaves__makes_it_ask_itself_once(start_mivo, connect):
    proxy = start_mivo()
    wire = connect(proxy.port)
    wire.send(request("loop", "http:" + f"//127.0.0.1:{proxy.port}" * 100 + "/"))
    wire.close()
    connect(proxy.port).send(request("last", "http://127.0.0.1:1/"))
    proxy.wait_for_line(".*http://127.0.0.1:1/.*")
    proxy.expect_idle()
    assert len(proxy.lines(f".*127.0.0.1:{proxy.port}.* HTTP/1.1 .*")) == 2


def test_port_that_the_proxy_has_used_to_ask_itself__is_one_like_any_other_afterwards(start_mivo, connect,
                                                                                       refusing_port):
    proxy = start_mivo()
    wire = connect(proxy.port)
    wire.send(request("loop", f"http://127.0.0.1:{proxy.port}/"))
    assert wire.read(len(LOOP)) == LOOP
    used = int(re.match(r"127\.0\.0\.1:(\d+) GET / ", proxy.lines(".* HTTP/1.1 .*")[1])[1])
    wire.close()
    proxy.wait_until_idle()
    # On 127.0.0.1 the port may not be free again yet.
    other = Wire(socket.create_connection(("127.0.0.1", proxy.port), source_address=("127.0.0.2", used)))
    other.send(request("far", f"http://127.0.0.1:{refusing_port}/"))
    assert other.read_to_end() == BAD_GATEWAY


@pytest.mark.parametrize("host", ["m\u00fcnchen.invalid", "xn--mnchen-3ya.INVALID", "www.xn--mnchen-3ya.invalid"])
def test_blocked_host_beyond_ascii__is_not_found_in_any_spelling(start_mivo, connect, host):
    proxy = start_mivo(arguments=["m\u00fcnchen.invalid"])
    wire = connect(proxy.port)
    wire.send(f"GET http://{host}/ HTTP/1.1\r\nHost: x\r\n\r\n".encode())
    assert wire.read(len(NOT_FOUND)) == NOT_FOUND


def test_tunnel_of_the_proxy_to_itself__goes_nowhere(start_mivo, connect):
    proxy = start_mivo()
    wire = connect(proxy.port)
    wire.send(request("loop", f"127.0.0.1:{proxy.port}", "CONNECT"))
    assert wire.read(19) == b"HTTP/1.1 200 OK\r\n\r\n"
    wire.send(request("loop", f"127.0.0.1:{proxy.port}", "CONNECT"))
    assert wire.read(len(LOOP)) == LOOP


class Page(http.server.BaseHTTPRequestHandler):
    """Answers every request with a page that shows the request's target as it arrived."""

    def do_GET(self):
        body = f"<p>You asked for {self.path}</p>".encode()
        self.send_response(200)
        self.send_header("Content-Type", "text/html")
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def log_message(self, *_):
        pass


def serve(context=None):
    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Page)
    if context:
        server.socket = context.wrap_socket(server.socket, server_side=True)
    threading.Thread(target=server.serve_forever, daemon=True).start()
    return server


@pytest.fixture
def plain_page():
    with serve() as server:
        yield server.server_port
        server.shutdown()


@pytest.fixture
def secure_page(tmp_path):
    authority = Authority(tmp_path, "ecdsa")
    leaf = authority.issue("leaf")
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(leaf.crt, leaf.key)
    with serve(context) as server:
        yield server.server_port, authority.root.crt
        server.shutdown()


def test_https_url__is_fetched_by_curl_through_a_tunnel(proxy, secure_page):
    port, root = secure_page
    told = run("curl", "-q", "-sS", "--noproxy", "", "-x", f"http://127.0.0.1:{proxy.port}",
               "--cacert", str(root), f"https://127.0.0.1:{port}/deep?q=1")
    assert told == "<p>You asked for /deep?q=1</p>"


def test_node__fetches_by_an_absolute_url(proxy, plain_page):
    script = f"""
        require("http").get({{ host: "127.0.0.1", port: {proxy.port}, agent: false,
                               path: "http://127.0.0.1:{plain_page}/from?node" }},
            answer => answer.pipe(process.stdout));"""
    assert run("node", "-e", script) == "<p>You asked for /from?node</p>"


def test_browser__loads_a_page_through_the_proxy(proxy, plain_page, tmp_path):
    # Without the bypass list, a browser connects to this machine directly.
    told = run("chromium", "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
               "--disable-background-networking", "--disable-component-update", "--disable-sync",
               "--disable-dev-shm-usage", f"--user-data-dir={tmp_path}/profile",
               f"--proxy-server=http://127.0.0.1:{proxy.port}", "--proxy-bypass-list=<-loopback>",
               "--dump-dom", f"http://127.0.0.1:{plain_page}/seen", stderr=subprocess.DEVNULL)
    assert "<p>You asked for /seen</p>" in told
