"""Writes the page docs/platforms.md from the results that script/platforms has kept."""

HEAD = """# Platforms

`script/platforms` wrote this page. It builds and tests in a fresh root folder for each Debian, with the compilers and
the libraries of that Debian. For ARM64 it uses a cross-compiler and an emulator. It also builds for musl. It takes
more than an hour on two cores, and `script/test` does not run it. The programs in each root folder printed the
versions.

A release is built with the warnings of `cmake/flags.cmake` as errors. Clang also compiles each header alone. The unit
tests run with the sanitizers, but in the emulator without them. The black-box tests run the release. A result is
passed / failed / skipped. A dash means that the step was not run.
"""

# How the platforms differ, and what the tests expect of each.
NOTES = """
## What differs

* **OpenSSL 1.1.1** begins a renegotiation when a TLS 1.2 client asks for one, so a malformed one ends the session.
  OpenSSL 3.0 and later refuse it and go on.
* **OpenSSL 3.5** reads a small request completely before it sees that the request is plain HTTP. Then no byte is left
  in the socket that could show this to `mivo`, and only the time-out ends the session. With OpenSSL 3.0 and earlier,
  the session ends at once.
* **curl 8.14** of Debian 13 fails with `(56)` and "unexpected eof while reading" when a response without a length ends
  over HTTPS, because `mivo` closes the connection without a close notification of TLS. The curl of Debian 12 accepts
  such a response.
* **Memory**: the libraries of Debian 13 take 1 to 2 MiB more than those of Debian 12, for which the README has figures.
* **Node 12** of Debian 11 has no `fetch`, so only the tests that do not need it run there. The browser's test needs
  Chromium, and only `script/test` runs it.
* **CMake before 3.20** has no presets. CONTRIBUTING.md has the commands without presets, and these are run here.

## Pages and characters

The program works with any page size. The code for the memory of connections asks the system for the page size. The
tests of this code simulate pages of 4, 16 and 64 KiB (`tests/net/connection_memory_test.cpp`). `char` is unsigned on
ARM64, so the unit tests in the emulator also show that the code works with an unsigned `char`.

## musl

Debian has no C++ library for musl, so `cmake/x86_64-linux-musl.cmake` links Debian's libc++, which was compiled for
glibc. This libc++ needs five functions that musl lacks. Each of them is an ordinary function with an additional check,
and the linker uses the function without the check instead. The program is static and serves only plain HTTP. Where the
tests run, there is no cache of glibc's linker, and `dlopen()` always fails in a static program. So each start prints
`Unable to find ld.so.cache!` and `Unable to load libssl.so` on standard error; the tests check that it prints nothing
else. HTTPS would need an OpenSSL that is compiled for musl, and Debian has none.
"""


def write_page(path, results):
    """`results` is a list of platforms. The results of each platform become one column."""
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
