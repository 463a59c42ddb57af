"""Certificates as a real authority issues them, made by the openssl program.

There are a root, which the clients trust; an intermediate, which only the server can show them; and server
certificates for this machine, also under the name that the README uses. Several certificates may share a key file, as
after a renewal.
"""

import pathlib
import subprocess

CONFIGURATION = """
[req]
distinguished_name = name
[name]
[authority]
basicConstraints = critical, CA:TRUE
keyUsage = critical, keyCertSign, cRLSign
subjectKeyIdentifier = hash
[server]
basicConstraints = critical, CA:FALSE
keyUsage = critical, digitalSignature, keyEncipherment
extendedKeyUsage = serverAuth
subjectAltName = DNS:localhost, DNS:www.example.org, IP:127.0.0.1
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid
"""
ALGORITHMS = {
    "rsa": ["RSA", "-pkeyopt", "rsa_keygen_bits:2048"],
    "ecdsa": ["EC", "-pkeyopt", "ec_paramgen_curve:P-256"],
}


class Certificate:
    def __init__(self, key, crt, serial):
        self.key = key  # path
        self.crt = crt  # path; the chain up to the intermediate, or the root alone
        self.serial = serial

    def chain(self):
        """The PEM text of each certificate, the server's first."""
        return pem_blocks(self.crt.read_text())


def pem_blocks(text):
    begin, end = "-----BEGIN CERTIFICATE-----", "-----END CERTIFICATE-----"
    return [begin + part.partition(end)[0] + end for part in text.split(begin)[1:]]


class Authority:
    def __init__(self, folder, kind="rsa"):
        self.folder = pathlib.Path(folder)
        self.kind = kind
        self.configuration = self.folder / "openssl.cnf"
        self.configuration.write_text(CONFIGURATION)
        self.serial = 1000
        self.root = self._sign("root", None, "authority")
        self.intermediate = self._sign("intermediate", self.root, "authority")

    def issue(self, name, key=None):
        """A new server certificate, with an existing key or with a new one."""
        leaf = self._sign(name, self.intermediate, "server", key)
        with open(leaf.crt, "a", encoding="ascii") as chain:
            chain.write(self.intermediate.crt.read_text())
        return leaf

    def _sign(self, name, issuer, extensions, key=None):
        self.serial += 1
        crt, request = self.folder / f"{name}.pem", self.folder / f"{name}.csr"
        if key is None:
            key = self.folder / f"{name}.key"
            openssl("genpkey", "-algorithm", *ALGORITHMS[self.kind], "-out", key)
        openssl("req", "-new", "-config", self.configuration, "-key", key, "-subj", f"/CN=mivo test {name}",
                "-out", request)
        signer = ["-CA", issuer.crt, "-CAkey", issuer.key] if issuer else ["-signkey", key]
        openssl("x509", "-req", "-in", request, *signer, "-set_serial", str(self.serial), "-days", "30",
                "-extfile", self.configuration, "-extensions", extensions, "-out", crt)
        return Certificate(key, crt, self.serial)


def openssl(*arguments):
    subprocess.run(["openssl", *arguments], check=True, stdin=subprocess.DEVNULL, capture_output=True)
