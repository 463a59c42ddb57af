"""Fixtures and clients for a mivo that serves HTTPS: a plugin that the test files load."""

import ctypes
import pathlib
import re
import ssl

import pytest

from certificates import Authority
from mivo_process import ReservedPort
from wire import Wire

# The first OpenSSL that refuses a renegotiation and continues the session. Earlier versions begin the renegotiation.
# The tests send malformed ones, which then end the session.
REFUSES_RENEGOTIATION = (3, 0)


class TlsService:
    """A running mivo with a certificate; its HTTP port redirects. Owns the connections made through it."""

    def __init__(self, start_mivo, certificate, root, hosts, crt=None):
        self.reserved = ReservedPort()
        self.port = self.reserved.port
        self.certificate = certificate
        self.root = root
        self.wires = []
        # A client that uses the address sends it with the port as the host, and the port is only known here.
        hosts = {host.replace("{ssl_port}", str(self.port)): port for host, port in hosts.items()}
        self.mivo = start_mivo(hosts, arguments=["-ssl", str(self.port), str(certificate.key),
                                                 str(crt or certificate.crt)])
        self.url = f"https://localhost:{self.port}"

    def openssl(self):
        """The version of the library that mivo has loaded: (3, 0), or (1, 1)."""
        maps = pathlib.Path(f"/proc/{self.mivo.pid}/maps").read_text()
        path = re.search(r"/\S*/libcrypto\.so\S*", maps)[0]
        number = ctypes.CDLL(f"/proc/{self.mivo.pid}/root{path}").OpenSSL_version_num
        number.restype = ctypes.c_ulong
        return number() >> 28, number() >> 20 & 0xff

    def context(self):
        """A context that trusts the root alone, so the server has to show the intermediate."""
        return ssl.create_default_context(cafile=self.root.crt)

    def connect(self, **options):
        """A TCP connection to the HTTPS port."""
        self.wires.append(Wire.connect(self.port, **options))
        return self.wires[-1]

    def handshake(self):
        """A connection after its handshake, with the certificate verified."""
        tcp = self.connect()
        self.wires.append(Wire(self.context().wrap_socket(tcp.sock, server_hostname="localhost")))
        return self.wires[-1]

    def serial(self):
        """The serial number of the certificate that a new client sees."""
        wire = self.handshake()
        serial = int(wire.sock.getpeercert()["serialNumber"], 16)
        wire.close()
        return serial

    def close(self):
        for wire in self.wires:
            wire.close()
        self.reserved.close()


class Handshake:
    """The client's side of TLS. The test sends its bytes itself, and may cut them anywhere."""

    def __init__(self, service, context=None, **options):
        self.wire = service.connect(**options)
        self.received, self.sent = ssl.MemoryBIO(), ssl.MemoryBIO()
        self.tls = (context or service.context()).wrap_bio(self.received, self.sent, server_hostname="localhost")

    def next_flight(self):
        """The bytes that the client sends next, or b"" when its handshake is done. Reads what it needs for that."""
        while True:
            try:
                self.tls.do_handshake()
                return self.sent.read()
            except ssl.SSLWantReadError:
                if flight := self.sent.read():
                    return flight
                data = self.wire.read_some()
                assert data, "closed during the handshake"
                self.received.write(data)

    def finish(self):
        while flight := self.next_flight():
            self.wire.send(flight)

    def encrypt(self, data):
        self.tls.write(data)
        return self.sent.read()

    def read(self, count):
        """Exactly `count` decrypted bytes."""
        data = b""
        while len(data) < count:
            try:
                data += self.tls.read(count - len(data))
            except ssl.SSLWantReadError:
                self.received.write(self.wire.read_some())
        return data


@pytest.fixture(scope="session")
def authorities(tmp_path_factory):
    return {kind: Authority(tmp_path_factory.mktemp(kind), kind) for kind in ("rsa", "ecdsa")}


@pytest.fixture(scope="session")
def certificates(authorities):
    return {kind: authority.issue("server") for kind, authority in authorities.items()}


@pytest.fixture
def serve_tls(start_mivo, authorities, certificates):
    """serve_tls({host: port}): a TlsService. Its connections are closed before its mivo is checked."""
    started = []

    def serve(hosts, kind="ecdsa", certificate=None, **options):
        started.append(TlsService(start_mivo, certificate or certificates[kind], authorities[kind].root, hosts,
                                  **options))
        return started[-1]

    yield serve
    for service in started:
        service.close()
