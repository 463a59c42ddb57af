"""The measured servers and their upstreams, which are started for the run and ended after it.

There are two jobs. Each has a folder in docs/peers with the configuration of every server for it: `http` relays two
names on one port, `https` does so over TLS and redirects the other port. The servers run with those configurations.
Only ports and paths are replaced, and lines are added that keep a server's files within the run's folder."""

import contextlib
import os
import re
import resource
import shlex
import subprocess
from pathlib import Path

from process import LOAD_CORE, Server, free_port
from sources import ROOT
from upstream import CountedUpstream

PEERS = ROOT / "docs" / "peers"
PROGRAMS = ROOT / "build" / "release" / "bench"
JOBS = ("http", "https")
HOST = "one.example"  # goes to nginx, which serves the files
COUNTED = "two.example"  # goes to the upstream that counts

# Started as root, nginx would become a user who cannot enter the temporary folder.
USER = "user root;" if os.geteuid() == 0 else ""

TEMP_PATHS = "".join(f" {kind}_temp_path {kind};" for kind in ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))

UPSTREAM = """
worker_processes 1;
worker_rlimit_nofile 8192;
events {{ worker_connections 4096; }}
http {{
  access_log off; sendfile on; keepalive_requests 1000000000;
  server {{ listen 127.0.0.1:{port} backlog=4096; root {www}; }}
}}
"""

CADDY = "{{\n\tadmin off\n\thttp_port {http}\n\thttps_port {https}\n}}\n"


def adapted(text, ports, folder):
    """A configuration with its ports replaced, and with its certificates in `folder`. `ports` maps each port of the
    text to the one that replaces it."""
    text = re.sub(r"\b(80|443|3000|3001)\b", lambda found: str(ports[int(found[0])]), text)
    return re.sub(r"\b(?:key|crt|both)\.pem\b", lambda found: f"{folder}/{found[0]}", text)


def without_comments(text):
    return "".join(line for line in text.splitlines(True) if not line.startswith("#"))


def configuration_lines(job, file):
    """How many lines the configuration has; comments do not count."""
    return len(without_comments((PEERS / job / file).read_text()).splitlines())


class Bench:
    """All the servers of a run, in a temporary folder that the caller owns. `counted` is the upstream that counts.
    `proxies` are the measured servers, by job and name."""

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
            "nginx": lambda job: self._nginx("nginx", job, "nginx.conf"),
            "nginx unpooled": lambda job: self._nginx("nginx unpooled", job, "nginx_unpooled.conf"),
            "haproxy": self._haproxy,
            "caddy": self._caddy,
            "floor": lambda job: self._floor("floor", job),
            "select floor": lambda job: self._floor("select floor", job, "select"),
        }

    def start(self, wanted):
        """`wanted`: pairs of a job and a server's name."""
        self._make_files()
        self.counted = CountedUpstream(self.counted_port)
        text = UPSTREAM.format(port=self.upstream_port, www=self.folder / "www")
        self._start(self._nginx_of("upstream", text, self.upstream_port, core=LOAD_CORE))
        for job, name in wanted:
            self.proxies[job, name] = self.make(name, job)
            try:
                self._start(self.proxies[job, name])
            except (OSError, RuntimeError):
                pass  # each workload tries to start it again, and notes the failure

    def make(self, name, job):
        """Makes another server of that name, with ports of its own, and does not start it."""
        return self._makers[name](job)

    @contextlib.contextmanager
    def fresh(self, name, job):
        """A server of that name that has not served anything yet. It ends with the context."""
        server = self.make(name, job)
        try:
            self._start(server)
            yield server
        finally:
            server.stop()

    def _start(self, server):
        self.running.append(server)  # first, so that stop() ends it whatever happens
        server.start()

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
            # The address is also a DNS name, because wrk asks for it as one.
            + ["-addext", f"subjectAltName=DNS:{HOST},DNS:{COUNTED},DNS:127.0.0.1,IP:127.0.0.1"]
            + ["-keyout", str(key), "-out", str(crt)],
            check=True,
            capture_output=True,
        )
        (self.folder / "both.pem").write_text(crt.read_text() + key.read_text())

    def _configured(self, job, file):
        """Returns a configuration on free ports, these ports, and the port that is measured."""
        ports = {80: free_port(), 443: free_port(), 3000: self.upstream_port, 3001: self.counted_port}
        text = adapted((PEERS / job / file).read_text(), ports, self.folder)
        return text, ports, ports[443 if job == "https" else 80]

    def _mivo(self, job):
        text, _, port = self._configured(job, "mivo")
        return Server("mivo", [self.mivo_program, *shlex.split(text)[1:]], port, tls=job == "https", job=job)

    def _nginx(self, name, job, file):
        text, _, port = self._configured(job, file)
        return self._nginx_of(name, text, port, tls=job == "https", job=job)

    def _nginx_of(self, name, text, port, **options):
        folder = self._new_folder()
        config = folder / "nginx.conf"
        config.write_text(text.replace("http {", "http {" + TEMP_PATHS, 1))
        globals_ = f"daemon off; pid {folder}/pid; {USER}"
        command = ["nginx", "-p", str(folder), "-e", str(folder / "error.log"), "-g", globals_, "-c", str(config)]
        return Server(name, command, port, **options)

    def _haproxy(self, job):
        text, _, port = self._configured(job, "haproxy.cfg")
        config = self._new_folder() / "haproxy.cfg"
        config.write_text(text)
        return Server("haproxy", ["haproxy", "-db", "-f", str(config)], port, tls=job == "https", job=job)

    def _caddy(self, job):
        text, ports, port = self._configured(job, "Caddyfile")
        folder = self._new_folder()
        config = folder / "Caddyfile"
        config.write_text(CADDY.format(http=ports[80], https=ports[443]) + text)
        command = ["caddy", "run", "--adapter", "caddyfile", "--config", str(config)]
        environment = {"HOME": str(folder), "XDG_DATA_HOME": str(folder), "XDG_CONFIG_HOME": str(folder)}
        return Server("caddy", command, port, tls=job == "https", environment=environment, job=job)

    def _floor(self, name, job, *options):
        port = free_port()
        command = [str(PROGRAMS / "floor"), str(port), str(self.upstream_port), *options]
        return Server(name, command, port, job=job)

    def stop(self):
        for server in self.running:
            try:
                server.stop()
            except OSError:
                pass  # the other servers must still be ended
        if self.counted:
            self.counted.close()
