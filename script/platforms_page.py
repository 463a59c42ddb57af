"""Writes the page docs/platforms.md from the results that script/platforms has kept."""

HEAD = """# Platforms

`script/platforms` wrote this page. It builds and tests in a fresh root of each Debian, with the compilers and the
libraries of that Debian; for ARM64 with a cross-compiler and an emulator; and for musl. It takes a few hours, and
`script/test` does not run it. The versions are what the programs in each root say.

A release is built with the warnings of `cmake/flags.cmake` as errors; with Clang every header is compiled alone as
well. The unit tests run with the sanitizers, but not in the emulator. The black-box tests run the release. A result
is passed / failed / skipped. A dash stands for what was not run.
"""

# How the platforms differ, and what the tests expect of each.
NOTES = """
## What differs

* **OpenSSL 1.1.1** begins a renegotiation when a TLS 1.2 client asks for one, so a malformed one ends the session.
  OpenSSL 3.0 and later refuse it and go on.
* **OpenSSL 3.5** reads a whole small request before it sees that it is plain HTTP. Nothing is left in the socket to
  tell, so the session ends by the time-out; with OpenSSL 3.0 and before it ends at once.
* **Node 12** of Debian 11 has no `fetch`, so only the tests that do without it run there; the browser's test
  needs Chromium and runs in `script/test` alone.
* **CMake before 3.20** has no presets: CONTRIBUTING.md has the plain commands, and these are what runs here.

## Pages and characters

Nothing depends on the size of a page. The memory of connections asks the system for it, and its tests run with
pretended pages of 4, 16 and 64 KiB (`tests/net/connection_memory_test.cpp`). `char` is unsigned on ARM64, so the unit
tests in the emulator are also those of the signedness of `char`.

## musl

Debian has no C++ library for musl. `cmake/x86_64-linux-musl.cmake` links Debian's libc++, which was compiled for
glibc: musl lacks five functions that it asks for, all of them checked variants of ordinary ones, and the linker puts
the ordinary ones in their place. The program is static and serves plain HTTP. There is no cache of glibc's linker, and
`dlopen()` refuses in a static program, so each start says `Unable to find ld.so.cache!` and `Unable to load libssl.so`
on standard error; the tests check that this is all. HTTPS would need an OpenSSL that is compiled for musl, and Debian
has none.
"""


def write_page(path, results):
    """`results` has the results of each platform, which become one column."""
    if not results:
        return
    rows = [["", *(found["system"] for found in results)], ["---"] * (len(results) + 1)]
    for section, show in [("versions", str), ("builds", str), ("tests", counts)]:
        names = dict.fromkeys(name for found in results for name in found.get(section, {}))
        rows += [[name, *(show(found[section][name]) if name in found.get(section, {}) else "-" for found in results)]
                 for name in names]
    rows += [[name, *(found.get(name, "-") for found in results)] for name in ("date", "commit")]
    path.write_text(HEAD + "\n" + "".join(f"| {' | '.join(row)} |\n" for row in rows) + NOTES)


def counts(test):
    return f"{test['passed']} / {test['failed']} / {test['skipped']}"
