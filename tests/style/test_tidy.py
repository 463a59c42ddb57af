"""clang-tidy has nothing to say about our own code."""

import os
import subprocess
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
FOLDERS = ["base", "net", "tls", "http", "proxy", "main", "examples"]


def findings(path):
    # The release's compile commands: no sanitizer instrumentation for the analyzer to wade through.
    result = subprocess.run(
        ["clang-tidy-14", "--quiet", "-p", str(ROOT / "build" / "release"), str(path)],
        capture_output=True,
        text=True,
    )
    return result.stdout if result.returncode != 0 else ""


def test_clang_tidy_finds_nothing():
    files = [path for folder in FOLDERS for path in sorted((ROOT / folder).glob("*.cpp"))]
    assert len(files) > 15
    with ThreadPoolExecutor(os.cpu_count()) as pool:
        found = "".join(pool.map(findings, files))
    assert found == ""
