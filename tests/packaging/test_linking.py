"""The library as other people get it: the installed files, headers that compile alone, and the code of
docs/embedding.md.

test_bare_library.py shows that it can be used on a system that has nothing else.
"""

import json
import pathlib
import re
import subprocess

import pytest

from mivo_process import PROGRAM, REPOSITORY
from outside import (PORT, WARNINGS, Once, Program, block, blocks, check_hello, hello, output_of,
                     port)  # noqa: F401

LAYERS = ["base", "net", "tls", "http", "proxy", "main"]
COMPILERS = ["g++", "clang++-14"]
STANDARDS = ["c++17", "c++20", "c++2b"]  # the last is the name of C++23 for these compilers
# The internal headers: they keep the promises of the public headers, and may change with every version.
INTERNAL = ["base/block_pool.h", "base/punycode.h", "http/token.h", "net/connection_memory.h", "net/name_memory.h",
            "tls/certificate_file.h"]


@pytest.fixture(scope="module")
def prefix(tmp_path_factory):
    """The library and nothing else, installed in a folder."""
    folder = tmp_path_factory.mktemp("prefix")
    output_of("cmake", "--install", pathlib.Path(PROGRAM).parent, "--prefix", folder, "--component", "development")
    return folder


@pytest.fixture(scope="module")
def headers(prefix):
    """The installed headers, as a program includes them."""
    folder = prefix / "include/mivo"
    return sorted(str(path.relative_to(folder)) for path in folder.rglob("*.h"))


def pkg_config(prefix, *options):
    environment = {"PATH": "/usr/bin:/bin", "PKG_CONFIG_PATH": str(prefix / "lib/pkgconfig")}
    return output_of("pkg-config", *options, "mivo", env=environment).split()


def build(prefix, source, program, *options):
    """Compiles and links one file with the flags from pkg-config."""
    output_of("g++", "-std=c++17", "-O0", *WARNINGS, *options, *pkg_config(prefix, "--cflags"), source,
              *pkg_config(prefix, "--libs"), "-o", program)


# The installed files.


def test_headers_of_the_layers__are_public_or_internal_as_listed(headers):
    existing = [str(path.relative_to(REPOSITORY)) for layer in LAYERS for path in (REPOSITORY / layer).glob("*.h")]
    assert sorted(headers + INTERNAL) == sorted(existing)


def test_public_header__includes_no_internal_one(headers):
    included = {(header, name) for header in headers
                for name in re.findall(r'^\s*#\s*include\s+"([^"]+)"', (REPOSITORY / header).read_text(), re.M)}
    assert len(included) > 20
    assert [pair for pair in sorted(included) if pair[1] not in headers] == []


def test_installed_files__stand_in_folders_of_the_librarys_name(prefix):
    files = [str(path.relative_to(prefix)) for path in prefix.rglob("*") if path.is_file()]
    others = [name for name in files if not name.startswith(("include/mivo/", "lib/cmake/mivo/", "share/doc/"))]
    assert sorted(others) == ["lib/libmivo.a", "lib/pkgconfig/mivo.pc"]


def test_program__is_installed_without_the_library(tmp_path):
    output_of("cmake", "--install", pathlib.Path(PROGRAM).parent, "--prefix", tmp_path, "--component", "program")
    names = {path.name for path in tmp_path.rglob("*")}
    assert "mivo" in names and "mivo.8.gz" in names
    assert not names & {"include", "libmivo.a", "mivo.pc", "mivoConfig.cmake"}


# The headers.


@pytest.mark.parametrize("standard", STANDARDS)
@pytest.mark.parametrize("compiler", COMPILERS)
def test_each_header__compiles_alone_without_a_warning(compiler, standard, prefix, headers, tmp_path):
    with Once(f"headers_{compiler}_{standard}", *LAYERS, "packaging", "tests/packaging"):
        source = tmp_path / "alone.cpp"
        for header in headers:
            source.write_text(f'#include "{header}"\n')
            output_of(compiler, f"-std={standard}", *WARNINGS, "-fsyntax-only", f"-I{prefix}/include/mivo", source)


@pytest.mark.parametrize("spelled", ["struct import library", "::import library"])
def test_program_with_modules__compiles_if_no_line_begins_with_import(spelled, prefix, headers, tmp_path):
    """In C++20, a line that begins with `import` imports a module; for this compiler, only with -fmodules-ts."""
    source = tmp_path / "modules.cpp"
    source.write_text("".join(f'#include "{header}"\n' for header in headers) + f'{spelled}("libz.so");\n')
    command = ["g++", "-std=c++20", "-fmodules-ts", *WARNINGS, "-fsyntax-only", f"-I{prefix}/include/mivo", source]
    output_of(*command, cwd=tmp_path)
    source.write_text(source.read_text().replace(spelled, "import library"))
    assert subprocess.run(command, cwd=tmp_path, capture_output=True, check=False).returncode != 0


# The page.


# The place for a piece of code, by the comment above it.
AROUND = {
    "in a hook": "struct c : http_connection { void on_request() override { %s } };",
    "in a hook, with the file in hand":
        "struct c : http_connection { FILE* stream; int64_t size; void on_request() override { %s } };",
    "in a connection class": "struct c : http_connection { %s };",
    "in main(), with a server": "int main() { server<http_proxy> http(0); %s }",
    "in main(), with main/https.h":
        '#include "main/https.h"\nstruct hello : http_connection {}; int main() { %s }',
    "at the top": "bool is_prime(int); %s",
}
PIECES = [title for title, _ in blocks("cpp") if not title.endswith(".cpp")]


def test_page__says_where_each_piece_of_code_belongs():
    text = (REPOSITORY / "docs/embedding.md").read_text()
    assert text.count("```cpp\n") == len(blocks("cpp")) > 5
    assert set(PIECES) == set(AROUND)


@pytest.mark.parametrize("number", range(len(PIECES)), ids=PIECES)
def test_piece_of_code_on_the_page__compiles_in_its_place(number, prefix, tmp_path):
    title, text = [pair for pair in blocks("cpp") if not pair[0].endswith(".cpp")][number]
    source = tmp_path / "piece.cpp"
    source.write_text('#include "net/server.h"\n#include "proxy/http_proxy.h"\n' + AROUND[title] % f"\n{text}\n")
    output_of("g++", "-std=c++17", *WARNINGS, "-fsyntax-only", *pkg_config(prefix, "--cflags"), source)


def test_hello__built_as_the_page_says_with_pkg_config__answers(prefix, port, tmp_path):  # noqa: F811
    (tmp_path / "hello.cpp").write_text(hello(port))
    output_of("sh", "-ec", block("pkg-config"), cwd=tmp_path,
              env={"PATH": "/usr/bin:/bin", "PKG_CONFIG_PATH": str(prefix / "lib/pkgconfig")})
    check_hello([tmp_path / "hello"], port)


def test_https_on_the_page__has_all_of_the_tls_library_and_the_redirect(prefix, port, tmp_path):  # noqa: F811
    """The library is an archive. A part of it that only an initialiser uses could be missing in the program."""
    secure, plain = re.findall(r"\b8\d{3}\b", block("in main(), with main/https.h"))
    assert plain == PORT
    code = block("in main(), with main/https.h").replace(secure, str(port)).replace(plain, "0")
    text = hello(0)
    source = tmp_path / "secure.cpp"
    source.write_text('#include "main/https.h"\n' + text[:text.index("int main")] + "int main() {\n" + code + "}\n")
    build(prefix, source, tmp_path / "secure")
    output_of("openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj", "/CN=localhost",
              "-keyout", tmp_path / "key.pem", "-out", tmp_path / "crt.pem")
    program = Program(["env", "-C", tmp_path, tmp_path / "secure"], [port])
    try:
        assert program.page("https", port) == block("what hello.cpp answers")
        assert program.ignores_sigpipe()
        assert program.interrupt() == 0
    finally:
        program.kill()


@pytest.mark.parametrize("example", sorted((REPOSITORY / "examples").glob("*.cpp")), ids=lambda path: path.stem)
def test_installed_example__compiles_with_the_installed_headers(example, prefix):
    installed = prefix / "share/doc/libmivo-dev/examples" / example.name
    assert installed.read_text() == example.read_text()
    output_of("g++", "-std=c++17", *WARNINGS, "-fsyntax-only", *pkg_config(prefix, "--cflags"), installed)


# Another project's CMake.


PARENT = """
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
get_cmake_property(before CACHE_VARIABLES)
%s
foreach(variable CMAKE_CXX_FLAGS CMAKE_CXX_STANDARD CMAKE_EXE_LINKER_FLAGS CMAKE_POSITION_INDEPENDENT_CODE)
  message(STATUS "parent: ${variable}=${${variable}}")
endforeach()
get_property(tests DIRECTORY mivo PROPERTY TESTS)
message(STATUS "parent: tests=${tests}")
"""


def test_project_that_adds_the_folder__gets_the_library_and_nothing_else(tmp_path):
    (tmp_path / "mivo").symlink_to(REPOSITORY)
    (tmp_path / "hello.cpp").write_text(block("hello.cpp"))
    text = block("CMakeLists.txt: add_subdirectory")
    (tmp_path / "CMakeLists.txt").write_text(
        text.replace("add_subdirectory(mivo)", PARENT % "enable_testing()\nadd_subdirectory(mivo)"))
    # In this kind of build, our own project adds flags.
    printed = output_of("cmake", "-G", "Ninja", "-S", tmp_path, "-B", tmp_path / "out", "-DMIVO_TESTS=ON",
                        "-DCMAKE_BUILD_TYPE=Release")
    assert sorted(re.findall(r"^-- parent: (.*)$", printed, re.M)) == [
        "CMAKE_CXX_FLAGS=", "CMAKE_CXX_STANDARD=", "CMAKE_EXE_LINKER_FLAGS=", "CMAKE_POSITION_INDEPENDENT_CODE=",
        "tests="]

    compiled = json.loads((tmp_path / "out/compile_commands.json").read_text())
    folders = {pathlib.Path(entry["file"]).parent.name for entry in compiled}
    assert folders == {*LAYERS, tmp_path.name} - {"main"}
    ours = [entry["command"] for entry in compiled if not entry["file"].endswith("hello.cpp")]
    assert not any("-Werror" in command for command in ours)
    [theirs] = [entry["command"] for entry in compiled if entry["file"].endswith("hello.cpp")]
    assert set(re.findall(r" -(?!o |c )\S+", theirs)) <= {
        f" -I{tmp_path}/mivo", " -std=gnu++17", " -O3", " -DNDEBUG"}
    link = output_of("ninja", "-C", tmp_path / "out", "-t", "commands", "hello").strip().splitlines()[-1]
    assert "libmivo.a" in link and "-Wl" not in link and "-z" not in link

    output_of("cmake", "--install", tmp_path / "out", "--prefix", tmp_path / "prefix")
    assert not (tmp_path / "prefix").exists()


def test_project_that_wants_another_version__is_told(prefix, tmp_path):
    text = block("CMakeLists.txt: find_package").replace("mivo 0.2 ", "mivo 0.1 ")
    (tmp_path / "CMakeLists.txt").write_text(text)
    (tmp_path / "hello.cpp").write_text(block("hello.cpp"))
    command = ["cmake", "-G", "Ninja", "-S", tmp_path, "-B", tmp_path / "out", f"-DCMAKE_PREFIX_PATH={prefix}"]
    done = subprocess.run(command, capture_output=True, text=True, check=False)
    assert done.returncode != 0 and "0.1" in done.stderr, done.stderr
