"""The Dockerfile: a linter checks it, and its entry point runs as Docker would run it. Where Docker or Podman works,
the image is built and run, too."""

import json
import os
import pathlib
import re
import shlex
import shutil
import signal
import subprocess
import tempfile

import pytest

from mivo_process import PROGRAM, REPOSITORY, ReservedPort
from test_service import free_low_port
from wire import Wire, request, until

DOCKERFILE = REPOSITORY / "packaging/docker/Dockerfile"
BUILD = pathlib.Path(os.environ.get("MIVO_BUILD", REPOSITORY / "build/asan"), "packaging_node")
NODE = pathlib.Path(__file__).resolve().parent / "node"
INSTALL_PATIENCE = 120  # seconds
BUILD_PATIENCE = 800


def instruction(name):
    """The arguments of the last instruction of this name, with its continued lines joined."""
    text = re.sub(r"^#.*\n", "", DOCKERFILE.read_text(), flags=re.M).replace("\\\n", " ")
    return re.findall(rf"^{name} +(.*)$", text, re.M)[-1]


@pytest.fixture(scope="module")
def linter():
    installed = BUILD / "node_modules/.bin/dockerfile-utils"
    if not installed.exists():
        BUILD.mkdir(parents=True, exist_ok=True)
        for name in ("package.json", "package-lock.json"):
            shutil.copy(NODE / name, BUILD)
        subprocess.run(["npm", "ci", "--ignore-scripts", "--no-audit", "--no-fund"], cwd=BUILD, check=True,
                       stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, timeout=INSTALL_PATIENCE)
    return installed


def test_dockerfile__is_without_fault(linter):
    done = subprocess.run([linter, "lint", DOCKERFILE], capture_output=True, text=True, check=False)
    assert (done.returncode, done.stdout, done.stderr) == (0, "", "")


def test_files_that_the_build_needs__are_not_left_out():
    left_out = DOCKERFILE.with_name("Dockerfile.dockerignore").read_text().split()
    for file in REPOSITORY.rglob("CMakeLists.txt"):
        for added in re.findall(r"add_subdirectory\((\S+)\)", file.read_text()):
            path = (file.parent / added).relative_to(REPOSITORY)
            assert path.parts[0] not in left_out
    assert {"build", ".git"} <= set(left_out)


@pytest.mark.skipif(os.geteuid() != 0, reason="only root can start a process as another user")
def test_entry_point__serves_a_low_port_as_a_plain_user_and_ends_by_the_stop_signal():
    command = json.loads(instruction("ENTRYPOINT"))
    assert command[-1] == "mivo"
    port = free_low_port()
    with tempfile.TemporaryDirectory(prefix="mivo_test_") as folder:
        os.chmod(folder, 0o755)
        program = shutil.copy(PROGRAM, folder)
        console = pathlib.Path(folder, "console")
        user = {"--reuid=mivo": "--reuid=nobody", "--regid=mivo": "--regid=nogroup", "mivo": program}
        with open(console, "wb") as output:
            process = subprocess.Popen([*(user.get(word, word) for word in command), str(port), "-map", "a", "-1"],
                                       stdout=output)
        try:
            until(lambda: process.poll() is not None or "connections\n" in console.read_text(), "the first turn")
            client = Wire.connect(port)
            client.send(request("a"))
            client.read_head()
            until(lambda: "\n[a] 127.0.0.1:" in console.read_text(), "the request's line")
            client.close()
            status = pathlib.Path(f"/proc/{process.pid}/status").read_text()
            assert re.search(r"^Uid:\s+65534\s", status, re.M)
            assert re.search(r"^CapBnd:\s+0000000000000400$", status, re.M)  # CAP_NET_BIND_SERVICE
            process.send_signal(getattr(signal, instruction("STOPSIGNAL")))
            assert process.wait(15) == 0
            assert console.read_text().endswith("\nShutting down...\n")
        finally:
            if process.poll() is None:
                process.kill()
                process.wait()


def container_engine():
    """The command of an engine that works, or None."""
    for command in ("docker", "podman"):
        if shutil.which(command):
            done = subprocess.run([command, "info"], stdin=subprocess.DEVNULL, capture_output=True, check=False)
            if done.returncode == 0:
                return command
    return None


def test_image__serves_on_the_hosts_network_and_ends_in_order():
    engine = container_engine()
    if not engine:
        pytest.skip("neither docker nor podman works here")
    comments = re.sub(r"^# ?", "", DOCKERFILE.read_text(), flags=re.M)
    build, run = (shlex.split(re.search(rf"^ +docker ({kind} .*)$", comments, re.M)[1]) for kind in ("build", "run"))
    subprocess.run([engine, *build], cwd=REPOSITORY, check=True, stdin=subprocess.DEVNULL, capture_output=True,
                   timeout=BUILD_PATIENCE)
    reserved = ReservedPort()
    options = run[:run.index("mivo") + 1]
    process = subprocess.Popen([engine, *options, str(reserved.port), "-map", "a", "-1"], stdin=subprocess.DEVNULL,
                               stdout=subprocess.PIPE, text=True)
    try:
        until(lambda: process.stdout.readline().endswith(" connections\n"), "the first turn")
        client = Wire.connect(reserved.port)
        client.send(request("a"))
        client.read_head()
        client.close()
        until(lambda: process.stdout.readline().startswith("[a] "), "the request's line")
        process.send_signal(signal.SIGINT)
        assert process.wait(30) == 0
        assert process.stdout.read().endswith("Shutting down...\n")
    finally:
        if process.poll() is None:
            process.kill()
            process.wait()
        process.stdout.close()
        reserved.close()
