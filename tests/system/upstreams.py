"""Three real web servers behind mivo, and the site that they serve.

Each has `port`, `connections()` (how many connections it has accepted so far) and `close()`.
"""

import functools
import hashlib
import http.server
import pathlib
import random
import subprocess
import threading

from mivo_process import ReservedPort
from wire import DEADLINE, Wire, header, request, until

HERE = pathlib.Path(__file__).resolve().parent
BUFFER = 1 << 20  # the size of mivo's buffers; file sizes around it find the most faults


class Site:
    """A folder of 200 files of many sizes, with the same bytes in every run."""

    SPECIAL_SIZES = (0, 1, 2, 1459, 1460, 1461, 65535, 65536, 65537, BUFFER - 1, BUFFER, BUFFER + 1,
                     2 * BUFFER, 2 * BUFFER + 1, 3 * BUFFER + 12345)

    def __init__(self, folder):
        self.folder = pathlib.Path(folder)
        random_bytes = random.Random(20240229)
        sizes = list(self.SPECIAL_SIZES)
        sizes += [int(2 ** random_bytes.uniform(0, 17)) for _ in range(200 - len(sizes))]
        self.digests = {}
        for number, size in enumerate(sizes):
            name = f"part{number % 7}/file_{number:03}.bin"
            self._write(name, random_bytes.randbytes(size))
        # Long transfers repeat this block. Its length divides no buffer size, so a piece that is lost, doubled or
        # out of order changes the whole.
        self.block = random_bytes.randbytes(1000003)
        self.block_path = self.folder / "block"
        self.block_path.write_bytes(self.block)
        self.names = list(self.digests)

    def _write(self, name, data):
        path = self.folder / name
        path.parent.mkdir(exist_ok=True)
        path.write_bytes(data)
        self.digests[name] = hashlib.sha256(data).hexdigest()

    def read(self, name):
        return (self.folder / name).read_bytes()

    def pieces(self, length):
        """The block, repeated up to `length` bytes, in pieces."""
        while length > 0:
            yield self.block[:length]
            length -= len(self.block)

    def digest_of_repeated_block(self, length):
        digest = hashlib.sha256()
        for piece in self.pieces(length):
            digest.update(piece)
        return digest.hexdigest()


class PythonSite:
    """Python's http.server, in this process. Every path that is no file of the site gets a 404."""

    class Handler(http.server.SimpleHTTPRequestHandler):
        protocol_version = "HTTP/1.1"
        disable_nagle_algorithm = True

        def setup(self):
            super().setup()
            with self.server.lock:
                self.server.accepted += 1

        def do_POST(self):
            body = self.rfile.read(int(self.headers["Content-Length"]))
            self.server.posted.append(body)
            self.send_response(204)
            self.end_headers()

        def log_message(self, *_):
            pass

    class Server(http.server.ThreadingHTTPServer):
        request_queue_size = 512

        def handle_error(self, request, client_address):
            pass  # clients that leave in the middle are part of the tests

    def __init__(self, folder):
        self.server = self.Server(("127.0.0.1", 0), functools.partial(self.Handler, directory=str(folder)))
        self.server.accepted = 0
        self.server.posted = self.posted = []
        self.server.lock = threading.Lock()
        self.port = self.server.server_port
        self.thread = threading.Thread(target=self.server.serve_forever, args=(0.05,), daemon=True)
        self.thread.start()

    def connections(self):
        return self.server.accepted

    def close(self):
        self.server.shutdown()
        self.server.server_close()
        self.thread.join()


class Nginx:
    """nginx with its own configuration and folders. Below /closing/ it closes after each response."""

    CONFIGURATION = """
        daemon off;
        master_process off;
        pid {folder}/nginx.pid;
        events {{ worker_connections 2048; }}
        http {{
          log_format connection '$connection';
          access_log {folder}/nginx_access connection;
          client_body_temp_path {folder}/nginx_body;
          proxy_temp_path {folder}/nginx_proxy;
          fastcgi_temp_path {folder}/nginx_fastcgi;
          uwsgi_temp_path {folder}/nginx_uwsgi;
          scgi_temp_path {folder}/nginx_scgi;
          sendfile on;
          tcp_nodelay on;
          keepalive_requests 1000000;
          server {{
            listen 127.0.0.1:{port} reuseport;
            root {site};
            location /closing/ {{ alias {site}/; keepalive_timeout 0; }}
          }}
        }}
        """

    def __init__(self, site, folder):
        self.folder = pathlib.Path(folder)
        self.reserved = ReservedPort("127.0.0.1")
        self.port = self.reserved.port
        configuration = self.folder / "nginx.conf"
        configuration.write_text(self.CONFIGURATION.format(folder=folder, port=self.port, site=site))
        with open(self.folder / "nginx_output", "wb") as output:
            self.process = subprocess.Popen(
                ["nginx", "-p", folder, "-e", self.folder / "nginx_error", "-c", configuration],
                stdin=subprocess.DEVNULL, stdout=output, stderr=output)
        try:
            until(self._listens, "nginx listens")
        except AssertionError:
            self.close()
            raise

    def _listens(self):
        assert self.process.poll() is None, (self.folder / "nginx_output").read_text()
        try:
            Wire.connect(self.port).close()
            return True
        except ConnectionRefusedError:
            return False

    def connections(self):
        return len(set((self.folder / "nginx_access").read_text().split()))

    def close(self):
        end(self.process)
        self.reserved.close()


class NodeUpstream:
    """upstream.js in Node; see there for its paths."""

    def __init__(self, site, port=0):
        self.process = subprocess.Popen(
            ["node", HERE / "upstream.js", site.folder, site.block_path, str(port)],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE)
        self.port = int(self.process.stdout.readline())
        self.counted = 0

    def count_anew(self):
        """From now on, connections() does not count the connections so far."""
        self.counted = self._accepted() + 1

    def connections(self):
        """The number of connections that it had accepted before the connection of this question."""
        return self._accepted() - self.counted

    def _accepted(self):
        wire = Wire.connect(self.port)
        wire.send(request("node", "/connections"))
        count = int(header(wire.read_head(), b"x-connections")) - 1
        wire.close()
        return count

    def close(self):
        end(self.process)
        self.process.stdout.close()


def end(process):
    """Ends a process that the test started, by its id, and waits for it."""
    process.terminate()
    try:
        process.wait(DEADLINE)
    except subprocess.TimeoutExpired:
        process.kill()
        process.wait()
