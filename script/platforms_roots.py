"""The platforms of script/platforms. Each has a root in build/platforms, with its packages, builds and results.

A root shares only the kernel with this machine, and the network while packages are installed. The tests run in
namespaces of their own, so all processes that they start end with them. Commands in a root run as root.
"""

import datetime
import json
import os
import pathlib
import re
import shutil
import subprocess
import xml.etree.ElementTree

ROOT = pathlib.Path(__file__).resolve().parents[1]
WORK = ROOT / "build/platforms"
MIRROR = os.environ.get("MIVO_MIRROR", "http://deb.debian.org/debian")
PATIENCE = 3600  # seconds; for one command in a root
# Those packages of script/test that are needed here.
PACKAGES = ["g++", "cmake", "ninja-build", "libgtest-dev", "libgmock-dev", "python3", "python3-pytest",
            "python3-cryptography", "iproute2", "nodejs", "openssl", "curl", "ca-certificates", "gnutls-bin", "sslscan"]
ARM_PACKAGES = ["g++-aarch64-linux-gnu", "cmake", "ninja-build", "libgtest-dev:arm64", "libgmock-dev:arm64",
                "libstdc++6:arm64", "libssl3:arm64", "qemu-user-static", "python3", "python3-pytest", "iproute2", "openssl"]
MUSL_PACKAGES = ["clang-14", "libc++-14-dev", "libc++abi-14-dev", "libunwind-14-dev", "musl-dev", "gcc", "cmake",
                 "ninja-build", "python3", "python3-pytest", "iproute2"]
PARTS = ["build", "system", "unit"]
UNITS = ["base", "net", "tls", "http", "proxy", "main", "injection"]
UNIT_TESTS = [f"test_{folder}" for folder in UNITS]
# The names are those of the rows on the page.
GROUPS = {
    "requests, relay, redirect": ["requests", "routing", "redirect", "idle"],
    "HTTPS clients, resumption": ["tls_clients"],
    "certificates: reload, chains": ["tls_reload", "tls_chains", "tls_surprises"],
    "hostile TLS clients": ["tls_faults", "tls_fairness", "tls_write_first", "tls_departures"],
    "OpenSSL taken apart": ["tls_stub"],
    "slow lines": ["links"],
}
ARM_GROUPS = {"requests, relay, redirect": ["requests", "routing", "redirect"]}
MUSL_GROUPS = {"requests, relay": ["requests", "routing"]}  # no redirect without HTTPS to redirect to
# The command that prints the version of each program.
VERSIONS = {
    "g++": "g++ --version", "clang": "CLANG --version", "libc": "ldd --version", "OpenSSL": "openssl version",
    "CMake": "cmake --version", "Python": "python3 --version", "pytest": "python3 -m pytest --version 2>&1",
}
ARM_VERSIONS = {
    "g++": "aarch64-linux-gnu-g++ --version", "libc": "dpkg-query -W libc6:arm64",
    "CMake": "cmake --version", "Python": "python3 --version", "pytest": "python3 -m pytest --version 2>&1",
    "emulator": "qemu-aarch64-static --version",
}
MUSL_VERSIONS = {
    "clang": "clang++-14 --version", "libc": "dpkg-query -W musl", "CMake": "cmake --version",
    "Python": "python3 --version", "pytest": "python3 -m pytest --version 2>&1",
}

# $1 is the root, $2 the command. /proc, /dev and /sys disappear when the last process in the namespaces has ended.
IN_A_ROOT = """
set -e
mount -t proc proc "$1/proc"
mount --rbind /dev "$1/dev"
mount --rbind /sys "$1/sys"
exec chroot "$1" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 \
  DEBIAN_FRONTEND=noninteractive sh -c "$2
  exit"
"""


class Failure(Exception):
    """A command in a root has failed. The text says which command, and what it printed."""


class Platform:
    """A Debian in build/platforms/NAME: its root, its results and its logs."""

    packages, groups, versions = PACKAGES, GROUPS, VERSIONS
    wrapper = "/build/wrapped_mivo"

    def __init__(self, name, suite):
        self.name, self.suite = name, suite
        self.folder = WORK / name
        self.root = self.folder / "root"

    @property
    def clang(self):
        """The name of the newest clang++ in the root."""
        names = [path.name for path in (self.root / "usr/bin").glob("clang++-*")]
        return max(names, key=lambda name: int(name.rpartition("-")[2]), default="")

    def run(self, what, command, network=False):
        """Runs a shell command in the root and returns its output, which also goes to a log of its own."""
        print(f"{self.name}: {what}", flush=True)
        spaces = ["--mount", "--pid", "--fork", "--kill-child", *([] if network else ["--net"])]
        if not network:
            command = f"ip link set lo up\n{command}"
        done = subprocess.run(["unshare", *spaces, "sh", "-c", IN_A_ROOT, "sh", self.root, f"set -e\n{command}"],
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                              text=True, errors="replace", timeout=PATIENCE, check=False)
        (self.folder / f"{re.sub(r'[^a-z0-9]+', '_', what.lower())}.log").write_text(done.stdout)
        if done.returncode != 0:
            raise Failure(f"{self.name}: {what} failed, see {self.folder}:\n{done.stdout[-3000:]}")
        return done.stdout

    def make_root(self):
        """Makes the root and installs its packages, unless that is done already."""
        made = self.folder / "made"
        wanted = " ".join(self.packages)
        if made.exists() and made.read_text() == wanted:
            return
        made.unlink(missing_ok=True)
        self.folder.mkdir(parents=True, exist_ok=True)
        if not (self.root / "etc/apt/sources.list").exists():
            shutil.rmtree(self.root, ignore_errors=True)
            print(f"{self.name}: debootstrap", flush=True)
            subprocess.run(["debootstrap", "--variant=minbase", self.suite, self.root, MIRROR], check=True,
                           stdout=subprocess.DEVNULL)
        (self.root / "etc/hosts").write_text("127.0.0.1 localhost\n")
        shutil.copy("/etc/resolv.conf", self.root / "etc/resolv.conf")
        # The mirror may have lists that have expired; there are no newer ones.
        (self.root / "etc/apt/apt.conf.d/mirror").write_text('Acquire::Check-Valid-Until "false";\n')
        self.run("packages", self.package_commands(), network=True)
        made.write_text(wanted)

    def package_commands(self):
        newest_clang = "$(apt-cache pkgnames clang- | grep -E '^clang-[0-9]+$' | sort -V | tail -n 1)"
        return ("apt-get update\n"
                f"apt-get install -y --no-install-recommends {' '.join(self.packages)} {newest_clang}")

    def copy_sources(self):
        """Copies the sources as they are here, committed or not, to /mivo. The files keep their times."""
        sources = self.root / "mivo"
        shutil.rmtree(sources, ignore_errors=True)
        listed = subprocess.run(["git", "ls-files", "-z", "--cached", "--others", "--exclude-standard"], cwd=ROOT,
                                capture_output=True, text=True, check=True).stdout
        for name in filter(None, listed.split("\0")):
            if (ROOT / name).exists():
                (sources / name).parent.mkdir(parents=True, exist_ok=True)
                shutil.copy2(ROOT / name, sources / name)

    def build(self, what, folder, *options, targets=("all",), linked=""):
        """`linked` is an object file that goes into every program."""
        self.run(f"build {what}",
                 f"export LDFLAGS={linked}\n"
                 f"cmake -S /mivo -B /build/{folder} -G Ninja {' '.join(options)}\n"
                 f"cmake --build /build/{folder} --target {' '.join(targets)}")

    def build_all(self):
        """Builds the release with both compilers. A warning is an error."""
        self.build("release with g++", "release", "-DCMAKE_BUILD_TYPE=Release")
        self.build("release with clang", "clang", "-DCMAKE_BUILD_TYPE=Release",
                   f"-DCMAKE_CXX_COMPILER={self.clang}", targets=("all", "lone_headers"))
        return {"release, g++": "built", "release, clang": "built"}

    def build_unit_tests(self):
        self.build("tests with g++", "tests", "-DCMAKE_BUILD_TYPE=Asan", "-DMIVO_TESTS=ON", targets=UNIT_TESTS)

    def write_wrapper(self, command):
        """Writes a script into the root folder; the tests start it in place of mivo. The script clears LD_PRELOAD, in
        which the tests name stdbuf's library: that library works only with this machine's processor and C library."""
        path = self.root / self.wrapper.lstrip("/")
        path.write_text(f'#!/bin/sh\nunset LD_PRELOAD\n{command} "$@"\n')
        path.chmod(0o755)

    def test(self, what, command, report):
        """Runs tests that write a report in JUnit's form, and returns their counts."""
        path = self.root / report.lstrip("/")
        path.unlink(missing_ok=True)
        output = self.run(what, f"{command} || true")
        if not path.exists():
            raise Failure(f"{self.name}: {what} ended without a report:\n{output[-3000:]}")
        return counts(path)

    def all_system_tests(self):
        for what, files in self.groups.items():
            self.note(tests={what: self.system_tests(what, files)})

    def unit_tests(self):
        self.build_unit_tests()
        total = {}
        for folder in UNITS:
            report = f"/tmp/unit_{folder}.xml"
            add(total, self.test(f"unit tests {folder}", self.unit_command(folder, report), report))
        self.note(tests={"unit tests": total})

    def unit_command(self, folder, report):
        return f"/build/tests/tests/test_{folder} --gtest_shuffle --gtest_output=xml:{report}"

    def system_tests(self, what, files):
        report = "/tmp/system.xml"
        names = " ".join(f"test_{name}.py" for name in files)
        # No browser: it is 300 MB, and has a TLS library of its own.
        return self.test(what, f"cd /mivo/tests/system\n{self.environment()} python3 -B -m pytest -q -rs "
                               f"-p no:cacheprovider -k 'not browser' --junit-xml={report} {names}", report)

    def environment(self):
        return "MIVO_PROGRAM=/build/release/mivo"

    def read_versions(self):
        found = {}
        for name, command in self.versions.items():
            output = self.run(f"version of {name}", command.replace("CLANG", self.clang)).split("\n")[0]
            found[name] = re.findall(r"\d+(?:\.\d+)+[a-z]*", output)[-1 if name in ("g++", "libc") else 0]
        return found

    def go(self, parts):
        """Runs the parts. Keeps their results in NAME/results.json, together with those of earlier runs."""
        self.make_root()
        self.copy_sources()
        self.note(system=self.system())
        if "build" in parts:
            self.note(builds=self.build_all())
        self.note(versions=self.read_versions(), date=datetime.date.today().isoformat(), commit=commit())
        if "system" in parts:
            self.all_system_tests()
        if "unit" in parts:
            self.unit_tests()

    def results(self):
        path = self.folder / "results.json"
        return json.loads(path.read_text()) if path.exists() else {}

    def note(self, **found):
        results = self.results()
        for name, value in found.items():
            results[name] = {**results.get(name, {}), **value} if isinstance(value, dict) else value
        (self.folder / "results.json").write_text(json.dumps(results, indent=1))

    def system(self):
        fields = dict(re.findall(r'^(\w+)="?(.*?)"?$', (self.root / "etc/os-release").read_text(), re.M))
        codename = fields["VERSION_CODENAME"]
        return f"Debian {fields['VERSION_ID']}, {codename}" if "VERSION_ID" in fields else f"Debian testing, {codename}"


class Arm(Platform):
    """64-bit ARM on Debian 12. The program is cross-compiled, and an emulator runs it."""

    packages, groups, versions = ARM_PACKAGES, ARM_GROUPS, ARM_VERSIONS
    def package_commands(self):
        return ("dpkg --add-architecture arm64\napt-get update\n"
                f"apt-get install -y --no-install-recommends {' '.join(self.packages)}\n"
                "cd /tmp\napt-get download coreutils:arm64\ndpkg-deb -x coreutils_*_arm64.deb /arm64")

    def build_all(self):
        self.build_for_arm(["all"], "release", "-DCMAKE_BUILD_TYPE=Release")
        self.write_wrapper("exec qemu-aarch64-static -E LD_PRELOAD=/arm64/usr/libexec/coreutils/libstdbuf.so "
                           "/build/release/mivo")
        return {"release, g++": "built"}

    def build_unit_tests(self):
        """Builds without the sanitizers, which do not work in the emulator."""
        self.build_for_arm(UNIT_TESTS, "tests", "-DCMAKE_BUILD_TYPE=Debug", "-DMIVO_TESTS=ON")

    def build_for_arm(self, targets, folder, *options):
        self.build(f"{folder} for ARM64", folder, "-DCMAKE_TOOLCHAIN_FILE=/mivo/cmake/aarch64-linux-gnu.cmake",
                   *options, targets=targets)

    def unit_command(self, folder, report):
        return f"qemu-aarch64-static /build/tests/tests/test_{folder} --gtest_shuffle --gtest_output=xml:{report}"

    def environment(self):
        return f"MIVO_PROGRAM={self.wrapper}"

    def system(self):
        return "ARM64 on " + super().system()


class Musl(Platform):
    """musl on Debian 12: a static program that serves only plain HTTP. The root has no cache of glibc's linker."""

    packages, groups, versions = MUSL_PACKAGES, MUSL_GROUPS, MUSL_VERSIONS
    # Does what stdbuf does to other programs. Nothing can be preloaded into a static program.
    lines = ("#include <stdio.h>\n"
             "__attribute__((constructor)) static void by_lines(void) { setvbuf(stdout, 0, _IOLBF, 0); }\n")
    errors = "/tmp/errors"

    def package_commands(self):
        return f"apt-get update\napt-get install -y --no-install-recommends {' '.join(self.packages)}"

    def build_all(self):
        (self.root / "tmp/lines.c").write_text(self.lines)
        self.run("object for the tests", "clang-14 --target=x86_64-linux-musl -nostdlibinc -fPIE "
                 "-isystem /usr/include/x86_64-linux-musl -c /tmp/lines.c -o /tmp/lines.o")
        self.build("for musl", "musl", "-DCMAKE_TOOLCHAIN_FILE=/mivo/cmake/x86_64-linux-musl.cmake",
                   "-DCMAKE_BUILD_TYPE=Release", targets=("mivo",), linked="/tmp/lines.o")
        self.write_wrapper(f"exec 2>>{self.errors}\nexec /build/musl/mivo")
        (self.root / "etc/ld.so.cache").unlink(missing_ok=True)
        return {"release, clang": "built"}

    def unit_tests(self):
        """None: GoogleTest would have to be compiled for musl, too."""

    def all_system_tests(self):
        """Also checks that standard error has nothing but the two lines that the loader prints at each start."""
        errors = self.root / self.errors.lstrip("/")
        errors.unlink(missing_ok=True)
        super().all_system_tests()
        said = set(errors.read_text().splitlines())
        if said != {"Unable to find ld.so.cache!", "Unable to load libssl.so"}:
            raise Failure(f"{self.name}: on standard error: {said}")

    def environment(self):
        return f"MIVO_PROGRAM={self.wrapper}"

    def system(self):
        return "musl on " + super().system()


PLATFORMS = [Platform("bullseye", "bullseye"), Platform("bookworm", "bookworm"), Platform("trixie", "trixie"),
             Platform("testing", "testing"), Arm("arm64", "bookworm"), Musl("musl", "bookworm")]


def counts(path):
    """Returns {"passed": n, ...} of a report. Names failed and skipped tests on the console."""
    found = {"passed": 0, "failed": 0, "skipped": 0}
    for case in xml.etree.ElementTree.parse(path).iter("testcase"):
        if case.get("status") == "notrun":
            continue
        kind = "passed"
        if case.find("failure") is not None or case.find("error") is not None:
            kind = "failed"
        elif case.find("skipped") is not None:
            kind = "skipped"
        if kind != "passed":
            print(f"  {kind}: {case.get('classname')}.{case.get('name')}")
        found[kind] += 1
    return found


def add(total, more):
    for kind, count in more.items():
        total[kind] = total.get(kind, 0) + count


def commit():
    def git(*arguments):
        return subprocess.run(["git", *arguments], cwd=ROOT, capture_output=True, text=True, check=True).stdout.strip()
    changed = git("status", "--porcelain", "--", ".", ":!docs/platforms.md")
    return git("rev-parse", "--short", "HEAD") + (" with changes" if changed else "")
