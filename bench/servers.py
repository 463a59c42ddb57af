"""The servers under measurement and the upstream behind them, each started for the run and ended after it."""

import os
import resource
import signal
import socket
import subprocess
import time
from dataclasses import dataclass
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
PROXY_CORE = "0"  # the proxy has one core to itself,
LOAD_CORE = "1"  # load and upstream share the other
HOST = "bench"

# As root, nginx would serve files as a user who cannot enter the temporary folder.
USER = "user root;" if os.geteuid() == 0 else ""

TEMP_PATHS = "".join(
    f"{kind}_temp_path {{folder}}/{kind};" for kind in ("client_body", "proxy", "fastcgi", "uwsgi", "scgi")
)


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def wait_for(port, process):
    deadline = time.monotonic() + 10
    while time.monotonic() < deadline:
        if process.poll() is not None:
            raise RuntimeError(f"{process.args} ended with {process.returncode}")
        try:
            socket.create_connection(("127.0.0.1", port), 1).close()
            return
        except OSError:
            time.sleep(0.001)
    raise RuntimeError(f"{process.args} does not listen on {port}")


@dataclass
class Processor:
    """Processor time in seconds: `total` from the scheduler's nanoseconds, the split from clock ticks."""

    total: float
    user: float
    system: float

    def __sub__(self, other):
        return Processor(self.total - other.total, self.user - other.user, self.system - other.system)


class Server:
    """A running process that listens on `port`, and on `tls_port` if it has one."""

    def __init__(self, name, command, port, core, tls_port=None):
        self.name = name
        self.port = port
        self.tls_port = tls_port
        begin = time.monotonic()
        self.process = subprocess.Popen(
            ["taskset", "-c", core, *command], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL
        )
        wait_for(port, self.process)
        self.start_ms = (time.monotonic() - begin) * 1000
        self.pid = self._worker()

    def _worker(self):
        """The process that does the work: nginx has a master above it."""
        children = subprocess.run(
            ["pgrep", "-P", str(self.process.pid)], capture_output=True, text=True
        ).stdout.split()
        return int(children[0]) if children else self.process.pid

    def url(self, path, tls=False):
        return f"https://127.0.0.1:{self.tls_port}{path}" if tls else f"http://127.0.0.1:{self.port}{path}"

    def processor(self):
        total = int(Path(f"/proc/{self.pid}/schedstat").read_text().split()[0]) / 1e9
        fields = Path(f"/proc/{self.pid}/stat").read_text().rsplit(")", 1)[1].split()
        ticks = os.sysconf("SC_CLK_TCK")
        return Processor(total, int(fields[11]) / ticks, int(fields[12]) / ticks)

    def memory(self, field="VmRSS"):
        """KiB: VmRSS is resident now, VmHWM the most since the last reset_peak()."""
        for line in Path(f"/proc/{self.pid}/status").read_text().splitlines():
            if line.startswith(field + ":"):
                return int(line.split()[1])
        raise KeyError(field)

    def reset_peak(self):
        Path(f"/proc/{self.pid}/clear_refs").write_text("5")

    def stop(self):
        self.process.send_signal(signal.SIGINT if self.name == "mivo" else signal.SIGTERM)
        self.process.wait(10)


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
  server {{
    listen 127.0.0.1:{port} backlog=1024;
    listen 127.0.0.1:{tls_port} ssl backlog=1024;
    ssl_certificate {folder}/../crt.pem; ssl_certificate_key {folder}/../key.pem;
    location / {{
      proxy_pass http://{target}; proxy_http_version 1.1; proxy_set_header Host $host;
      proxy_set_header Connection ""; proxy_set_header X-Forwarded-For $remote_addr;
    }}
  }}
"""

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
  bind 127.0.0.1:{tls_port} ssl crt {folder}/../both.pem
  option forwardfor
  default_backend out
backend out
  http-reuse always
  server one 127.0.0.1:{upstream}
"""


def nginx(folder, name, http, port, core, tls_port=None):
    folder.mkdir(parents=True)
    config = folder / "nginx.conf"
    config.write_text(NGINX.format(folder=folder, http=http, user=USER))
    command = ["nginx", "-p", str(folder), "-e", str(folder / "error.log"), "-c", str(config)]
    return Server(name, command, port, core, tls_port)


class Bench:
    """All the servers of a run, in a temporary folder that the caller owns."""

    def __init__(self, folder, mivo):
        resource.setrlimit(resource.RLIMIT_NOFILE, (16384, 16384))
        self.folder = Path(folder)
        self.mivo_program = mivo
        self.upstream_port = free_port()
        self.running = []
        self.proxies = []

    def start(self):
        self._make_files()
        site = f"server {{ listen 127.0.0.1:{self.upstream_port} backlog=4096; root {self.folder}/www; }}"
        self._keep(nginx(self.folder / "upstream", "upstream", site, self.upstream_port, LOAD_CORE))
        self.proxies = [
            self._mivo(),
            self._nginx_proxy("nginx", pooled=True),
            self._nginx_proxy("nginx unpooled", pooled=False),
            self._haproxy(),
            self._floor(),
        ]

    def _keep(self, server):
        """Remembers a server, so that stop() ends it whatever happens after."""
        self.running.append(server)
        server.tls = server if server.tls_port else None
        return server

    def _make_files(self):
        (self.folder / "www").mkdir()
        for name, size in (("128", 128), ("16k", 16384), ("1m", 1048576)):
            (self.folder / "www" / name).write_bytes(os.urandom(size))
        with open(self.folder / "www" / "1g", "wb") as file:
            file.truncate(1 << 30)
        key, crt = self.folder / "key.pem", self.folder / "crt.pem"
        subprocess.run(
            ["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj", "/CN=bench"]
            + ["-keyout", str(key), "-out", str(crt)],
            check=True,
            capture_output=True,
        )
        (self.folder / "both.pem").write_text(crt.read_text() + key.read_text())

    def _mivo(self):
        """Two ports: plain on one process would only redirect, so HTTPS has a process of its own."""
        port, tls_port = free_port(), free_port()
        routes = ["-map", HOST, str(self.upstream_port)]
        plain = [self.mivo_program, str(port), *routes]
        server = self._keep(Server("mivo", plain, port, PROXY_CORE))
        tls = [self.mivo_program, "0", "-ssl", str(tls_port), str(self.folder / "key.pem")]
        tls += [str(self.folder / "crt.pem"), *routes]
        server.tls = self._keep(Server("mivo", tls, tls_port, PROXY_CORE, tls_port))
        return server

    def _nginx_proxy(self, name, pooled):
        folder = self.folder / name.replace(" ", "_")
        port, tls_port = free_port(), free_port()
        pool = f"upstream pool {{ server 127.0.0.1:{self.upstream_port}; keepalive 1024; "
        pool += "keepalive_requests 1000000000; }"
        http = PROXY_SITE.format(
            folder=folder,
            port=port,
            tls_port=tls_port,
            upstream=pool if pooled else "",
            target="pool" if pooled else f"127.0.0.1:{self.upstream_port}",
        )
        return self._keep(nginx(folder, name, http, port, PROXY_CORE, tls_port))

    def _haproxy(self):
        folder = self.folder / "haproxy"
        folder.mkdir()
        port, tls_port = free_port(), free_port()
        config = folder / "haproxy.cfg"
        config.write_text(
            HAPROXY.format(folder=folder, port=port, tls_port=tls_port, upstream=self.upstream_port)
        )
        command = ["haproxy", "-db", "-f", str(config)]
        return self._keep(Server("haproxy", command, port, PROXY_CORE, tls_port))

    def _floor(self):
        port = free_port()
        program = str(ROOT / "build" / "release" / "bench" / "floor")
        return self._keep(Server("floor", [program, str(port), str(self.upstream_port)], port, PROXY_CORE))

    def stop(self):
        for server in self.running:
            server.stop()
