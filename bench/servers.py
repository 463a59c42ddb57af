"""The servers under measurement and the upstreams behind them: started for the run, ended after it."""

import contextlib
import os
import resource
import subprocess
from pathlib import Path

from process import LOAD_CORE, Server, free_port
from upstream import CountedUpstream

ROOT = Path(__file__).resolve().parents[1]
PROGRAMS = ROOT / "build" / "release" / "bench"
HOST = "bench"  # goes to nginx, which serves the files
COUNTED = "counted"  # goes to the upstream that counts; the path begins with it too

# As root, nginx would serve files as a user who cannot enter the temporary folder.
USER = "user root;" if os.geteuid() == 0 else ""

TEMP_PATHS = "".join(
    f"{kind}_temp_path {{folder}}/{kind};" for kind in ("client_body", "proxy", "fastcgi", "uwsgi", "scgi")
)

NGINX = """
{user} daemon off; worker_processes 1; pid {folder}/pid; error_log {folder}/error.log crit;
worker_rlimit_nofile 8192;
events {{ worker_connections 4096; }}
http {{
  access_log off; sendfile on; keepalive_requests 1000000000; client_max_body_size 0; TEMP_PATHS
  {http}
}}
""".replace("TEMP_PATHS", TEMP_PATHS)

PROXY_SITE = """
  {upstream}
  proxy_http_version 1.1; proxy_request_buffering off;
  proxy_set_header Host $host; proxy_set_header Connection ""; proxy_set_header X-Forwarded-For $remote_addr;
  server {{
    listen 127.0.0.1:{port} backlog=1024;
    listen 127.0.0.1:{tls_port} ssl backlog=1024;
    ssl_protocols TLSv1.2 TLSv1.3;
    ssl_certificate {certificates}/crt.pem; ssl_certificate_key {certificates}/key.pem;
    location / {{ proxy_pass http://{target}; }}
    location /counted {{ proxy_pass http://127.0.0.1:{counted}; }}
  }}
"""

POOL = "upstream pool {{ server 127.0.0.1:{port}; keepalive 1024; keepalive_requests 1000000000; }}"

HAPROXY = """
global
  nbthread 1
  maxconn 4000
defaults
  mode http
  timeout connect 10s
  timeout client 60s
  timeout server 60s
frontend in
  bind 127.0.0.1:{port}
  bind 127.0.0.1:{tls_port} ssl crt {certificates}/both.pem
  option forwardfor
  use_backend counted if {{ path_beg /counted }}
  default_backend out
backend out
  http-reuse always
  server one 127.0.0.1:{upstream}
backend counted
  server one 127.0.0.1:{counted}
"""


def nginx(folder, name, http, port, **options):
    config = folder / "nginx.conf"
    config.write_text(NGINX.format(folder=folder, http=http, user=USER))
    command = ["nginx", "-p", str(folder), "-e", str(folder / "error.log"), "-c", str(config)]
    return Server(name, command, port, **options)


class Bench:
    """All the servers of a run, in a temporary folder that the caller owns. `counted` is the upstream that
    counts; `proxies` are the servers under measurement, by name."""

    def __init__(self, folder, mivo):
        resource.setrlimit(resource.RLIMIT_NOFILE, (16384, 16384))
        self.folder = Path(folder)
        self.mivo_program = mivo
        self.upstream_port = free_port()
        self.counted_port = free_port()
        self.counted = None
        self.running = []
        self.proxies = {}
        self._folders = 0
        self._makers = {
            "mivo": self._mivo,
            "nginx": lambda: self._nginx_proxy("nginx", pooled=True),
            "nginx unpooled": lambda: self._nginx_proxy("nginx unpooled", pooled=False),
            "haproxy": self._haproxy,
            "floor": self._floor,
        }

    def start(self):
        self._make_files()
        self.counted = CountedUpstream(self.counted_port)
        site = f"server {{ listen 127.0.0.1:{self.upstream_port} backlog=4096; root {self.folder}/www; }}"
        self._start(nginx(self._new_folder(), "upstream", site, self.upstream_port, core=LOAD_CORE))
        for name in self._makers:
            self.proxies[name] = self.make(name)
            try:
                self._start(self.proxies[name])
            except (OSError, RuntimeError):
                pass  # each workload tries again, and notes the failure

    def make(self, name):
        """Another server of that name, not started, on ports of its own."""
        return self._makers[name]()

    @contextlib.contextmanager
    def fresh(self, name):
        """A server of that name that has not served anything yet; ended with the context."""
        server = self.make(name)
        try:
            self._start(server)
            yield server
        finally:
            for part in server.processes():
                part.stop()

    def _start(self, server):
        for part in server.processes():
            self.running.append(part)  # first, so that stop() ends it whatever happens
            part.start()

    def _new_folder(self):
        self._folders += 1
        folder = self.folder / str(self._folders)
        folder.mkdir()
        return folder

    def _make_files(self):
        (self.folder / "www").mkdir()
        for name, size in (("128", 128), ("16k", 16384), ("1m", 1048576)):
            (self.folder / "www" / name).write_bytes(os.urandom(size))
        for name, size in (("www/1g", 1 << 30), ("90m", 90 << 20)):
            with open(self.folder / name, "wb") as file:
                file.truncate(size)
        key, crt = self.folder / "key.pem", self.folder / "crt.pem"
        subprocess.run(
            ["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj", "/CN=bench"]
            + ["-keyout", str(key), "-out", str(crt)],
            check=True,
            capture_output=True,
        )
        (self.folder / "both.pem").write_text(crt.read_text() + key.read_text())

    def mivo_command(self, port):
        routes = ["-map", HOST, str(self.upstream_port), "-map", COUNTED, str(self.counted_port)]
        return [self.mivo_program, str(port), *routes]

    def _mivo(self):
        """Two processes: with TLS, the plain port of one would only redirect."""
        port, tls_port = free_port(), free_port()
        server = Server("mivo", self.mivo_command(port), port)
        ssl = ["-ssl", str(tls_port), str(self.folder / "key.pem"), str(self.folder / "crt.pem")]
        server.tls = Server("mivo", self.mivo_command(0) + ssl, tls_port, tls_port=tls_port)
        return server

    def _nginx_proxy(self, name, pooled):
        port, tls_port = free_port(), free_port()
        http = PROXY_SITE.format(
            certificates=self.folder,
            port=port,
            tls_port=tls_port,
            upstream=POOL.format(port=self.upstream_port) if pooled else "",
            target="pool" if pooled else f"127.0.0.1:{self.upstream_port}",
            counted=self.counted_port,
        )
        return nginx(self._new_folder(), name, http, port, tls_port=tls_port)

    def _haproxy(self):
        port, tls_port = free_port(), free_port()
        config = self._new_folder() / "haproxy.cfg"
        config.write_text(
            HAPROXY.format(
                certificates=self.folder,
                port=port,
                tls_port=tls_port,
                upstream=self.upstream_port,
                counted=self.counted_port,
            )
        )
        return Server("haproxy", ["haproxy", "-db", "-f", str(config)], port, tls_port=tls_port)

    def _floor(self):
        port = free_port()
        return Server("floor", [str(PROGRAMS / "floor"), str(port), str(self.upstream_port)], port)

    def stop(self):
        for server in self.running:
            try:
                server.stop()
            except OSError:
                pass  # the others are to be ended all the same
        if self.counted:
            self.counted.close()
