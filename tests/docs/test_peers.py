"""The servers accept their configurations in docs/peers, which the benchmarks use."""

import pathlib
import subprocess

import pytest

from mivo_process import REPOSITORY

PEERS = REPOSITORY / "docs/peers"
PATIENCE = 60  # seconds
CHECKS = {"nginx": ["-t", "-p", ".", "-e", "errors", "-c"],
          "haproxy": ["-c", "-f"],
          "caddy": ["validate", "--adapter", "caddyfile", "--config"]}
PROGRAMS = {"nginx.conf": "nginx", "nginx_unpooled.conf": "nginx", "haproxy.cfg": "haproxy", "Caddyfile": "caddy"}
CONFIGURATIONS = sorted(path for path in PEERS.glob("*/*") if path.name != "mivo")


def test_every_configuration__is_known():
    assert {path.name for path in CONFIGURATIONS} == set(PROGRAMS)
    assert len(CONFIGURATIONS) == 7


@pytest.mark.parametrize("path", CONFIGURATIONS, ids=[f"{path.parent.name}/{path.name}" for path in CONFIGURATIONS])
def test_configuration__is_accepted(path, tmp_path):
    program = PROGRAMS[path.name]
    found = [folder for folder in ("/usr/sbin", "/usr/bin") if pathlib.Path(folder, program).exists()]
    if not found:
        pytest.skip(f"{program} is not installed; its package would start a server on this machine")
    (tmp_path / path.name).write_text(path.read_text())
    subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-subj", "/CN=one.example",
                    "-keyout", "key.pem", "-out", "crt.pem"], cwd=tmp_path, check=True, capture_output=True)
    both = (tmp_path / "key.pem").read_text() + (tmp_path / "crt.pem").read_text()
    (tmp_path / "both.pem").write_text(both)
    more = ["-g", f"pid {tmp_path}/pid;"] if program == "nginx" else []
    done = subprocess.run([f"{found[0]}/{program}", *more, *CHECKS[program], str(tmp_path / path.name)], cwd=tmp_path,
                          env={"HOME": str(tmp_path)}, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          timeout=PATIENCE, check=False)
    assert done.returncode == 0, done.stdout.decode()
