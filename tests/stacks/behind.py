"""A server behind mivo. The command of the page starts it, and tests reach it directly, over HTTP and over HTTPS.

Free ports replace the ports of the page: 3000 is the server's, 8080 and 8443 are mivo's.
"""

import contextlib
import http.client
import os
import pathlib
import re
import shutil
import signal
import socket
import ssl
import subprocess
import tempfile

import pytest

from devtools import Browser
from mivo_process import REPOSITORY, Mivo, ReservedPort
from node_packages import node_packages
from page import STACKS
from upstreams import HERE
from wire import until

APPS = pathlib.Path(__file__).resolve().parent / "apps"
LARGE_PACKAGES = pathlib.Path(__file__).resolve().parent / "node"
LARGE_PACKAGES_TARGET = REPOSITORY / "build/node_stacks"
START_TIME = 120  # seconds; some servers compile what they serve
# Debian's Python has Debian's packages. Apache and similar servers are in the second folder.
ENVIRONMENT = {"PATH": "/usr/bin:/usr/sbin:" + os.environ["PATH"], "LC_ALL": "C.UTF-8", "PYTHONDONTWRITEBYTECODE": "1"}


def packages():
    return node_packages(HERE / "node")


def large_packages():
    return node_packages(LARGE_PACKAGES, LARGE_PACKAGES_TARGET)


def debian_version():
    """The version of Debian. Another system counts as the version of the page, because its servers may work, too."""
    text = pathlib.Path("/etc/os-release").read_text()
    told = re.search(r'^VERSION_ID="(\d+)', text, re.MULTILINE)
    return int(told[1]) if told and re.search(r"^ID=debian$", text, re.MULTILINE) else 12


def node_version():
    text = subprocess.run(["node", "--version"], stdout=subprocess.PIPE, check=True).stdout.decode()
    return tuple(int(number) for number in re.findall(r"\d+", text)[:2])


NEED_NODE_20 = ["Fastify", "Vite"]
PACKAGES = {**dict.fromkeys(["Express", "Fastify", "Socket.IO", "Vite"], packages),
            "webpack-dev-server": large_packages}


class Ports:
    """Free ports that stay free, by the ports of the page."""

    def __init__(self):
        self.reserved = {"3000": ReservedPort("127.0.0.1"), "8080": ReservedPort(), "8443": ReservedPort()}

    def put_in(self, text):
        return re.sub(r"\b(3000|8080|8443)\b", lambda match: str(self[match[0]]), text)

    def __getitem__(self, port):
        return self.reserved[port].port

    def close(self):
        for port in self.reserved.values():
            port.close()


class Access:
    """A way to a server. For a way over HTTPS, `root` is the certificate to trust."""

    def __init__(self, port, name, root=None):
        self.port, self.name, self.root = port, name, root
        self.scheme = "https" if root else "http"
        self.url = f"{self.scheme}://{name}"

    def connection(self):
        if self.root:
            context = ssl.create_default_context(cafile=self.root)
            return http.client.HTTPSConnection("127.0.0.1", self.port, timeout=30, context=context)
        return http.client.HTTPConnection("127.0.0.1", self.port, timeout=30)

    @contextlib.contextmanager
    def ask(self, method, path, body=None, headers=None, **options):
        """The response, whose body is still to be read."""
        connection = self.connection()
        try:
            connection.request(method, path, body, {"Host": self.name, **(headers or {})}, **options)
            yield connection.getresponse()
        finally:
            connection.close()

    def read(self, method, path, *arguments, **options):
        """The status, the header fields except Date, and the body."""
        with self.ask(method, path, *arguments, **options) as response:
            fields = {name.lower(): value for name, value in response.getheaders() if name.lower() != "date"}
            return response.status, fields, response.read()


class Behind:
    """A running server and the mivos in front of it."""

    def __init__(self, folder, command, hosts, ports, certificate):
        """Runs `command` in `folder`. `hosts` are mivo's arguments after its port. Takes `ports`."""
        self.folder, self.command, self.hosts = folder, command, hosts
        self.ports, self.certificate = ports, certificate
        self.mivos = []
        self.start()

    def start(self):
        """Starts the server, the first time or again."""
        with open(self.folder / "server_output", "ab") as output:
            self.process = subprocess.Popen(
                ["bash", "-c", "exec " + self.command], cwd=self.folder,
                env={**ENVIRONMENT, "HOME": str(self.folder)}, start_new_session=True,
                stdin=subprocess.DEVNULL, stdout=output, stderr=output)
        try:
            until(self._listens, f"{self.command} listens", START_TIME)
        except AssertionError:
            self.close()
            raise

    def _listens(self):
        assert self.process.poll() is None, self.output()
        try:
            socket.create_connection(("127.0.0.1", self.ports["3000"]), 1).close()
            return True
        except ConnectionRefusedError:
            return False

    def output(self):
        return (self.folder / "server_output").read_text(errors="replace")

    def direct(self, like):
        """A way to the server itself, with the same name as in `like`."""
        return Access(self.ports["3000"], like.name)

    def http(self):
        arguments = self.ports.put_in(self.hosts).split()
        self._start_mivo(str(self.ports["8080"]), *arguments)
        return Access(self.ports["8080"], arguments[1])

    def https(self):
        key, crt = self.certificate
        arguments = self.ports.put_in(self.hosts.replace(":8080", ":8443")).split()
        self._start_mivo("0", "-ssl", str(self.ports["8443"]), str(key), str(crt), *arguments)
        return Access(self.ports["8443"], arguments[1], crt)

    def _start_mivo(self, *arguments):
        self.mivos.append(Mivo(self.folder, arguments))
        self.mivos[-1].wait_until_it_runs()

    def stop(self):
        """Ends the server and every process that it has started: the whole process group, which the test made."""
        try:
            os.killpg(self.process.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        self.process.wait()

    def close(self):
        self.stop()
        try:
            for mivo in self.mivos:
                mivo.interrupt()
        finally:
            for mivo in self.mivos:
                mivo.kill()
            self.ports.close()


@pytest.fixture(scope="session")
def certificate(tmp_path_factory):
    """The paths of a key and a certificate, for the names of the page and for 127.0.0.1."""
    folder = tmp_path_factory.mktemp("certificate")
    names = {stack.map.split()[1].split(":")[0] for stack in STACKS.values()}
    listed = ",".join(["IP:127.0.0.1", "IP:127.0.0.14", *(f"DNS:{name}" for name in sorted(names))])
    subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
                    "-days", "30", "-subj", "/CN=localhost", "-addext", f"subjectAltName={listed}",
                    "-keyout", "key.pem", "-out", "crt.pem"], cwd=folder, check=True, capture_output=True)
    return folder / "key.pem", folder / "crt.pem"


@pytest.fixture
def browser(folder_for_all, put_behind):
    """A Chromium that takes any certificate. It ends before the servers do."""
    chromium = Browser(folder_for_all, "--ignore-certificate-errors")
    yield chromium
    chromium.close()


@pytest.fixture
def folder_for_all():
    """A folder that servers can read even when they give up root's rights."""
    with tempfile.TemporaryDirectory(prefix="mivo_stack_") as path:
        os.chmod(path, 0o755)
        yield pathlib.Path(path)


@pytest.fixture
def put_behind(folder_for_all, certificate):
    """put_behind(name, application): starts the stack of this name behind mivo; see `lay_out`. `command` changes the
    page's command, and `hosts` replaces the page's arguments of mivo."""
    running = []

    def start(name, application, command=lambda text: text, hosts=None, **options):
        if debian_version() < 12:
            pytest.skip("the page is about servers of Debian 12")
        if name in NEED_NODE_20 and node_version() < (20, 19):
            pytest.skip(f"{name} needs Node 20.19")
        stack = STACKS[name]
        folder = folder_for_all / str(len(running)) / application
        ports = Ports()
        lay_out(folder, stack, ports, **options)
        running.append(Behind(folder, ports.put_in(command(stack.server)), hosts or stack.map, ports, certificate))
        return running[-1]

    yield start
    for server in running:
        server.close()


def lay_out(folder, stack, ports, https=False, change=lambda text: text, prepare=None):
    """Makes `folder` a copy of the application of its name, with the page's files. `https` adds the files that help
    over HTTPS. `change` changes the text of each file. `prepare` is a command that runs in the folder at the end."""
    shutil.copytree(APPS / folder.name, folder)
    if folder.name != "site":
        shutil.copytree(APPS / "site", folder.parent / "site")
    if stack.name in PACKAGES:
        (folder / "node_modules").symlink_to(PACKAGES[stack.name]())
    for name, text in [*stack.files.items(), *(stack.https_files.items() if https else [])]:
        with open(folder / name, "a", encoding="utf-8") as file:
            file.write(ports.put_in(change(text)))
    if prepare:
        subprocess.run(["bash", "-c", prepare], cwd=folder, stdin=subprocess.DEVNULL, capture_output=True, check=True)
