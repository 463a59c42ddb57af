"""Comments and layout do not make figures old; everything else does."""

import json
import os
import subprocess

import pytest

import sources

SOURCE = """// A comment.
#include <string>
#define LIMIT 10  // bytes
const char* text = "// not a comment"; /* but
this is */ char quote = '"';
auto raw = R"end(/* " // two )" )end";
int digits = 1'000'000 >> 2;
"""


@pytest.mark.parametrize("other", [
    SOURCE.replace("// A comment.", "// Another,\n// longer one."),
    SOURCE.replace("  // bytes", ""),
    SOURCE.replace("/* but\nthis is */", "\n\n// with \"a quote\n"),
    SOURCE.replace("const char* text =", "const char *\n    text="),
    SOURCE.replace("#define LIMIT 10", "#  define LIMIT \\\n   10"),
    SOURCE + "\n\n",
    SOURCE.replace("\n", "\r\n"),
], ids=["comment", "comment of a directive", "block comment", "layout", "continued line", "empty lines", "CRLF"])
def test_comments_and_layout__do_not_make_figures_old(other):
    assert other != SOURCE
    assert sources.code_of(other) == sources.code_of(SOURCE)


@pytest.mark.parametrize("old, new", [
    ("// not a comment", "// a comment"),
    ("// two", "// three"),
    ("1'000'000", "1'000'001"),
    (">> 2", "> > 2"),
    ("LIMIT 10  // bytes\n", "LIMIT 10 "),
    ("'\"'", "'\\''"),
    ("char quote", "charquote"),
], ids=["string", "raw string", "number", "operator", "end of a directive", "character", "words"])
def test_code__makes_figures_old(old, new):
    assert old in SOURCE
    assert sources.code_of(SOURCE.replace(old, new)) != sources.code_of(SOURCE)


def test_tokens__are_those_that_the_compiler_sees():
    """The tokens tell strings and comments apart as the preprocessor does."""
    stripped = subprocess.run(["g++", "-fpreprocessed", "-dD", "-E", "-P", "-x", "c++", "-"], input=SOURCE,
                              capture_output=True, text=True, check=True).stdout
    assert sources.code_of(stripped) == sources.code_of(SOURCE)


@pytest.fixture
def tree(tmp_path):
    for folder in sources.FOLDERS:
        (tmp_path / folder).mkdir()
        (tmp_path / folder / f"{folder}.cpp").write_text(f"int {folder};\n")
    return tmp_path


def test_hash__is_of_all_folders_and_names(tree):
    seen = {sources.sources_hash(tree)}
    for folder in sources.FOLDERS:
        (tree / folder / f"{folder}.cpp").write_text(f"// changed\nint {folder};\n")
        assert sources.sources_hash(tree) in seen
        (tree / folder / f"{folder}.cpp").write_text(f"long {folder};\n")
        assert sources.sources_hash(tree) not in seen
        seen.add(sources.sources_hash(tree))
    (tree / "net/net.cpp").rename(tree / "net/other.cpp")
    assert sources.sources_hash(tree) not in seen
    seen.add(sources.sources_hash(tree))
    (tree / "net/new.h").write_text("")
    assert sources.sources_hash(tree) not in seen


def age_of(path):
    return subprocess.run([sources.ROOT / "bench/figures_age", path], capture_output=True, text=True, check=False)


def test_age__is_told_by_the_exit_code(tmp_path):
    present = sources.sources_hash()
    data = {"workloads": {"one": {"sources": present, "commit": "a1"}, "two": {"sources": present, "commit": "a1"}}}
    file = tmp_path / "figures.json"
    file.write_text(json.dumps(data))
    assert age_of(file).returncode == 0

    data["workloads"]["two"].update(sources="of another code", commit="b2")
    file.write_text(json.dumps(data))
    done = age_of(file)
    assert done.returncode == 1
    assert done.stderr == "Measured before the last change to the code (at b2): two\n"

    file.write_text('{"workloads": {}}')
    assert age_of(file).returncode == 1
    os.remove(file)
    assert age_of(file).returncode == 1
