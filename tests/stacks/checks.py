"""A check for each word in the page's lines "Works". It uses a server behind mivo through an Access."""

import hashlib
import http.client
import random
import subprocess
import urllib.parse

from clients import ENVIRONMENT, PATIENCE

MIB = 1 << 20


def curl(access, *arguments):
    """The output of curl, which knows every name that ends in .localhost."""
    trust = ["--cacert", access.root] if access.root else []
    done = subprocess.run(["curl", "-q", "--silent", "--show-error", "--noproxy", "*", *trust, *arguments],
                          env=ENVIRONMENT, stdin=subprocess.DEVNULL, capture_output=True, timeout=PATIENCE, check=False)
    assert done.returncode == 0, f"{arguments} gave {done.returncode}: {done.stderr.decode()}"
    return done.stdout


def pages(server, access):
    """The page is the same as without mivo, head and body, for Python and for curl."""
    answer = access.read("GET", "/")
    assert answer[0] == 200
    assert answer == server.direct(access).read("GET", "/")
    assert curl(access, "--fail", access.url) == answer[2]


def large_file(server):
    """Writes and returns the bytes that the server then serves as /large.bin."""
    path = server.folder.parent / "site/large.bin"
    if not path.exists():
        path.write_bytes(random.Random(1).randbytes(5 * MIB))
    return path.read_bytes()


def downloads(server, access):
    """The server sends a large file, and no body if the file has not changed."""
    data = large_file(server)
    assert curl(access, "--fail", access.url + "/large.bin") == data
    fields = access.read("HEAD", "/large.bin")[1]
    known = {"If-None-Match": fields["etag"]} if "etag" in fields else {"If-Modified-Since": fields["last-modified"]}
    assert access.read("GET", "/large.bin", headers=known)[0] == 304


def ranges(server, access):
    """The server sends a part of a large file, as a player asks for it when it seeks."""
    part, data = {"Range": "bytes=1000000-1999999"}, large_file(server)
    answer = access.read("GET", "/large.bin", headers=part)
    assert (answer[0], answer[2]) == (206, data[1000000:2000000])
    assert answer == server.direct(access).read("GET", "/large.bin", headers=part)


def uploads(_, access):
    data = random.Random(2).randbytes(5 * MIB)
    answer = access.read("POST", "/upload", data, {"Content-Type": "application/octet-stream"})
    assert (answer[0], answer[2].decode()) == (200, f"{len(data)} {hashlib.sha256(data).hexdigest()}")


def chunked_uploads(_, access):
    data = random.Random(3).randbytes(MIB)
    pieces = (data[at:at + 10000] for at in range(0, len(data), 10000))
    headers = {"Content-Type": "application/octet-stream", "Transfer-Encoding": "chunked"}
    answer = access.read("POST", "/upload", pieces, headers, encode_chunked=True)
    assert (answer[0], answer[2].decode()) == (200, f"{len(data)} {hashlib.sha256(data).hexdigest()}")


def events(_, access):
    """The first event arrives before the server has made the second event."""
    with access.ask("GET", "/events") as stream:
        assert stream.readline() == b"data: first\n"
        assert access.read("POST", "/next")[0] == 200
        assert stream.read() == b"\ndata: second\n\n"


def redirects(_, access):
    """A redirect that the server makes leads to the same scheme, name and port."""
    assert redirect_target(access) == access.url + "/folder/"
    assert curl(access, "--fail", "--location", access.url + "/folder") == b"This is the folder.\n"


def redirect_target(access, path="/folder"):
    """Where the server's redirect leads, as an absolute URL."""
    with access.ask("GET", path) as response:
        assert response.status in (301, 302, 303, 307, 308), response.status
        return urllib.parse.urljoin(access.url + path, response.getheader("Location"))


CHECKS = {"pages": pages, "downloads": downloads, "ranges": ranges, "uploads": uploads,
          "chunked uploads": chunked_uploads, "events": events, "redirects": redirects}
