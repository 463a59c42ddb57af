"""The hello server of docs/embedding.md, built in each of the page's three ways, on a Debian 12 with nothing but the
package, a compiler and the tools that the page names.

The tests make this system with debootstrap, which takes minutes. They run if the packaging, the page or a header has
changed since they passed in this build folder. In a clean clone they always run.
"""

import os
import shutil

import pytest

from mivo_process import REPOSITORY
from outside import Once, block, check_hello, hello, port  # noqa: F401
from test_package import (MAKING, BareDebian, build_package, date, debian_mirror,  # noqa: F401
                          development_package, repository_files)

WITH_CMAKE = "cmake -S . -B out && cmake --build out --parallel 2 && mv out/hello hello"
WAYS = {
    "find_package": (block("CMakeLists.txt: find_package"), WITH_CMAKE),
    "pkg-config": ("", block("pkg-config")),
    "add_subdirectory": (block("CMakeLists.txt: add_subdirectory"), WITH_CMAKE),
}


@pytest.fixture(scope="module")
def debian(date):  # noqa: F811
    """A bare Debian 12 with libmivo-dev, a compiler, CMake and pkg-config. `passed` collects the ways that work."""
    once = Once("bare_library", *MAKING, "docs/embedding.md", "base/*.h", "net/*.h", "tls/*.h", "http/*.h",
                "proxy/*.h", "main/*.h")
    once.skip_maybe()
    if os.geteuid() != 0:
        pytest.skip("only root can make a system of its own")
    mirror = debian_mirror()
    if not mirror:
        pytest.skip("this machine's Debian mirror does not answer")
    package = development_package(build_package(REPOSITORY, date))
    system = BareDebian(mirror)
    system.passed = set()
    try:
        shutil.copy(package, system.root / "tmp")
        # After a crash nobody needs this system, so dpkg does not have to wait for the disk.
        system.run("apt-get", "install", "-y", "--no-install-recommends", "-o", "Dpkg::Options::=--force-unsafe-io",
                   f"/tmp/{package.name}", "g++", "cmake", "make", "pkg-config")
        yield system
        if system.passed == set(WAYS):
            once.note()
    finally:
        system.remove()


@pytest.mark.parametrize("way", WAYS)
def test_hello_built_as_the_page_says__answers_and_ignores_sigpipe(way, debian, port):  # noqa: F811
    cmake_lists, commands = WAYS[way]
    folder = debian.root / "home" / way
    folder.mkdir()
    (folder / "hello.cpp").write_text(hello(port))
    if cmake_lists:
        (folder / "CMakeLists.txt").write_text(cmake_lists)
    if way == "add_subdirectory":
        debian.run("dpkg", "--purge", "libmivo-dev")  # this way must not use the installed package
        for name in repository_files():
            (folder / "mivo" / name).parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(REPOSITORY / name, folder / "mivo" / name)
    debian.run("sh", "-ec", f"cd /home/{way}\n{commands}")
    check_hello(debian.command(f"/home/{way}/hello"), port)
    debian.passed.add(way)
