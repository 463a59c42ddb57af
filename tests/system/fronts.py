"""Proxies in front of mivo that share their connections among all of their clients, and a crowd of such clients.

A front has `port` and `close()`. It passes the names "a" and "b" on, and answers all others itself. An open front
passes all names on.
"""

import hashlib
import http.client
import random
import threading

from repositories import Server

PATIENCE = 20  # seconds


class HAProxy(Server):
    """At most three connections to mivo. On each, a request is sent as soon as the request before it is over."""

    CONFIGURATION = """
        defaults
          mode http
          timeout connect 5s
          timeout client 20s
          timeout server 20s
        frontend clients
          bind 127.0.0.1:{port}
          {filter}
          default_backend mivo
        backend mivo
          http-reuse always
          server mivo 127.0.0.1:{mivo} maxconn 3
        """

    FILTER = "http-request return status 404 unless { hdr(host) -m str a b }"

    def __init__(self, folder, mivo_port, is_open=False):
        super().__init__(folder)
        path = self.folder / "haproxy.conf"
        text = self.CONFIGURATION.format(port=self.port, mivo=mivo_port, filter="" if is_open else self.FILTER)
        path.write_text("\n".join(line.strip() for line in text.splitlines()) + "\n")
        self.start("haproxy", "-db", "-f", path)


class NginxFront(Server):
    """Keeps up to 8 connections to mivo, and passes a body on while the body comes in."""

    CONFIGURATION = """
        daemon off;
        master_process off;
        pid {folder}/nginx.pid;
        events {{ worker_connections 512; }}
        http {{
          access_log off;
          client_body_temp_path {folder}/body;
          proxy_temp_path {folder}/proxy;
          fastcgi_temp_path {folder}/fastcgi;
          uwsgi_temp_path {folder}/uwsgi;
          scgi_temp_path {folder}/scgi;
          upstream mivo {{ server 127.0.0.1:{mivo}; keepalive 8; }}
          server {{
            listen 127.0.0.1:{port} reuseport;
            server_name a b;
            client_max_body_size 0;
            location / {{
              proxy_pass http://mivo;
              proxy_http_version 1.1;
              proxy_set_header Connection "";
              proxy_set_header Host $http_host;
              proxy_request_buffering {buffering};
            }}
          }}
          {filter}
        }}
        """
    BUFFERING = "off"
    FILTER = "server {{ listen 127.0.0.1:{port} default_server; return 404; }}"

    def __init__(self, folder, mivo_port, is_open=False):
        super().__init__(folder)
        path = self.folder / "nginx.conf"
        others = "" if is_open else self.FILTER.format(port=self.port)
        path.write_text(self.CONFIGURATION.format(folder=self.folder, port=self.port, mivo=mivo_port, filter=others,
                                                  buffering=self.BUFFERING))
        self.start("nginx", "-p", self.folder, "-e", self.folder / "errors", "-c", path)


class BufferingNginxFront(NginxFront):
    """Waits until a body is complete, and then passes it on with its length."""

    BUFFERING = "on"


class Crowd:
    """Clients that send requests at the same time, each on its own connection, and check every answer.

    A kind of request is a pair: how its body comes ("none", "length" or "chunks"), and the host. The hosts "a" and
    "b" are upstreams of own_answers.js with these names, "echo" is the echo page, and others are not found.
    """

    def __init__(self, port, kinds, clients, requests):
        self.port, self.kinds, self.requests = port, kinds, requests
        self.own, self.wrong = 0, []
        self.lock = threading.Lock()
        threads = [threading.Thread(target=self._ask_all, args=(number,)) for number in range(clients)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()

    def _ask_all(self, number):
        rng = random.Random(number)
        connection = self._connect()
        for count in range(self.requests):
            body_kind, host = rng.choice(self.kinds)
            pieces = [rng.randbytes(rng.choice([1, 50, 3000, 70000])) for _ in range(rng.randrange(5))]
            wrong = self._ask(connection, body_kind, host, f"/{number}/{count}", pieces)
            with self.lock:
                self.own += not wrong
                self.wrong += [(body_kind, host, wrong)] if wrong else []
            if wrong or host == "unknown":
                connection.close()
                connection = self._connect()
        connection.close()

    def _connect(self):
        return http.client.HTTPConnection("127.0.0.1", self.port, timeout=PATIENCE)

    def _ask(self, connection, body_kind, host, path, pieces):
        """Returns None for the right answer, or else what came instead. A front that answers itself may close before
        it has read the body; that is right, too."""
        body = b"" if body_kind == "none" else b"".join(pieces)
        method = "GET" if body_kind == "none" else "POST"
        try:
            if body_kind == "chunks":
                connection.request(method, path, iter(pieces), encode_chunked=True,
                                   headers={"Host": host, "Transfer-Encoding": "chunked"})
            else:
                connection.request(method, path, body or None, headers={"Host": host})
            answer = connection.getresponse()
            text = answer.read().decode("latin-1")
        except (OSError, http.client.HTTPException) as error:
            return None if host == "unknown" and body else repr(error)
        if host in ("a", "b"):
            digest = hashlib.sha256(body).hexdigest()
            is_own = answer.status == 200 and text == f"{host} {method} {path} {len(body)} {digest}"
        elif host == "echo":
            is_own = answer.status == 200 and text.startswith(f"{method} {path} HTTP/1.1\r\n")
        else:
            is_own = answer.status == 404
        return None if is_own else (path, answer.status, text[:200])
