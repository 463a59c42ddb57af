"""file_server sends files of every size byte for byte, and no file from outside its folder."""

import contextlib
import os
import pathlib

import pytest

from clients import curl_files, wget_files
from example_process import every_build
from websocket_frames import REFUSED, handshake
from wire import request

NOT_FOUND = (b"HTTP/1.1 404 Not Found\r\nContent-Type: text/plain\r\nContent-Length: 23\r\n\r\n",
             b"There is no such file.\n")
MIB = 1 << 20
ESCAPES = ["/../secret", "/%2e%2e/secret", "/%2E./secret", "/..%2fsecret", "/%2e%2e%2fsecret", "/..\\secret",
           "/..%5csecret", "/%252e%252e/secret", "/link", "/folder_link/secret", "/../root_sibling/secret",
           "/sub/../../secret", "{folder}/secret", "/{folder}/secret", "/index.html%00", "/%00", "/pipe",
           "/index.html/", "/empty/", "/none"]


program = every_build("file_server")


@pytest.fixture
def root(folder):
    root = pathlib.Path(folder, "root")
    for path in (root / "sub", root / "empty", pathlib.Path(folder, "root_sibling")):
        path.mkdir(parents=True)
        (path.parent / "secret").touch()
    (root / "secret").unlink()
    for path in (root.parent / "secret", root.parent / "root_sibling/secret"):
        path.write_text("secret")
    (root / "index.html").write_text("top")
    (root / "sub/index.html").write_text("below")
    (root / "link").symlink_to(root.parent / "secret")
    (root / "folder_link").symlink_to(root.parent)
    (root / "a b%.txt").write_text("odd name")
    os.mkfifo(root / "pipe")
    return root


@pytest.fixture
def files(start_mivo, root):
    return start_mivo(arguments=[str(root)])


@pytest.mark.parametrize("size", [0, 1, MIB - 1, MIB, MIB + 1, 5 * MIB])
def test_file_of_any_size__comes_byte_exact_with_its_progress(files, root, connect, site, size):
    data = b"".join(site.pieces(size))
    (root / "file").write_bytes(data)
    wire = connect(files.port)
    head = b"HTTP/1.1 200 OK\r\nContent-Length: %d\r\n\r\n" % size
    wire.send(request("files", "/file", "HEAD"))
    assert wire.read(len(head)) == head
    wire.send(request("files", "/file?query"))
    assert wire.read_reply() == (head, data)
    for sent in [*range(MIB, size, MIB), *([size] if size else [])]:
        files.wait_for_line(rf"\d+ /file: {sent} of {size} bytes")


@pytest.mark.parametrize("target, body", [("/", b"top"), ("/sub", b"below"), ("/sub/", b"below"),
                                          ("/a%20b%.txt", b"odd name"), ("/sub/../index.html", b"top")])
def test_path__is_decoded_and_a_folder_is_its_index(files, connect, target, body):
    assert connect(files.port).ask(request("files", target)) == body


@pytest.mark.parametrize("target", ESCAPES)
def test_path_out_of_the_folder_or_to_nothing__is_not_found(files, folder, connect, target):
    wire = connect(files.port)
    wire.send(request("files", target.replace("{folder}", folder)))
    assert wire.read_reply() == NOT_FOUND


@pytest.mark.parametrize("method", ["POST", "PUT", "DELETE", "get"])
def test_other_method__is_not_allowed(files, connect, method):
    wire = connect(files.port)
    wire.send(request("files", "/", method))
    assert wire.read_reply() == (b"HTTP/1.1 405 Method Not Allowed\r\nAllow: GET, HEAD\r\n"
                                 b"Content-Length: 0\r\n\r\n", b"")


def test_refused_upgrade__is_not_followed_by_a_file(files, root, connect):
    (root / "forged").write_text("HTTP/1.1 200 OK\r\nContent-Length: 6\r\n\r\nforged")
    wire = connect(files.port)
    wire.send(handshake(key="", target="/forged"))
    assert wire.read(len(REFUSED)) == REFUSED
    assert wire.ask(request("files", "/sub")) == b"below"


def test_bytes_after_a_last_request__open_no_file(files, root, connect):
    (root / "file").write_bytes(bytes(8 * MIB))  # more than the system takes at once
    wire, other = connect(files.port), connect(files.port)
    other.ask(request("files"))
    wire.send(b"GET /file HTTP/1.0\r\n\r\n")
    for _ in range(20):
        wire.wait_delivered()
        other.ask(request("files"))  # after the second answer, the server has seen the byte
        other.ask(request("files"))
        assert len(files.descriptors() - files.idle_descriptors) == 3  # two clients and a file
        wire.send(b"x")
    assert len(wire.read_to_end()) > 8 * MIB
    assert not files.lines("Warning! .*")  # there was no second answer to drop


def test_client_that_keeps_asking_without_reading__takes_no_more_files_and_is_ended(files, root, connect):
    (root / "file").write_bytes(bytes(32 * MIB))  # more than the system takes at once
    wire, other = connect(files.port), connect(files.port)
    other.ask(request("files"))
    for _ in range(20):
        with contextlib.suppress(ConnectionError):  # the server may have ended the connection already
            wire.send(request("files", "/file"))
        for _ in range(2):  # after the second answer, the server has seen the request
            other.ask(request("files"))
        assert len(files.descriptors() - files.idle_descriptors) <= 3  # two clients and a file
    wire.wait_closed()
    assert other.ask(request("files")) == b"top"


FORGED = b"HTTP/1.1 200 OK\r\nContent-Length: 6\r\n\r\nforged"


def test_file_that_grows_while_it_is_sent__comes_as_long_as_announced(files, root, connect):
    size = 32 * MIB + 5  # more than the system takes at once, and not a multiple of a slice
    (root / "log").write_bytes(bytes(size))
    wire = connect(files.port)
    wire.send(request("files", "/log"))
    head = wire.read_head()
    with open(root / "log", "ab") as log:
        log.write(FORGED)
    assert head.endswith(b"Content-Length: %d\r\n\r\n" % size)
    assert wire.read(size) == bytes(size)
    assert wire.ask(request("files", "/sub")) == b"below"


def test_file_that_shrinks_while_it_is_sent__ends_the_connection(files, root, connect):
    (root / "log").write_bytes(bytes(32 * MIB))
    wire = connect(files.port)
    wire.send(request("files", "/log"))
    wire.read_head()
    os.truncate(root / "log", 24 * MIB)
    assert wire.read_to_end() == bytes(24 * MIB)
    files.wait_for_line(f"Warning! A file has ended {8 * MIB} bytes before its announced length[.]")


@pytest.mark.parametrize("client", [curl_files, wget_files])
def test_site__is_fetched_whole(start_mivo, folder, site, client):
    files = start_mivo(arguments=[str(site.folder)])
    client(folder, f"http://127.0.0.1:{files.port}", site.names).check(site)
