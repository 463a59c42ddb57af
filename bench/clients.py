"""The load: each function runs a client program, or is a client itself, and returns what it measured."""

import os
import re
import shlex
import socket
import ssl
import statistics
import subprocess
import time
from contextlib import closing
from dataclasses import dataclass
from typing import Optional


@dataclass
class Figures:
    """What a load generator says about one run. Latencies are in milliseconds, and None where they mean nothing.
    `failed` is a number of requests. `command` is the command that ran, for the report."""

    requests: int
    seconds: float
    p50: Optional[float] = None
    p99: Optional[float] = None
    longest: Optional[float] = None
    failed: int = 0
    command: str = ""


UNITS = {"us": 0.001, "ms": 1.0, "s": 1000.0, "m": 60000.0}


def milliseconds(text):
    found = re.fullmatch(r"([\d.]+)(us|ms|s|m)", text)
    if not found:
        raise RuntimeError(f"{text!r} is no time")
    return float(found.group(1)) * UNITS[found.group(2)]


def run(command, environment=None):
    environment = {**os.environ, **(environment or {})}
    result = subprocess.run(command, capture_output=True, text=True, timeout=120, env=environment)
    if result.returncode != 0:
        raise RuntimeError(f"{shlex.join(command)}\n{result.stdout}\n{result.stderr}")
    return result.stdout


def wrk(url, host, connections, seconds, threads=1):
    """Kept-alive requests, one after the other on each connection."""
    command = ["wrk", f"-t{threads}", f"-c{connections}", f"-d{seconds}s", "--timeout", "10s", "--latency"]
    command += ["-H", f"Host: {host}", url]
    out = run(command)
    requests, taken = re.search(r"(\d+) requests in (\S+),", out).groups()
    if int(requests) < connections:
        raise RuntimeError(f"this was connecting, not asking\n{out}")
    errors = re.search(r"Socket errors: connect (\d+), read (\d+), write (\d+), timeout (\d+)", out)
    statuses = re.search(r"Non-2xx or 3xx responses: (\d+)", out)
    failed = sum(map(int, errors.groups())) if errors else 0
    return Figures(
        requests=int(requests),
        seconds=milliseconds(taken) / 1000,
        p50=milliseconds(re.search(r"\n +50%\s+(\S+)", out).group(1)),
        p99=milliseconds(re.search(r"\n +99%\s+(\S+)", out).group(1)),
        longest=milliseconds(re.search(r"Latency\s+\S+\s+\S+\s+(\S+)", out).group(1)),
        failed=failed + (int(statuses.group(1)) if statuses else 0),
        command=shlex.join(command),
    )


def ab(url, host, connections, seconds):
    """Runs ab, which opens a connection for each request (HTTP/1.0 without keep-alive). Its latencies are left out,
    because they are whole milliseconds. Use this only for plain HTTP: over TLS, ab counts a connection that ends
    without a close_notify as a failure."""
    command = ["ab", "-q", "-t", str(seconds), "-n", str(100000 * seconds), "-c", str(connections)]
    command += ["-H", f"Host: {host}", url]
    out = run(command)
    failed = int(re.search(r"Failed requests:\s+(\d+)", out).group(1))
    statuses = re.search(r"Non-2xx responses:\s+(\d+)", out)
    return Figures(
        requests=int(re.search(r"Complete requests:\s+(\d+)", out).group(1)),
        seconds=float(re.search(r"Time taken for tests:\s+([\d.]+)", out).group(1)),
        failed=failed + (int(statuses.group(1)) if statuses else 0),
        command=shlex.join(command),
    )


def hey(url, host, connections, seconds):
    """A TLS connection for each request, each with a handshake of its own: no session is resumed. hey reads the
    response, so it also reads the session tickets, which come before the response."""
    command = ["hey", "-disable-keepalive", "-z", f"{seconds}s", "-c", str(connections), "-host", host, url]
    out = run(command)
    statuses = {status: int(count) for status, count in re.findall(r"\[(\d+)\]\t(\d+) responses", out)}
    errors = sum(int(count) for count in re.findall(r"^ +\[(\d+)\]\t(?!\d+ responses)", out, re.M))
    return Figures(
        requests=sum(statuses.values()),
        seconds=float(re.search(r"Total:\s+([\d.]+) secs", out).group(1)),
        failed=sum(statuses.values()) - statuses.get("200", 0) + errors,
        command=shlex.join(command),
    )


def curl(url, host, seconds, *options):
    """Requests one after the other, each with a curl of its own, until the time has passed. `p50` is the time to the
    last byte."""
    command = ["curl", "-sSk", "-o", "/dev/null", "-H", f"Host: {host}", *options]
    command += ["-w", "%{http_code} %{time_total}", url]

    def once():
        status, total = run(command).split()
        if status != "200":
            raise RuntimeError(f"{url} answered {status}")
        return float(total)

    return repeated(seconds, once, shlex.join(command))


def tls_context():
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
    context.check_hostname = False
    context.verify_mode = ssl.CERT_NONE
    return context


class Client:
    """One connection that asks for `path`, over TLS if there is a `context`. A client that reads slowly gets a small
    `receive` buffer, so that the system holds few bytes for it."""

    def __init__(self, port, host, path, context=None, receive=None):
        self._request = f"GET {path} HTTP/1.1\r\nHost: {host}\r\n\r\n".encode()
        self.sock = socket.socket()
        self.sock.settimeout(30)
        if receive:
            self.sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive)
        self.sock.connect(("127.0.0.1", port))
        self.sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        if context:
            self.sock = context.wrap_socket(self.sock, server_hostname=host)

    def ask(self):
        self.sock.sendall(self._request)

    def read_head(self):
        """Reads the head of the response. Returns the length of the body and the part of it that has already come."""
        data = b""
        while b"\r\n\r\n" not in data:
            data += self._receive()
        head, body = data.split(b"\r\n\r\n", 1)
        if not head.startswith(b"HTTP/1.1 200"):
            raise RuntimeError(f"the reply begins with {head[:40]}")
        return int(re.search(rb"\r\ncontent-length: *(\d+)", head, re.I).group(1)), body

    def read_reply(self):
        length, body = self.read_head()
        received = len(body)
        while received < length:
            received += len(self._receive())
        return received

    def _receive(self):
        data = self.sock.recv(65536)
        if not data:
            raise RuntimeError("the reply ends early")
        return data

    def close(self):
        self.sock.close()


def repeated(seconds, once, command, pause=lambda: None):
    """Calls `pause` and then `once`, again and again. `once` returns the seconds that it has measured. The calls end
    when these add up to `seconds`. Returns the figures of these times."""
    taken = []
    while sum(taken) < seconds * 1000:
        pause()
        taken.append(once() * 1000)
    return Figures(
        requests=len(taken),
        seconds=sum(taken) / 1000,
        p50=statistics.median(taken),
        p99=sorted(taken)[(len(taken) * 99) // 100],
        longest=max(taken),
        command=f"again and again: {command}",
    )


def fresh_https(port, host, path, seconds):
    """Times from connecting to the last byte of the response, with the handshake; each on a connection of its own."""
    context = tls_context()

    def once():
        begin = time.monotonic()
        with closing(Client(port, host, path, context)) as client:
            client.ask()
            client.read_reply()
            return time.monotonic() - begin

    return repeated(seconds, once, f"connect, handshake, GET {path}, last byte")


def first_bytes(port, host, path, seconds, pause):
    """Times from connecting to the first bytes of the response. Then the client leaves. `pause` waits until the server
    has finished the rest of the response; otherwise that time would count for the next request."""

    def once():
        begin = time.monotonic()
        with closing(Client(port, host, path)) as client:
            client.ask()
            client.read_head()
            return time.monotonic() - begin

    return repeated(seconds, once, f"connect, GET {path}, first bytes, close, pause", pause)
