"""The Debian packages. Their content is right, their bytes are the same wherever they are built, and mivo works on a
Debian 12 that has nothing else. test_linking.py and test_bare_library.py check the content of libmivo-dev.

The last two parts take a minute. They build everything once more, and a system with debootstrap. They run if the
sources of the program, the packaging or the machine's own packages have changed since these parts passed in this build
folder. In a clean clone they always run.
"""

import hashlib
import os
import pathlib
import re
import shutil
import signal
import subprocess
import tempfile

import pytest

import passed
from mivo_process import REPOSITORY, ReservedPort
from wire import until

CODENAME = "bookworm"
FILES = """
/etc/default/mivo
/usr/bin/mivo
/usr/lib/systemd/system/mivo.service
/usr/lib/systemd/system/mivo@.service
/usr/lib/sysusers.d/mivo.conf
/usr/share/bash-completion/completions/mivo
/usr/share/doc/mivo/README.md
/usr/share/doc/mivo/changelog.gz
/usr/share/doc/mivo/copyright
/usr/share/fish/vendor_completions.d/mivo.fish
/usr/share/man/man8/mivo.8.gz
/usr/share/zsh/vendor-completions/_mivo
""".split()


def output_of(*command, **options):
    """The standard output of a command, which has to succeed. Every line end is read as a newline."""
    result = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, **options)
    assert result.returncode == 0, f"{command}: {result.stdout}{result.stderr}"
    return result.stdout


def build_package(folder, date=None):
    """Runs script/package in a copy of the sources, and returns the path of the package mivo. Without a date, the
    script has to find one itself."""
    environment = {name: value for name, value in os.environ.items() if name != "SOURCE_DATE_EPOCH"}
    if date:
        environment["SOURCE_DATE_EPOCH"] = date
    printed = output_of(f"{folder}/script/package", env=environment)
    return pathlib.Path(folder, printed.strip().split("\n")[-1])


@pytest.fixture(scope="module")
def date():
    return output_of("git", "-C", REPOSITORY, "log", "-1", "--format=%ct").strip()


@pytest.fixture(scope="module")
def package(date):
    return build_package(REPOSITORY, date)


def development_package(package):
    """The path of libmivo-dev, which is built together with this package."""
    return package.with_name(f"libmivo-dev_{package.name.removeprefix('mivo_')}")


# The files that decide how a package is made, except for the sources.
MAKING = ["CMakeLists.txt", "CMakePresets.json", "CHANGELOG.md", "cmake", "packaging", "script/package",
          "script/packages.sh", "tests/packaging"]
KEPT = pathlib.Path(os.environ.get("MIVO_BUILD", REPOSITORY / "build/asan"), "debian")


def repository_files(*paths):
    """The existing files of the repository, with new files that git does not ignore."""
    listed = output_of("git", "-C", REPOSITORY, "ls-files", "-z", "--cached", "--others", "--exclude-standard", *paths)
    return [name for name in sorted(set(listed.split("\0"))) if (REPOSITORY / name).is_file()]


@pytest.fixture(scope="module")
def unless_unchanged(request):
    """The names of the long parts that have run; each part adds its own. When all parts have run without a failure, the
    next runs skip them until a file changes. Changes to the other tests do not count. The package itself
    is not compared, because its dates change with every commit."""
    files = repository_files(":!tests") + repository_files("tests/packaging", "tests/harness/passed.py",
                                                           "tests/system/mivo_process.py", "tests/system/wire.py")
    machine = output_of("dpkg-query", "-W", "-f", "${Package} ${Version} ${db:Status-Status}\n")
    digest = passed.digest_of(machine, *(REPOSITORY / name for name in files))
    if passed.has_passed(digest):
        pytest.skip("passed before, and nothing has changed since")
    parts = set()
    yield parts
    if parts == {"built elsewhere", "installed"} and not request.session.testsfailed and not request.config.option.keyword:
        passed.note_pass(digest)


def entries(package):
    """(mode, owner, name) of everything in the package, in the order of the package."""
    lines = output_of("dpkg-deb", "--contents", package).splitlines()
    return [(line.split()[0], line.split()[1], line.split()[5].removeprefix(".")) for line in lines]


def test_contents__are_what_a_user_needs_and_no_other_file(package):
    names = [name for _, _, name in entries(package) if not name.endswith("/")]
    docs = {"/usr/share/doc/mivo/" + str(path.relative_to(REPOSITORY))
            for path in (REPOSITORY / "docs").rglob("*") if path.is_file()}
    assert set(names) == set(FILES) | docs
    modes = {name: mode for mode, _, name in entries(package)}
    assert [name for name in names if modes[name] != "-rw-r--r--"] == ["/usr/bin/mivo"]
    assert modes["/usr/bin/mivo"] == "-rwxr-xr-x"


def test_control_fields__recommend_the_tls_library_and_do_not_depend_on_it(package):
    assert output_of("dpkg-deb", "--field", package, "Recommends").strip() == "libssl3"
    depends = output_of("dpkg-deb", "--field", package, "Depends")
    assert {"libc6", "libstdc++6"} <= set(re.split(r"[ ,]+", depends))
    assert "ssl" not in depends


def test_version_of_the_packages__is_that_of_the_project(package):
    project = re.search(r"project\(mivo VERSION ([\d.]+)", (REPOSITORY / "CMakeLists.txt").read_text())[1]
    for made in (package, development_package(package)):
        assert output_of("dpkg-deb", "--field", made, "Version").strip() == project


def test_package_of_the_library__puts_its_headers_into_one_folder_and_runs_nothing(package):
    library = development_package(package)
    names = [name for _, _, name in entries(library) if not name.endswith("/")]
    headers = [name for name in names if name.startswith("/usr/include/")]
    assert len(headers) > 20 and all(name.startswith("/usr/include/mivo/") for name in headers)
    assert {"/usr/lib/libmivo.a", "/usr/lib/pkgconfig/mivo.pc", "/usr/lib/cmake/mivo/mivoConfig.cmake",
            "/usr/share/doc/libmivo-dev/copyright", "/usr/share/doc/libmivo-dev/changelog.gz"} <= set(names)
    assert {mode for mode, _, name in entries(library) if not name.endswith("/")} == {"-rw-r--r--"}
    control = output_of("dpkg-deb", "--info", library)
    assert not re.search(r"\b(pre|post)(inst|rm)\b", control)


def test_lintian__finds_no_error(package):
    result = subprocess.run(["lintian", "--fail-on", "error", package, development_package(package)],
                            capture_output=True, text=True)
    assert result.returncode == 0, result.stdout
    assert "E: " not in result.stdout


def test_program_in_the_package__is_stripped(package, tmp_path):
    output_of("dpkg-deb", "--extract", package, tmp_path)
    assert ", stripped" in output_of("file", tmp_path / "usr/bin/mivo")


def test_package_built_elsewhere__has_the_same_bytes(package, date, tmp_path, unless_unchanged):
    # Like an unpacked source archive: there is no repository around it, and every file has the commit's time.
    folder = tmp_path / "another/and/longer/path"
    for name in repository_files():
        (folder / name).parent.mkdir(parents=True, exist_ok=True)
        shutil.copy(REPOSITORY / name, folder / name)
        os.utime(folder / name, (int(date), int(date)))
    other = build_package(folder)
    for ours, theirs in ((package, other), (development_package(package), development_package(other))):
        assert hashlib.sha256(ours.read_bytes()).digest() == hashlib.sha256(theirs.read_bytes()).digest()
    unless_unchanged.add("built elsewhere")


def test_everything_in_the_package__is_in_order_and_belongs_to_root(package):
    # Two builds on one disk list a folder in the same order. Another disk may have another order.
    for made in (package, development_package(package)):
        names = [name.rstrip("/") for _, _, name in entries(made)]
        assert names == sorted(names)
        assert {owner for _, owner, _ in entries(made)} == {"root/root"}


# On a bare Debian 12.


def debian_mirror():
    """The mirror from which this machine gets Debian, or None."""
    uris = output_of("apt-get", "indextargets", "--format", "$(REPO_URI)", f"Release: {CODENAME}",
                     "Component: main", "Created-By: Packages")
    for uri in dict.fromkeys(uris.split()):
        if "\nLabel: Debian\n" in release_at(uri):
            return uri
    return None


def release_at(uri):
    """A mirror's description of the release, with the digests of all package lists; empty if it is no mirror."""
    got = subprocess.run(["curl", "-sfL", "-m", "20", f"{uri}dists/{CODENAME}/InRelease"],
                         capture_output=True, text=True, errors="replace")
    return got.stdout if got.returncode == 0 else ""


class BareDebian:
    """A root folder made by debootstrap. remove() deletes it.

    The build folder keeps an archive of it as long as the mirror's release is the same."""

    def __init__(self, mirror):
        self.root = pathlib.Path(tempfile.mkdtemp(prefix="mivo_root_"))
        self.root.chmod(0o755)
        self.processes = []
        try:
            self._fill(mirror, KEPT / f"{passed.digest_of(mirror, release_at(mirror))}.tar")
        except BaseException:
            self.remove()
            raise

    def _fill(self, mirror, kept):
        if kept.exists():
            output_of("tar", "-C", self.root, "--numeric-owner", "-xpf", kept)
            return
        output_of("debootstrap", "--variant=minbase", CODENAME, self.root, mirror)
        shutil.rmtree(KEPT, ignore_errors=True)
        KEPT.mkdir(parents=True)
        unfinished = kept.with_suffix(".new")
        output_of("tar", "-C", self.root, "--numeric-owner", "--one-file-system", "-cpf", unfinished, ".")
        unfinished.rename(kept)

    def command(self, *words):
        return ["env", "-i", "PATH=/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL=C.UTF-8",
                "DEBIAN_FRONTEND=noninteractive", "chroot", str(self.root), *words]

    def run(self, *words):
        return output_of(*self.command(*words))

    def start(self, arguments):
        """Starts the installed program as the user of its service. Returns the path of its console."""
        console = self.root / f"tmp/console_{len(self.processes)}"
        with open(console, "wb") as output:
            process = subprocess.Popen(
                self.command("setpriv", "--reuid=mivo", "--regid=mivo", "--clear-groups", "--no-new-privs",
                             "stdbuf", "-oL", "/usr/bin/mivo", *arguments),
                stdout=output, stderr=subprocess.STDOUT)
        self.processes.append(process)
        until(lambda: process.poll() is not None or "connections\n" in console.read_text(), "the first turn")
        return console

    def stop(self):
        """Ends the program that start() started last, and returns its exit status."""
        self.processes[-1].send_signal(signal.SIGINT)
        return self.processes[-1].wait(15)

    def remove(self):
        for process in self.processes:
            if process.poll() is None:
                process.kill()
                process.wait()
        # debootstrap mounts /proc and /sys there while it runs. Deleting must not go through a mount.
        for _ in range(2):
            mounts = [line.split()[1] for line in pathlib.Path("/proc/mounts").read_text().splitlines()]
            for mount in reversed([mount for mount in mounts if mount.startswith(f"{self.root}/")]):
                output_of("umount", mount)
        output_of("rm", "-rf", "--one-file-system", self.root)


@pytest.fixture(scope="module")
def debian(package, unless_unchanged):
    """A bare Debian 12 on which the package is installed, as a user would install it."""
    if os.geteuid() != 0:
        pytest.skip("only root can make a system of its own")
    mirror = debian_mirror()
    if not mirror:
        pytest.skip("this machine's Debian mirror does not answer")
    system = BareDebian(mirror)
    try:
        shutil.copy(package, system.root / "tmp")
        system.run("apt-get", "install", "-y", f"/tmp/{package.name}")
        unless_unchanged.add("installed")
        yield system
    finally:
        system.remove()


@pytest.fixture
def port():
    reserved = ReservedPort()
    yield reserved.port
    reserved.close()


def fetch(url):
    return output_of("curl", "-sS", "-k", "-m", "20", url)


def test_installation__brings_the_recommended_library_and_the_user(debian):
    assert debian.run("dpkg-query", "-W", "-f", "${db:Status-Status}", "libssl3") == "installed"
    user = debian.run("getent", "passwd", "mivo").strip().split(":")
    assert user[5:] == ["/", "/usr/sbin/nologin"] and 0 < int(user[2]) < 1000
    assert debian.run("dpkg", "--verify", "mivo") == ""
    assert debian.run("mivo").startswith("USAGE:\n")


def test_installation__makes_a_folder_that_only_the_service_may_read(debian):
    assert debian.run("stat", "-c", "%U %G %a", "/etc/mivo") == "root mivo 750\n"


def test_echo_example__shows_the_request(debian, port):
    debian.start([str(port), "-map", f"127.0.0.1:{port}", "-1"])
    page = fetch(f"http://127.0.0.1:{port}/hello")
    assert page.startswith(f"GET /hello HTTP/1.1\nHost: 127.0.0.1:{port}\n")
    assert page.endswith("Your IPv4 address is: 127.0.0.1")
    assert debian.stop() == 0


def test_https_with_the_files_of_the_manuals_deploy_hook__serves(debian, port, tmp_path):
    manual = (REPOSITORY / "packaging/mivo.8").read_text()
    hook = re.search(r"^(#!/bin/sh\n.*?)^\.Ed$", manual, re.M | re.S)[1]
    (debian.root / "tmp/hook").write_text(hook)
    systemctl = debian.root / "usr/bin/systemctl"  # a bare system has none, and no service to restart
    assert not systemctl.exists()
    systemctl.symlink_to("true")
    lineage = debian.root / "etc/letsencrypt/live/blog.example"
    lineage.mkdir(parents=True)
    lineage.parent.chmod(0o700)
    output_of("openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj", "/CN=localhost",
              "-keyout", lineage / "privkey.pem", "-out", lineage / "fullchain.pem")
    debian.run("env", "RENEWED_LINEAGE=/etc/letsencrypt/live/blog.example", "sh", "/tmp/hook")
    systemctl.unlink()
    assert sorted(os.listdir(debian.root / "etc/mivo")) == ["crt.pem", "key.pem"]
    assert (debian.root / "etc/mivo/key.pem").stat().st_mode & 0o777 == 0o640

    debian.start(["0", "-ssl", str(port), "/etc/mivo/key.pem", "/etc/mivo/crt.pem",
                  "-map", f"127.0.0.1:{port}", "-1"])
    assert fetch(f"https://127.0.0.1:{port}/").startswith("GET / HTTP/1.1\n")
    assert debian.stop() == 0


def test_installing_again_and_purging__leave_nothing_but_the_user_and_the_key(debian, package):
    (debian.root / "etc/mivo").chmod(0o700)
    debian.run("dpkg", "--install", f"/tmp/{package.name}")
    assert debian.run("stat", "-c", "%a", "/etc/mivo") == "700\n"  # as the administrator has set it
    (debian.root / "etc/mivo/key.pem").touch()
    debian.run("dpkg", "--purge", "mivo")
    assert (debian.root / "etc/mivo/key.pem").exists()
    assert [name for name in FILES if (debian.root / name.lstrip("/")).exists()] == []
    assert debian.run("getent", "passwd", "mivo")
