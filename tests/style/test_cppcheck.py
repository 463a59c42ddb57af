"""cppcheck finds nothing in our own code. Every finding that it is told to ignore has the reason beside it."""

import subprocess
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
FOLDERS = ["base", "net", "tls", "http", "proxy", "main", "examples"]
OPTIONS = ["--std=c++17", "--language=c++", "--enable=warning,performance,portability", "--inline-suppr"]


def test_cppcheck_finds_nothing():
    command = ["cppcheck", *OPTIONS, "--error-exitcode=1", "-I.", *FOLDERS]
    result = subprocess.run(command, cwd=ROOT, capture_output=True, text=True)
    assert result.returncode == 0, result.stderr
    assert "files checked 100% done" in result.stdout
