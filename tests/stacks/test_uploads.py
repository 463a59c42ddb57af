"""Servers to which clients upload: WebDAV, Subversion and Git behind Apache, and a registry of images."""

import random
import subprocess

import pytest

from checks import MIB, curl
from images import layer_of, make_image
from page import STACKS
from repositories import ENVIRONMENT, run

NAME = "WebDAV, Subversion and Git"


def test_apache__takes_what_git_subversion_and_webdav_clients_send(put_behind, tmp_path):
    assert STACKS[NAME].works == ["Git", "Subversion", "WebDAV"]
    server = put_behind(NAME, "repositories", prepare="bash make.sh")
    for access in (server.http(), server.https()):
        folder = tmp_path / access.scheme
        folder.mkdir()
        sent = folder / "large"
        sent.write_bytes(random.Random(access.name).randbytes(3 * MIB))
        push_and_clone(access, folder, sent)
        commit(access, folder, sent)
        use_files(access, sent)


def push_and_clone(access, folder, sent):
    trust = ["-c", f"http.sslCAInfo={access.root}"] if access.root else []
    git = ["git", "-C", folder, "-c", "user.name=nobody", "-c", "user.email=nobody", *trust]
    url, branch = access.url + "/git/project.git", access.scheme
    run(*git, "init", "--quiet", "--initial-branch", branch)
    run(*git, "add", sent.name)
    run(*git, "commit", "--quiet", "--message", "A large file")
    run(*git, "push", "--quiet", url, branch)
    run(*git, "clone", "--quiet", "--branch", branch, url, "clone")
    assert (folder / "clone/large").read_bytes() == sent.read_bytes()


def svn(access, folder, *arguments):
    trust = ["--config-option", f"servers:global:ssl-authority-files={access.root}"] if access.root else []
    done = subprocess.run(["svn", "--non-interactive", "--config-dir", folder / "settings", *trust, *arguments],
                          env=ENVIRONMENT, stdin=subprocess.DEVNULL, capture_output=True, timeout=60, check=False)
    return done.returncode, done.stdout, done.stderr.decode()


def commit(access, folder, sent):
    url = f"{access.url}/svn/{access.scheme}"
    code, _, told = svn(access, folder, "import", "--quiet", "--message", "A large file", sent, url)
    assert code == 0, told
    assert svn(access, folder, "cat", url)[1] == sent.read_bytes()


def use_files(access, sent):
    url = f"{access.url}/files/{access.scheme}"
    curl(access, "--fail", "--upload-file", sent, url)
    listed = curl(access, "--fail", "-X", "PROPFIND", "-H", "Depth: 1", access.url + "/files/")
    assert f"/files/{access.scheme}<".encode() in listed
    assert curl(access, "--fail", url) == sent.read_bytes()
    curl(access, "--fail", "-X", "DELETE", url)
    assert access.read("GET", f"/files/{access.scheme}")[0] == 404


def copy(access, method, name):
    """The status of the response to a copy or a move to a new name."""
    return int(curl(access, "--output", "/dev/null", "--write-out", "%{http_code}", "-X", method,
                    "-H", f"Destination: {access.url}/files/{name}", access.url + "/files/one"))


@pytest.mark.parametrize("is_told", [False, True])
def test_copy_and_move_over_https__need_the_line_for_the_destination(put_behind, tmp_path, is_told):
    server = put_behind(NAME, "repositories", https=is_told, prepare="bash make.sh")
    access = server.https()
    curl(access, "--fail", "-X", "PUT", "--data-binary", "one", access.url + "/files/one")
    status = 201 if is_told else 502
    assert [copy(access, "COPY", "two"), copy(access, "MOVE", "three")] == [status, status]
    base = access.url + "/svn"
    assert svn(access, tmp_path, "mkdir", "--message", "A folder", base + "/one")[0] == 0
    code, _, told = svn(access, tmp_path, "copy", "--message", "A copy", base + "/one", base + "/two")
    assert (code == 0) == is_told, told
    assert is_told or "502" in told


def test_registry__gives_an_image_back(put_behind, tmp_path):
    """Only over HTTPS: for HTTP, skopeo tries HTTPS first and waits until that connection times out."""
    assert STACKS["Docker registry"].works == ["images"]
    access = put_behind("Docker registry", "registry").https()
    layer = make_image(tmp_path / "image", random.Random(4).randbytes(3 * MIB))
    (tmp_path / "trust").mkdir()
    (tmp_path / "trust/ca.crt").write_bytes(access.root.read_bytes())
    copy_image = ["skopeo", "--insecure-policy", "copy", "--quiet"]
    remote = f"docker://{access.name}/image:1"
    run(*copy_image, "--dest-cert-dir", tmp_path / "trust", f"oci:{tmp_path}/image:1", remote)
    run(*copy_image, "--src-cert-dir", tmp_path / "trust", remote, f"oci:{tmp_path}/back:1")
    assert layer_of(tmp_path / "back") == layer


@pytest.mark.parametrize("is_relative", [True, False])
def test_registry_that_makes_absolute_urls__sends_an_upload_to_the_wrong_scheme(put_behind, is_relative):
    change = (lambda text: text) if is_relative else (lambda text: text.replace("relativeurls: true, ", ""))
    access = put_behind("Docker registry", "registry", change=change).https()
    status, fields, _ = access.read("POST", "/v2/image/blobs/uploads/")
    assert status == 202
    assert fields["location"].startswith("/v2/" if is_relative else f"http://{access.name}/v2/")
