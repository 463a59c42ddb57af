"""An upstream that takes large bodies and counts the bytes that it sends. It runs in threads of this process."""

import re
import socket
import threading

PIECE = 65536  # bytes of a send(); the count is wrong by at most this number


class CountedUpstream:
    """GET /N sends N bytes; PUT takes the announced body and then answers. `sent` is the number of body bytes that
    the system has taken for the last GET. There may be only one GET at a time."""

    def __init__(self, port):
        self.sent = 0
        self._listening = socket.create_server(("127.0.0.1", port), backlog=64)
        threading.Thread(target=self._accept, daemon=True).start()

    def _accept(self):
        while True:
            try:
                client, _ = self._listening.accept()
            except OSError:
                return  # closed
            threading.Thread(target=self._serve, args=(client,), daemon=True).start()

    def _serve(self, client):
        with client:
            try:
                while self._one_request(client):
                    pass
            except OSError:
                pass  # the proxy has left; if that was wrong, the client of the run notices it

    def _one_request(self, client):
        data = b""
        while b"\r\n\r\n" not in data:
            more = client.recv(PIECE)
            if not more:
                return False
            data += more
        head, body = data.split(b"\r\n\r\n", 1)
        if head.startswith(b"GET"):
            self._send(client, int(re.match(rb"GET /(\d+) ", head).group(1)))
        else:
            length = int(re.search(rb"\r\ncontent-length: *(\d+)", head, re.I).group(1))
            self._take(client, length - len(body))
        return True

    def _send(self, client, size):
        self.sent = 0
        client.sendall(b"HTTP/1.1 200 OK\r\nContent-Length: %d\r\n\r\n" % size)
        piece = memoryview(bytes(PIECE))
        while self.sent < size:
            self.sent += client.send(piece[: size - self.sent])

    def _take(self, client, missing):
        buffer = bytearray(1 << 20)
        while missing > 0:
            n = client.recv_into(buffer, min(missing, len(buffer)))
            if n == 0:
                return
            missing -= n
        client.sendall(b"HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n")

    def close(self):
        self._listening.shutdown(socket.SHUT_RDWR)
        self._listening.close()
