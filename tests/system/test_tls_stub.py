"""The program with a stand-in for libssl. The stand-in logs its calls, lacks some functions, or is no library at all.

The program opens the file that the linker's cache names, without its folder. Therefore a file of that name in
LD_LIBRARY_PATH takes the place of the machine's OpenSSL. If the file is no library, opening it fails at once: the
linker stops its search at a broken file.
"""

import os
import pathlib
import re
import signal
import socket
import subprocess

import pytest

from mivo_process import ReservedPort, programs
from wire import Wire, reply, request, until

HERE = pathlib.Path(__file__).resolve().parent
REPOSITORY = HERE.parents[1]

# The functions of the library, in the order in which the program looks them up.
NAMES = """
    OpenSSL_version_num SSL_load_error_strings SSL_library_init OPENSSL_init_ssl SSL_CTX_new
    SSLv23_server_method SSLv23_client_method TLS_server_method TLS_client_method SSL_CTX_free
    SSL_CTX_use_PrivateKey_file SSL_CTX_use_certificate_file SSL_new SSL_free SSL_set_fd SSL_accept SSL_connect
    SSL_shutdown SSL_read SSL_write SSL_set_verify SSL_CTX_ctrl SSL_get_error SSL_ctrl SSL_get_peer_certificate
    SSL_get1_peer_certificate BIO_s_mem BIO_new PEM_write_bio_X509 BIO_ctrl BIO_free X509_free
""".split()
OLDER_API = ["SSL_load_error_strings", "SSL_library_init", "SSLv23_server_method"]
NEWER_API = ["OpenSSL_version_num", "OPENSSL_init_ssl", "TLS_server_method"]
CHAIN = "SSL_CTX_use_certificate_chain_file"

CERTIFICATE = "-----BEGIN CERTIFICATE-----\nMIIB\n-----END CERTIFICATE-----\n"
RELOADING = "Reloading certificate..."


def name_in_cache():
    """The file name that the machine's own cache has for libssl.so."""
    found = re.search(rb"/(libssl\.so[ -\x7f]*)", pathlib.Path("/etc/ld.so.cache").read_bytes())
    return found[1].decode() if found else "libssl.so"


@pytest.fixture(scope="session")
def compiled(tmp_path_factory):
    """The folder with the compiled stand-ins; a Stage links its TLS library from them."""
    folder = tmp_path_factory.mktemp("stubs")
    for name in ("stub_libssl", "stub_system"):
        subprocess.run(["g++", "-std=c++17", "-O1", "-fPIC", "-c", HERE / f"{name}.cpp", "-o", folder / f"{name}.o"],
                       check=True)
    subprocess.run(["g++", "-shared", folder / "stub_system.o", "-o", folder / "stub_system.so"], check=True)
    subprocess.run(["g++", "-std=c++17", f"-I{REPOSITORY}", HERE / "ask_loader.cpp", REPOSITORY / "tls/import.cpp",
                    "-ldl", "-o", folder / "ask_loader"], check=True)
    return folder


class Stage:
    """A program with its own linker cache, TLS library, clock, certificate and ports."""

    def __init__(self, folder, compiled, program, run_mivo):
        self.folder = pathlib.Path(folder)
        self.compiled = compiled
        self.program = program
        self.run_mivo = run_mivo
        self.libraries = self.folder / "libraries"
        self.libraries.mkdir()
        self.log_path = self.folder / "log"
        self.clock = self.folder / "clock"
        self.key = self.folder / "key.pem"
        self.crt = self.folder / "crt.pem"
        self.crt.write_text(CERTIFICATE)
        self.reserved = ReservedPort()
        self.ssl_port = self.reserved.port
        self.environment = {
            "LD_LIBRARY_PATH": self.libraries, "LD_PRELOAD": compiled / "stub_system.so",
            "MIVO_STUB_LOG": self.log_path, "MIVO_STUB_CLOCK": self.clock,
        }
        self.mivo = None

    def add_library(self, without=(), name=None, more=()):
        script = self.folder / "exports"
        exported = [symbol for symbol in [*NAMES, CHAIN] if symbol not in without]
        script.write_text("{ global: " + " ".join(f"{symbol};" for symbol in exported) + " local: *; };")
        subprocess.run(["g++", "-shared", self.compiled / "stub_libssl.o", f"-Wl,--version-script={script}", *more,
                        "-o", self.libraries / (name or name_in_cache())], check=True)

    def break_library(self, name=None):
        (self.libraries / (name or name_in_cache())).write_text("no library " * 100)

    def set_cache(self, kind, content):
        """Sets what the program finds in the "ETC" or the "VAR" cache; None: there is no file."""
        path = self.folder / f"cache_{kind}"
        if content is not None:
            path.write_bytes(content)
        self.environment[f"MIVO_STUB_{kind}_CACHE"] = path

    def run(self, *arguments):
        settings = [f"{name}={value}" for name, value in self.environment.items()]
        self.mivo = self.run_mivo(*settings, self.program, *arguments)
        return self.mivo

    def run_tls(self, http_port="{port}", hosts=(("h", -1),)):
        maps = [text for host, port in dict(hosts).items() for text in ("-map", host, str(port))]
        return self.run(http_port, "-ssl", str(self.ssl_port), str(self.key), str(self.crt), *maps)

    def serve_tls(self, **options):
        """Starts mivo and waits for the first turn of both servers."""
        mivo = self.run_tls(**options)
        until(lambda: len(mivo.lines("0 connections")) == 2, "the first turn")
        return mivo

    def connect(self):
        return Wire.connect(self.ssl_port)

    def wait_for_exit(self):
        return self.mivo.process.wait(15)

    def interrupt(self):
        self.mivo.process.send_signal(signal.SIGINT)
        assert self.wait_for_exit() == 0
        assert self.mivo.console().endswith("\nShutting down...\n")

    def console(self):
        """The console without the lines that depend on the machine: adapters, counts and request lines."""
        dropped = re.compile(r"[\d.]+|\d+ connections|\[h\] .*|127\.0\.0\.1:.*")
        return "".join(f"{line}\n" for line in self.mivo.console().splitlines() if not dropped.fullmatch(line))

    def log(self):
        return self.log_path.read_text().splitlines() if self.log_path.exists() else []

    def count(self, call):
        return sum(line.startswith(call + "(") for line in self.log())

    def wait_for_call(self, call, count=1):
        until(lambda: self.count(call) >= count, f"{call} x{count}: {self.log()}")

    def initialisation(self, newer=True):
        new = ["OpenSSL_version_num()", "OPENSSL_init_ssl(0, null)", "TLS_server_method()", "SSL_CTX_new(new method)"]
        old = ["SSL_load_error_strings()", "SSL_library_init()", "SSLv23_server_method()", "SSL_CTX_new(old method)"]
        return [f"loaded {name_in_cache()}", *(new if newer else old),
                f"SSL_CTX_use_PrivateKey_file(ctx, {self.key}, 1)",
                f"SSL_CTX_use_certificate_file(ctx, {self.crt}, 1)",
                "SSL_CTX_ctrl(ctx, 33, 1, null)"]

    def missing(self, *names):
        return "Error! Missing export(s) in libssl.so:\n" + "".join(f"{name}\n" for name in names)

    def redirecting(self):
        return f"Redirecting http ({self.mivo.port}) to https ({self.ssl_port})\n"

    def binding(self, *ports):
        return "".join(f"Binding to port {port} on all adapters:\n" for port in ports)

    def close(self):
        self.reserved.close()


@pytest.fixture
def program():
    """A script that sets the environment and then runs the program in its own process."""
    return "env"


@pytest.fixture(params=list(programs().values()), ids=list(programs()))
def stage(request, folder, compiled, run_mivo):
    stage = Stage(folder, compiled, request.param, run_mivo)
    yield stage
    stage.close()


def exchange(wire):
    """Asks for the echo page; returns the lengths of the request and the response."""
    asked = request("h")
    wire.send(asked)
    head, body = wire.read_reply()
    assert head.startswith(b"HTTP/1.1 200 OK\r\n") and body.startswith(b"GET / HTTP/1.1\r\nHost: h\r\n")
    return len(asked), len(head) + len(body)


@pytest.mark.parametrize("newer", [True, False], ids=["newer", "older"])
def test_one_client__exactly_these_calls_in_this_order(stage, newer):
    stage.add_library(without=OLDER_API if newer else NEWER_API)
    stage.serve_tls()
    wire = stage.connect()
    asked, answered = exchange(wire)
    wire.close()
    stage.wait_for_call("SSL_free")
    stage.interrupt()
    assert stage.log() == stage.initialisation(newer) + [
        "SSL_new(ctx)", "SSL_set_fd(s1, a socket)", "SSL_accept(s1)",
        f"SSL_read(s1, 1048576) -> {asked}", "SSL_read(s1, 1048576) -> -1",
        f"SSL_write(s1, {answered}) -> {answered}", "SSL_write(s1, 0) -> 0",
        "SSL_read(s1, 1048576) -> 0", "SSL_shutdown(s1)", "SSL_free(s1)",
        "SSL_CTX_free(ctx)"]
    assert stage.console() == (stage.redirecting() + stage.binding(stage.mivo.port, stage.ssl_port) +
                               "Shutting down...\n")
    assert stage.mivo.errors() == ""


def test_clients_are_there_at_the_end__context_is_freed_and_no_session_is_shut_down(stage):
    stage.add_library()
    stage.serve_tls()
    wires = [stage.connect(), stage.connect()]
    for wire in wires:
        exchange(wire)
    stage.interrupt()
    assert stage.count("SSL_new") == 2
    assert stage.log()[-1] == "SSL_CTX_free(ctx)"
    assert stage.count("SSL_shutdown") == stage.count("SSL_free") == 0
    for wire in wires:
        assert wire.read_to_end() == b""
        wire.close()


def test_no_http_port__https_only(stage):
    stage.add_library()
    stage.serve_tls(http_port="0")
    wire = stage.connect()
    exchange(wire)
    wire.close()
    stage.interrupt()
    assert stage.console() == "Using https only (no http)\n" + stage.binding(stage.ssl_port) + "Shutting down...\n"


def test_no_http_port__requests_are_relayed_all_the_same(stage, listen):
    upstream = listen()
    stage.add_library()
    stage.serve_tls(http_port="0", hosts={"h": upstream.port})
    wire = stage.connect()
    wire.send(request("h", "/x"))
    served = upstream.accept()
    assert served.read_head() == b"GET /x HTTP/1.1\r\nHost: h\r\nX-Forwarded-For: 127.0.0.1\r\n\r\n"
    served.send(reply(b"a body"))
    assert wire.read_reply() == (b"HTTP/1.1 200 OK\r\nContent-Length: 6\r\n\r\n", b"a body")
    wire.close()
    stage.interrupt()


def test_negative_https_port__cannot_be_opened(stage):
    stage.add_library()
    stage.ssl_port = -1
    stage.run_tls(http_port="0")
    assert stage.wait_for_exit() == 0
    assert stage.console() == ("Using https only (no http)\n" + stage.binding(-1) +
                               "getaddrinfo() failed: -8 Servname not supported for ai_socktype\n"
                               "Failed to start server(s).\n")


def test_http_port__every_request_is_sent_to_the_https_port(stage):
    stage.add_library()
    stage.serve_tls()
    wire = Wire.connect(stage.mivo.port)
    wire.send(request(f"h:{stage.mivo.port}", "/a?b", headers=["Connection: keep-alive"]))
    assert wire.read_to_end().decode() == (
        f"HTTP/1.1 301 Moved Permanently\r\nLocation: https://h:{stage.ssl_port}/a\r\nConnection: close\r\n"
        "Content-Length: 0\r\n\r\n")
    wire.close()
    stage.interrupt()
    assert stage.count("SSL_new") == 0


@pytest.mark.parametrize("taken", ["http", "https"])
def test_port_is_taken__failed_to_start_and_good_exit(stage, taken):
    stage.add_library()
    with socket.create_server(("0.0.0.0", 0)) as other:
        port = other.getsockname()[1]
        if taken == "http":
            stage.run_tls(http_port=str(port))
        else:
            stage.ssl_port = port
            stage.run_tls()
        assert stage.wait_for_exit() == 0
    http_port = port if taken == "http" else stage.mivo.port
    assert stage.console() == (
        f"Redirecting http ({http_port}) to https ({stage.ssl_port})\n" +
        stage.binding(*([http_port] if taken == "http" else [http_port, port])) +
        "bind() failed: -1 Bad value for ai_flags\n"
        "Check that the port isn't already taken.\n"
        "This can be done with 'netstat -an' on windows/mac/linux.\n"
        "Failed to start server(s).\n")
    assert stage.log() == stage.initialisation() + ["SSL_CTX_free(ctx)"]


@pytest.mark.parametrize("name", ["OPENSSL_init_ssl", "TLS_server_method", "SSL_CTX_new",
                                  "SSL_CTX_use_PrivateKey_file", "SSL_CTX_use_certificate_file", "SSL_CTX_ctrl"])
def test_name_for_the_start_is_missing__text_and_good_exit(stage, name):
    stage.add_library(without=[name])
    stage.run_tls()
    assert stage.wait_for_exit() == 0
    assert stage.mivo.console() == stage.missing(name)
    assert stage.mivo.errors() == ""


@pytest.mark.parametrize("name", OLDER_API)
def test_older_library_lacks_more__text_lists_every_missing_name_in_order(stage, name):
    without = [*NEWER_API, name, "X509_free", "SSL_connect"]
    stage.add_library(without=without)
    stage.run_tls()
    assert stage.wait_for_exit() == 0
    assert stage.mivo.console() == stage.missing(*sorted(without, key=NAMES.index))


@pytest.mark.parametrize("name", ["SSL_new", "SSL_set_fd", "SSL_accept", "SSL_read", "SSL_write", "SSL_shutdown",
                                  "SSL_free"])
def test_name_for_a_connection_is_missing__text_and_good_exit_when_it_is_called(stage, name):
    stage.add_library(without=[name])
    stage.serve_tls()
    assert "Error!" not in stage.mivo.console()
    wire = stage.connect()
    try:
        exchange(wire)
    except (AssertionError, ConnectionError):
        pass  # the program ends during the exchange, unless only the end of a connection needs the name
    wire.close()
    assert stage.wait_for_exit() == 0
    assert stage.console() == (stage.redirecting() + stage.binding(stage.mivo.port, stage.ssl_port) +
                               stage.missing(name))
    assert stage.mivo.errors() == ""


def test_context_cannot_be_freed__text_at_the_end_and_good_exit(stage):
    stage.add_library(without=["SSL_CTX_free"])
    mivo = stage.serve_tls()
    mivo.process.send_signal(signal.SIGINT)
    assert stage.wait_for_exit() == 0
    assert mivo.console().endswith("\nShutting down...\n" + stage.missing("SSL_CTX_free"))


def test_names_that_are_only_looked_up_are_missing__nothing_is_printed(stage):
    stage.add_library(without=[
        "SSLv23_client_method", "TLS_client_method", "SSL_connect", "SSL_set_verify", "SSL_get_error", "SSL_ctrl",
        "SSL_get_peer_certificate", "SSL_get1_peer_certificate", "BIO_s_mem", "BIO_new", "PEM_write_bio_X509",
        "BIO_ctrl", "BIO_free", "X509_free"])
    stage.serve_tls()
    wire = stage.connect()
    exchange(wire)
    wire.close()
    stage.interrupt()
    assert "Error!" not in stage.mivo.console()
    assert stage.mivo.errors() == ""


def test_no_library__https_prints_every_name_and_ends_well(stage):
    stage.break_library()
    stage.run_tls()
    assert stage.wait_for_exit() == 0
    assert stage.mivo.errors() == "Unable to load libssl.so\n"
    assert stage.mivo.console() == "Unable to load libssl.so\n" + "".join(f"{name}\n" for name in NAMES)


def test_no_library__plain_mode_serves(stage):
    stage.break_library()
    mivo = stage.run("{port}", "-map", "h", "-1")
    mivo.wait_for_line("0 connections")
    wire = Wire.connect(mivo.port)
    exchange(wire)
    wire.close()
    stage.interrupt()
    assert mivo.errors() == "Unable to load libssl.so\n"


@pytest.mark.parametrize("function", ["SSL_CTX_new", "SSL_new"])
def test_library_gives_null__clients_are_refused_and_the_rest_works(stage, function):
    stage.add_library()
    stage.environment["MIVO_STUB_NULL"] = function
    stage.serve_tls()
    for _ in range(2):
        wire = stage.connect()
        assert wire.read_to_end() == b""
        wire.close()
    plain = Wire.connect(stage.mivo.port)
    plain.send(request("h"))
    assert plain.read_to_end().startswith(b"HTTP/1.1 301 ")
    plain.close()
    stage.interrupt()
    calls = stage.log()[stage.log().index("SSL_CTX_new(new method)") + 1:]
    if function == "SSL_CTX_new":
        assert [call for call in calls if call != "SSL_CTX_free(null)"] == []
    else:
        assert calls == stage.initialisation()[5:] + ["SSL_new(ctx)"] * 2 + ["SSL_CTX_free(ctx)"]


def replace_certificate(stage, certificates, age):
    """Writes a file with this number of certificates. The file looks modified `age` seconds after the last one."""
    before = stage.crt.stat().st_mtime
    stage.crt.write_text(CERTIFICATE * certificates)
    os.utime(stage.crt, (before + age, before + age))


def test_certificate_changes__reloaded_with_its_chain_and_without_the_old_one(stage):
    stage.crt.write_text(CERTIFICATE * 3)
    stage.add_library()
    mivo = stage.serve_tls()
    load, load_chain = stage.initialisation()[6], f"{CHAIN}(ctx, {stage.crt})"
    wanted = [load, load_chain]
    # At the start the file has a chain. It changes four times: to a chain again, to no chain (mivo removes the old
    # one), to no chain again (there is nothing to remove), and to a chain.
    for step, (certificates, calls) in enumerate(
            [(2, [load, load_chain]), (1, [load, load_chain]), (1, [load]), (2, [load, load_chain])], start=1):
        replace_certificate(stage, certificates, age=5)
        stage.clock.write_text(str(61 * step))
        until(lambda count=step: len(mivo.lines(re.escape(RELOADING))) == count, "the reload")
        wanted += calls
        until(lambda: [call for call in stage.log() if "certificate" in call] == wanted, f"{wanted}: {stage.log()}")
    stage.interrupt()
    assert stage.count("SSL_CTX_use_PrivateKey_file") == 1
    assert mivo.lines(re.escape(RELOADING)) == [RELOADING] * 4


def test_library_cannot_load_chains__first_certificate_serves(stage):
    stage.crt.write_text(CERTIFICATE * 2)
    stage.add_library(without=[CHAIN, "SSL_CTX_free"])
    mivo = stage.serve_tls()
    wire = stage.connect()
    exchange(wire)
    wire.close()
    mivo.process.send_signal(signal.SIGINT)
    assert stage.wait_for_exit() == 0
    assert mivo.console().endswith("\nShutting down...\n" + stage.missing("SSL_CTX_free"))


CACHES = {
    "versioned_name": (b"\0/usr/lib/x86_64-linux-gnu/libssl.so.77\0", None, "libssl.so.77"),
    "first_of_several": (b"/a/libssl.so.78\0/b/libssl.so.77\0/c/libssl.so\0", None, "libssl.so.78"),
    "after_other_libraries": (b"/a/libssl3.so\0/a/libopenssl.so.1\0/a/libssl.so.77\0", None, "libssl.so.77"),
    "no_slash_before_the_name": (b"/a/mylibssl.so.77\0libssl.so.78\0", None, "libssl.so"),
    "unended_run": (b"/a/libssl.so.77", None, "libssl.so"),
    "high_byte_ends_the_name": (b"/a/libssl.so.7\xff7\0", None, "libssl.so.7"),
    "other_cache": (None, b"/a/libssl.so.77\0", "libssl.so.77"),
    "empty_cache_is_a_cache": (b"", b"/a/libssl.so.77\0", "libssl.so"),
    "first_cache_wins": (b"/a/libssl.so.78\0", b"/a/libssl.so.77\0", "libssl.so.78"),
}


@pytest.mark.parametrize("etc,var,opened", list(CACHES.values()), ids=list(CACHES))
def test_linkers_cache__names_the_file_to_open(stage, etc, var, opened):
    stage.set_cache("ETC", etc)
    stage.set_cache("VAR", var)
    stage.add_library(name=opened)
    stage.run()
    assert stage.wait_for_exit() == 0
    assert stage.log() == [f"loaded {opened}"]
    assert stage.mivo.errors() == ""


@pytest.mark.parametrize("is_broken", [False, True], ids=["good_library", "no_library"])
def test_no_linkers_cache__says_so_and_tries_the_plain_name(stage, is_broken):
    stage.set_cache("ETC", None)
    stage.set_cache("VAR", None)
    if is_broken:
        stage.break_library("libssl.so")
    else:
        stage.add_library(name="libssl.so")
    stage.run()
    assert stage.wait_for_exit() == 0
    broken = "Unable to load libssl.so\n" if is_broken else ""
    assert stage.mivo.errors() == "Unable to find ld.so.cache!\n" + broken
    assert stage.log() == ([] if is_broken else ["loaded libssl.so"])


def test_library_calls_a_function_that_no_library_has__is_opened_anyway(stage):
    """A library may need another one only for unused functions. So it opens as long as nothing makes the call."""
    source = stage.folder / "caller.cpp"
    source.write_text("void nobody_has_this(); void caller() { nobody_has_this(); }")
    stage.add_library(more=["-fPIC", "-Wl,-z,lazy", source])
    stage.run()
    assert stage.wait_for_exit() == 0
    assert stage.log() == [f"loaded {name_in_cache()}"]
    assert stage.mivo.errors() == ""


class Loader:
    """The loader's answers from a separate process. The linker's caches change while that process runs."""

    def __init__(self, folder, compiled):
        self.etc, self.var = pathlib.Path(folder, "etc"), pathlib.Path(folder, "var")
        self.answers, self.told = pathlib.Path(folder, "answers"), pathlib.Path(folder, "told")
        self.count = 0
        with open(self.answers, "wb") as answers, open(self.told, "wb") as told:
            self.process = subprocess.Popen(
                [compiled / "ask_loader"], stdin=subprocess.PIPE, stdout=answers, stderr=told,
                env={"LD_PRELOAD": compiled / "stub_system.so", "MIVO_STUB_ETC_CACHE": self.etc,
                     "MIVO_STUB_VAR_CACHE": self.var})

    def ask(self, name):
        self.process.stdin.write(f"{name}\n".encode())
        self.process.stdin.flush()
        self.count += 1
        until(lambda: self.answers.read_text().count("\n") == self.count, f"an answer for {name}")
        return self.answers.read_text().splitlines()[-1]

    def errors(self):
        return self.told.read_text()

    def close(self):
        self.process.stdin.close()
        assert self.process.wait(15) == 0


@pytest.fixture
def loader(folder, compiled):
    loader = Loader(folder, compiled)
    yield loader
    loader.close()


def test_no_linkers_cache_yet__is_searched_again_at_every_call_and_reported_at_once(loader):
    for count in (1, 2):
        assert loader.ask("libssl.so") == "libssl.so"
        assert loader.errors() == "Unable to find ld.so.cache!\n" * count
    loader.var.write_bytes(b"/a/libssl.so.77\0")
    assert loader.ask("libssl.so") == "libssl.so.77"
    assert loader.errors() == "Unable to find ld.so.cache!\n" * 2


def test_linkers_cache_changes__is_read_again_until_something_is_found_in_it(loader):
    loader.etc.write_bytes(b"/a\0")
    assert loader.ask("libssl.so") == "libssl.so"
    loader.etc.write_bytes(b"/a/libssl.so.77\0")
    assert loader.ask("libssl.so") == "libssl.so.77"
    loader.etc.write_bytes(b"/a/libssl.so.78\0/a/libother.so.1\0")
    assert loader.ask("libssl.so") == "libssl.so.77"
    assert loader.ask("libother.so") == "libother.so"
    assert loader.errors() == ""
