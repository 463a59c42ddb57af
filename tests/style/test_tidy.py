"""clang-tidy finds nothing in our own code. A file that has passed is checked again only if the file has changed, or
if something else has changed that the findings depend on."""

import json
import os
import re
import shlex
import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "tests/harness"))

import passed  # noqa: E402

FOLDERS = ["base", "net", "tls", "http", "proxy", "main", "examples"]
# The release's compile commands, because they have no sanitizers, which would slow the analyzer down.
BUILD = ROOT / "build/release"


def run(*command, **options):
    return subprocess.run(command, capture_output=True, text=True, **options)


def output_of(*command, **options):
    return run(*command, check=True, **options).stdout


def compile_command(path, build):
    """The folder in which a file is compiled, and the arguments."""
    for entry in json.loads((build / "compile_commands.json").read_text()):
        if Path(entry["directory"], entry["file"]) == path:
            words = shlex.split(entry["command"])
            return entry["directory"], words[next(at for at, word in enumerate(words) if word[0] == "-"):]
    raise AssertionError(f"{path} is not compiled")


def headers(path, build):
    """The file and everything that it includes, also the system's headers, as clang finds them."""
    folder, arguments = compile_command(path, build)
    output = arguments.index("-o")
    rule = output_of("clang++-14", "-M", "-w", *arguments[:output], *arguments[output + 2:], cwd=folder)
    names = re.sub(r"\\\n", " ", rule).partition(":")[2].split()
    return [Path(folder, name) for name in names]


def everything_it_depends_on(path, build):
    return passed.digest_of(output_of("clang-tidy-14", "--version"), output_of("clang-tidy-14", "--dump-config", path),
                            *compile_command(path, build)[1], *headers(path, build))


def findings(path, build=BUILD):
    digest = everything_it_depends_on(path, build)
    if passed.has_passed(digest):
        return ""
    result = run("clang-tidy-14", "--quiet", "-p", build, path)
    if result.returncode != 0:
        return result.stdout + result.stderr
    passed.note_pass(digest)
    return ""


def test_clang_tidy_finds_nothing():
    files = [path for folder in FOLDERS for path in sorted((ROOT / folder).glob("*.cpp"))]
    assert len(files) > 15
    with ThreadPoolExecutor(os.cpu_count()) as pool:
        found = "".join(pool.map(findings, files))
    assert found == ""


CLEAN, WRONG = "inline int size() { return 1; }\n", "inline void* size() { return 0 == 0 ? nullptr : nullptr; }\n"


@pytest.fixture
def project(tmp_path, monkeypatch):
    """A file and its header, which have passed."""
    monkeypatch.setattr(passed, "FOLDER", tmp_path / "passed")
    (tmp_path / "base").mkdir()
    (tmp_path / "base/a.cpp").write_text('#include "base/a.h"\n\nauto a = size();\n')
    (tmp_path / "base/a.h").write_text(CLEAN)
    (tmp_path / ".clang-tidy").write_text((ROOT / ".clang-tidy").read_text())
    set_command(tmp_path, "")
    assert findings(tmp_path / "base/a.cpp", tmp_path) == ""
    return tmp_path


def set_command(project, option):
    command = f"ccache c++ {option} -I{project} -o a.o -c {project}/base/a.cpp"
    (project / "compile_commands.json").write_text(json.dumps(
        [{"directory": str(project), "command": command, "file": f"{project}/base/a.cpp"}]))


CHANGES = {
    "a header": lambda project: (project / "base/a.h").write_text(WRONG),
    "the file": lambda project: (project / "base/a.cpp").write_text(WRONG),
    "the command": lambda project: set_command(project, "-Dsize=1+"),
    "the configuration": lambda project: (project / ".clang-tidy").write_text(
        "Checks: 'readability-identifier-length'\nWarningsAsErrors: '*'\n"),
}


@pytest.mark.parametrize("change", CHANGES)
def test_file_that_has_passed__is_checked_again_after_a_change(project, change):
    CHANGES[change](project)
    assert findings(project / "base/a.cpp", project) != ""


def test_file_that_has_passed__is_not_checked_again_without_a_change(project, monkeypatch):
    monkeypatch.setattr(passed, "note_pass", None)
    assert findings(project / "base/a.cpp", project) == ""
