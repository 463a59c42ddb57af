"""The looks of the sources, as far as a machine can check them: formatting, leftovers, sizes."""

import re
import subprocess
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
CODE_FOLDERS = ["base", "net", "tls", "http", "proxy", "main", "tests", "examples", "bench"]


def code_files():
    for folder in CODE_FOLDERS:
        for pattern in ("*.h", "*.cpp"):
            yield from sorted((ROOT / folder).rglob(pattern))


def test_code_is_formatted():
    files = [str(path) for path in code_files()]
    assert len(files) > 30
    result = subprocess.run(
        ["clang-format-14", "--dry-run", "-Werror", *files], capture_output=True, text=True
    )
    assert result.returncode == 0, result.stderr[:4000]


def test_nothing_is_left_in_the_text():
    words = "|".join(["TO" + "DO", "FIX" + "ME", "X" * 3, "HA" + "CK"])  # in parts, not to find itself
    leftover = re.compile(rf"\b({words})\b|^\s*#\s*if 0")
    found = []
    for path in code_files():
        for number, line in enumerate(path.read_text().splitlines(), 1):
            if leftover.search(line):
                found.append(f"{path.relative_to(ROOT)}:{number}: {line.strip()}")
    assert found == []


def test_files_are_short_enough_to_read():
    long = []
    for path in code_files():
        lines = len(path.read_text().splitlines())
        if lines > 450 and "tests" not in path.parts:
            long.append(f"{path.relative_to(ROOT)}: {lines} lines")
    assert long == []
