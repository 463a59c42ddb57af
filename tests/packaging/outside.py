"""Other people's programs on the library: the code in docs/embedding.md, and a program that runs and answers."""

import hashlib
import pathlib
import re
import signal
import subprocess

import pytest

import passed
from mivo_process import REPOSITORY, ReservedPort
from wire import until

PAGE = (REPOSITORY / "docs/embedding.md").read_text()
WARNINGS = ["-Wall", "-Wextra", "-Wpedantic", "-Wshadow", "-Wconversion", "-Werror"]
PORT = "8081"  # the port of the page, which a free port replaces
SIGPIPE_BIT = 1 << (signal.SIGPIPE - 1)


def blocks(kind):
    """(text of the comment above it, text) of each block of code of this kind on the page."""
    return re.findall(rf"^<!-- ([^>]*) -->\n```{kind}\n(.*?)^```$", PAGE, re.MULTILINE | re.DOTALL)


def block(title):
    """The block of code below this comment."""
    return dict(blocks(r"\w*"))[title]


def output_of(*command, **options):
    """The standard output of a command, which has to succeed."""
    result = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, **options)
    assert result.returncode == 0, f"{command}: {result.stdout}{result.stderr}"
    return result.stdout


def fetch(url):
    return output_of("curl", "-q", "-sS", "-k", "-m", "20", "--noproxy", "*", url)


def digest_of(*paths):
    """The digest of all files of the repository that these paths name."""
    listed = output_of("git", "-C", REPOSITORY, "ls-files", "-z", "--cached", "--others", "--exclude-standard",
                       "--", *paths)
    digest = hashlib.sha256()
    for name in sorted(set(listed.split("\0"))):
        if (REPOSITORY / name).is_file():
            digest.update(name.encode() + b"\0" + (REPOSITORY / name).read_bytes())
    return digest.hexdigest()


class Once:
    """Runs long tests only when necessary. `with Once(name, paths):` skips the test as long as the files are the same
    as when it passed in this build folder. If the work takes more than one test, use the two functions instead."""

    def __init__(self, name, *paths):
        self.digest = passed.digest_of(name, digest_of(*paths))

    def skip_maybe(self):
        if passed.has_passed(self.digest):
            pytest.skip("passed before, and nothing has changed since")

    def note(self):
        passed.note_pass(self.digest)

    def __enter__(self):
        self.skip_maybe()

    def __exit__(self, failure, *_):
        if failure is None:
            self.note()


class Program:
    """A program on the library that somebody has built. `command` starts it, and does not fork."""

    def __init__(self, command, ports):
        self.ports = ports
        self.process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                        stderr=subprocess.PIPE)

    def page(self, scheme, port):
        """The program's answer, as soon as it listens."""
        until(lambda: self.process.poll() is not None or self.listens(port), "a port that listens")
        return fetch(f"{scheme}://127.0.0.1:{port}/")

    @staticmethod
    def listens(port):
        lines = pathlib.Path("/proc/net/tcp").read_text().splitlines()[1:]
        return any(line.split()[1].endswith(f":{port:04X}") and line.split()[3] == "0A" for line in lines)

    def ignores_sigpipe(self):
        status = pathlib.Path(f"/proc/{self.process.pid}/status").read_text()
        return bool(int(re.search(r"^SigIgn:\s*(\w+)$", status, re.M)[1], 16) & SIGPIPE_BIT)

    def interrupt(self):
        """Sends what Ctrl-C sends. Returns the exit status."""
        self.process.send_signal(signal.SIGINT)
        return self.process.wait(15)

    def kill(self):
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait()
        self.process.stderr.close()


@pytest.fixture
def port():
    reserved = ReservedPort()
    yield reserved.port
    reserved.close()


def check_hello(command, port):
    """Starts a hello server, and checks that it does what the page says."""
    program = Program(command, [port])
    try:
        assert program.page("http", port) == block("what hello.cpp answers")
        assert program.ignores_sigpipe()
        assert program.interrupt() == 0
    finally:
        program.kill()


def hello(port):
    """hello.cpp as the page has it, on this port."""
    text = block("hello.cpp")
    assert text.count(PORT) == 1
    return text.replace(PORT, str(port))
