"""A storm of hostile clients. They send requests, WebSocket frames and garbage to a program of examples/, cut
anywhere. They read slowly or not at all, and leave at any time. A seed decides what they do.

Every client is a thread that makes one connection after the other. It does a few actions on each connection. Some
connections stay open afterwards, unread, until there are too many of them.
"""

import contextlib
import random
import socket
import struct
import threading
import time

from websocket_frames import MASK, frame, frame_16, frame_64_start, handshake
from wire import Wire, request

CLIENTS = 8
MOST_LEFT_OPEN = 40
OPCODES = range(16)


class Storm:
    def __init__(self, port, targets, seed):
        self.port, self.targets, self.seed = port, targets, seed
        self.connections = self.actions = 0
        self.failures = []
        self.left_open = []
        self.lock = threading.Lock()

    def blow(self, seconds):
        """Runs the storm. Returns when the time is over and every connection is closed."""
        end = time.monotonic() + seconds
        threads = [threading.Thread(target=self._client, args=(number, end), daemon=True)
                   for number in range(CLIENTS)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join(seconds + 60)
            assert not thread.is_alive(), f"a client hangs, seed {self.seed}"
        for sock in self.left_open:
            sock.close()
        self.left_open.clear()
        assert not self.failures, self.failures

    def _client(self, number, end):
        chance = random.Random(f"{self.seed} {number} {self.connections}")
        while time.monotonic() < end and not self.failures:
            try:
                self._connection(chance)
            except OSError as error:
                if isinstance(error, ConnectionRefusedError):
                    self.failures.append(f"nobody listens any more, seed {self.seed}")
            except Exception as error:  # a mistake in the storm itself must not be lost in its thread
                self.failures.append(repr(error))

    def _connection(self, chance):
        sock = socket.socket()
        try:
            if chance.random() < 0.2:
                sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
            sock.settimeout(5)
            sock.connect(("127.0.0.1", self.port))
            sock.settimeout(0.05)
            actions = chance.choices(ACTIONS, WEIGHTS, k=chance.randint(1, 6))
            with self.lock:
                self.connections += 1
                self.actions += len(actions)
            with contextlib.suppress(OSError):  # the server has closed the connection, or does not read
                for action in actions:
                    action(self, sock, chance)
            self._leave(sock, chance)
        except OSError:
            sock.close()
            raise

    def _leave(self, sock, chance):
        way = chance.random()
        if way < 0.2:
            sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        elif way < 0.4:
            sock.shutdown(socket.SHUT_WR)
        if way < 0.3 or way > 0.5:
            sock.close()
            return
        with self.lock:
            self.left_open.append(sock)
            old = self.left_open.pop(0) if len(self.left_open) > MOST_LEFT_OPEN else None
        if old:
            old.close()

    # The actions

    def request(self, sock, chance):
        self._send(sock, chance, self._any_request(chance))

    def changed_request(self, sock, chance):
        data = bytearray(self._any_request(chance))
        for _ in range(chance.randint(1, 5)):
            data[chance.randrange(len(data))] = chance.choice(b"\r\n\0 :/?.\xff" + bytes([chance.randrange(256)]))
        self._send(sock, chance, bytes(data))

    def many_requests(self, sock, chance):
        one = self._any_request(chance)
        for _ in range(chance.randint(1, 200)):
            sock.sendall(one)

    def garbage(self, sock, chance):
        self._send(sock, chance, chance.randbytes(chance.choice([1, 10, 1000, 5000])))

    def upgrade(self, sock, chance):
        wrong = chance.choice([{}, {}, {}, {"key": ""}, {"version": "8"}, {"target": chance.choice(self.targets)}])
        self._send(sock, chance, handshake(**wrong))

    def frames(self, sock, chance):
        self._send(sock, chance, b"".join(any_frame(chance) for _ in range(chance.randint(1, 20))))

    def many_frames(self, sock, chance):
        self._send(sock, chance, any_frame(chance) * chance.choice([100, 1000, 5000]))

    def read(self, sock, chance):
        sock.recv(chance.choice([1, 100, 1 << 20]))

    def read_all(self, sock, _):
        deadline = time.monotonic() + 1
        while time.monotonic() < deadline and sock.recv(1 << 20):
            pass

    def rest(self, _, chance):
        time.sleep(chance.random() / 20)

    # The bytes to send

    def _any_request(self, chance):
        body = chance.randbytes(chance.choice([0, 0, 1, 100]))
        method = chance.choice(["GET"] * 6 + ["HEAD", "POST", "CONNECT", "get"])
        headers = chance.choice([[], [], ["Connection: Keep-Alive"], ["Connection: close"], ["Content-Length: -1"],
                                 ["X: " + "x" * 3000], ["Transfer-Encoding: chunked"]])
        text = request(chance.choice(["h", ""]), chance.choice(self.targets), method, headers, body)
        return text.replace(b"HTTP/1.1", b"HTTP/1.0", 1) if chance.random() < 0.3 else text

    @staticmethod
    def _send(sock, chance, data):
        cut = chance.randrange(len(data) + 1) if chance.random() < 0.5 else 0
        sock.sendall(data[:cut])
        if cut and chance.random() < 0.5:
            time.sleep(0.005)
        sock.sendall(data[cut:])


ACTIONS = [Storm.request, Storm.changed_request, Storm.many_requests, Storm.garbage, Storm.upgrade, Storm.frames,
           Storm.many_frames, Storm.read, Storm.read_all, Storm.rest]
WEIGHTS = [6, 2, 1, 1, 4, 5, 1, 3, 3, 2]


def any_frame(chance):
    payload = chance.choice([b"", b"hello", "ünïcödé".encode(), chance.randbytes(chance.randrange(126))])
    kind = chance.random()
    if kind < 0.6:
        return frame(payload, chance.choice([1, 1, 1, 2, 9, chance.choice(OPCODES)]), fin=chance.random() < 0.8)
    if kind < 0.7:
        return frame_16(b"x" * chance.choice([126, 4096, 4097]), chance.choice("<>"))
    if kind < 0.8:
        return frame_64_start(chance.choice([0, 1, 70000, 1 << 20, (1 << 20) + 1, 1 << 63]))
    if kind < 0.9:
        return b"\x81\x05hello"  # without a mask
    return bytes([chance.randrange(256), chance.randrange(256)]) + MASK + payload


class CapriciousUpstream:
    """An upstream whose response is right, garbage, unfinished, endless, or missing."""

    def __init__(self, seed):
        self.chance = random.Random(seed)
        self.listener = socket.create_server(("127.0.0.1", 0), backlog=64)
        self.port = self.listener.getsockname()[1]
        threading.Thread(target=self._serve, daemon=True).start()

    def _serve(self):
        with contextlib.suppress(OSError):  # the listener is closed
            while True:
                sock = self.listener.accept()[0]
                sock.settimeout(0.2)
                threading.Thread(target=self._reply, args=(sock,), daemon=True).start()

    def _reply(self, sock):
        with sock, contextlib.suppress(OSError):
            for _ in range(self.chance.randint(0, 3)):
                if not sock.recv(1 << 16):
                    return
                sock.sendall(self.chance.choice([
                    b"HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello", b"HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\n",
                    self.chance.randbytes(3000), bytes(1 << 20), b""]))
            if self.chance.random() < 0.3:
                sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))

    def close(self):
        with contextlib.suppress(OSError):
            self.listener.shutdown(socket.SHUT_RDWR)
        self.listener.close()


class Bystander:
    """A client that sends correct requests all the time, each on a new connection, and has to be answered always."""

    def __init__(self, port, question, answer):
        self.port, self.question, self.answer = port, question, answer
        self.failure = None
        self.answers = 0
        self.is_over = threading.Event()
        self.thread = threading.Thread(target=self._ask, daemon=True)
        self.thread.start()

    def _ask(self):
        try:
            while not self.is_over.wait(0.2):
                wire = Wire.connect(self.port)
                wire.send(self.question)
                head, _ = wire.read_reply()
                wire.close()
                assert head.startswith(self.answer), head
                self.answers += 1
        except Exception as error:  # shown by stop()
            self.failure = error

    def stop(self):
        self.is_over.set()
        self.thread.join(60)
        assert self.failure is None, repr(self.failure)
        assert self.answers > 0
