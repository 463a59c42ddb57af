"""TLS records that the test makes itself. No library would send them, but a server has to survive them.

Python does the handshake. Its key log has the keys with which the client sends, and from then on the test writes the
records (RFC 8446, section 5; RFC 5246, section 6.2). Python still reads what the server sends.
"""

import hmac
import ssl
import struct

from cryptography.hazmat.primitives import hashes
from cryptography.hazmat.primitives.ciphers.aead import AESGCM
from cryptography.hazmat.primitives.kdf.hkdf import HKDFExpand

from tls_service import Handshake

ALERT, HANDSHAKE, DATA = 21, 22, 23  # content types
CLIENT_HELLO, NEW_SESSION_TICKET, FINISHED, KEY_UPDATE = 1, 4, 20, 24  # handshake types
TLS_1_2_CIPHER = "ECDHE-ECDSA-AES128-GCM-SHA256"


def handshake_message(kind, body=b""):
    return bytes([kind]) + len(body).to_bytes(3, "big") + body


class Sender13:
    """TLS 1.3, with the suite that OpenSSL prefers: TLS_AES_256_GCM_SHA384."""

    HASH = hashes.SHA384()

    def __init__(self, secret):
        self._use(secret)

    def _use(self, secret):
        self.secret, self.count = secret, 0
        self.cipher = AESGCM(self._expand("key", 32))
        self.iv = int.from_bytes(self._expand("iv", 12), "big")

    def _expand(self, label, length):
        label = b"tls13 " + label.encode()
        info = struct.pack(">HB", length, len(label)) + label + b"\0"
        return HKDFExpand(self.HASH, length, info).derive(self.secret)

    def record(self, content, kind=DATA, padding=0):
        nonce = (self.iv ^ self.count).to_bytes(12, "big")
        self.count += 1
        inner = content + bytes([kind]) + bytes(padding)
        head = struct.pack(">BHH", DATA, 0x0303, len(inner) + 16)
        return head + self.cipher.encrypt(nonce, inner, head)

    def key_update(self, wants_answer=False):
        told = self.record(handshake_message(KEY_UPDATE, bytes([wants_answer])), HANDSHAKE)
        self._use(self._expand("traffic upd", self.HASH.digest_size))
        return told


class Sender12:
    """TLS 1.2 with TLS_1_2_CIPHER. Its Finished was the first record under these keys."""

    def __init__(self, master, client_random, server_random):
        seed = b"key expansion" + server_random + client_random
        block, a = b"", seed
        while len(block) < 40:
            a = hmac.digest(master, a, "sha256")
            block += hmac.digest(master, a + seed, "sha256")
        self.cipher, self.salt, self.count = AESGCM(block[:16]), block[32:36], 1

    def record(self, content, kind=DATA):
        count = struct.pack(">Q", self.count)
        self.count += 1
        sealed = self.cipher.encrypt(self.salt + count, content,
                                     count + struct.pack(">BHH", kind, 0x0303, len(content)))
        return struct.pack(">BHH", kind, 0x0303, len(count) + len(sealed)) + count + sealed


class RecordClient(Handshake):
    """A client that has finished its handshake. `records` makes the records that it sends from then on."""

    def __init__(self, service, folder, version=ssl.TLSVersion.TLSv1_3, **options):
        log = f"{folder}/keys"
        context = service.context()
        context.minimum_version = context.maximum_version = version
        context.set_ciphers(TLS_1_2_CIPHER)
        context.keylog_filename = log
        super().__init__(service, context, **options)
        hello = self.next_flight()
        self.wire.send(hello)
        answer = self.wire.read(43)
        self.wire.unread = answer + self.wire.unread
        self.finish()
        client_random, server_random = hello[11:43], answer[11:43]
        with open(log, encoding="ascii") as file:
            secrets = {(label, number): bytes.fromhex(secret)
                       for label, number, secret in (line.split() for line in file if line[0] != "#")}
        if version == ssl.TLSVersion.TLSv1_3:
            self.records = Sender13(secrets["CLIENT_TRAFFIC_SECRET_0", client_random.hex()])
        else:
            self.records = Sender12(secrets["CLIENT_RANDOM", client_random.hex()], client_random, server_random)

    def send(self, data, **options):
        self.wire.send(self.records.record(data, **options))
