"""script/release: the files that it makes, the same bytes for the same commit, and the cases that it refuses.

It runs in separate repositories. Their script/test only says that it ran, because the whole test run, which includes
this file, takes too long. For the same reason, their figures count as fresh.
"""

import hashlib
import os
import re
import shutil
import subprocess
import tarfile

import pytest

from mivo_process import REPOSITORY
from outside import Once, output_of
from test_package import MAKING, repository_files

VERSION = re.search(r"project\(mivo VERSION (\S+)", (REPOSITORY / "CMakeLists.txt").read_text())[1]
COMMIT_TIME = 1_700_000_000  # in 2023, because ninja does not work well with files from the future
# The user who runs the tests may sign commits, or have hooks.
GIT = ["git", "-c", "user.name=Tester", "-c", "user.email=tester@mivo.example", "-c", "commit.gpgsign=false",
       "-c", "core.hooksPath=/dev/null"]
STAND_IN = "#!/bin/sh\necho {0} ran\nexit {1}\n"


class Repository:
    """A copy of this repository, as it is now, with one commit."""

    def __init__(self, folder):
        self.folder = folder
        for name in repository_files():
            (folder / name).parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(REPOSITORY / name, folder / name)
        output_of("git", "init", "-q", "-b", "main", folder)
        self.replace("script/test", STAND_IN.format("script/test", 0))
        self.replace("bench/figures_age", STAND_IN.format("bench/figures_age", 0))
        self.commit()

    def replace(self, name, text):
        (self.folder / name).write_text(text)
        (self.folder / name).chmod(0o755)

    def change(self, name, pattern, text):
        changed, count = re.subn(pattern, text, (self.folder / name).read_text(), count=1, flags=re.M)
        assert count == 1
        (self.folder / name).write_text(changed)

    def commit(self):
        environment = {**os.environ, "GIT_AUTHOR_DATE": f"{COMMIT_TIME} +0000",
                       "GIT_COMMITTER_DATE": f"{COMMIT_TIME} +0000"}
        output_of(*GIT, "-C", self.folder, "add", "--all")
        output_of(*GIT, "-C", self.folder, "commit", "-q", "-m", "state", env=environment)

    def release(self, *arguments, umask=0o022, **environment):
        return subprocess.run([self.folder / "script/release", *arguments], capture_output=True, text=True,
                              env={**os.environ, **environment}, preexec_fn=lambda: os.umask(umask), check=False)


@pytest.fixture
def repository(tmp_path):
    return Repository(tmp_path / "repository")


def test_release__has_the_same_bytes_wherever_and_whenever_it_is_made(tmp_path):
    with Once("release", *MAKING, "script/release"):
        one = Repository(tmp_path / "one")
        other = Repository(tmp_path / "a/longer/path")
        first = one.release(VERSION)
        assert first.returncode == 0, first.stdout + first.stderr
        second = other.release(VERSION, umask=0o077, TZ="Asia/Tokyo", LC_ALL="C", SOURCE_DATE_EPOCH="1")
        assert second.returncode == 0, second.stdout + second.stderr
        assert "bench/figures_age ran\nscript/test ran\n" in first.stdout

        dist = one.folder / "build/dist" / f"mivo-{VERSION}"
        assert first.stdout.splitlines()[-1] == str(dist)
        check_files(dist)
        check_archive(dist, one)
        sums = [repository.folder / "build/dist" / f"mivo-{VERSION}" / "SHA256SUMS" for repository in (one, other)]
        assert sums[0].read_text() == sums[1].read_text()


def check_files(dist):
    names = sorted(path.name for path in dist.iterdir())
    architecture = output_of("dpkg", "--print-architecture").strip()
    assert names == sorted(["NOTES.md", "SHA256SUMS", f"mivo-{VERSION}.tar.gz",
                            f"mivo_{VERSION}_{architecture}.deb", f"libmivo-dev_{VERSION}_{architecture}.deb"])
    sums = dict(reversed(line.split()) for line in (dist / "SHA256SUMS").read_text().splitlines())
    assert sorted([*sums, "SHA256SUMS"]) == names
    for name, told in sums.items():
        assert hashlib.sha256((dist / name).read_bytes()).hexdigest() == told
    changelog = (REPOSITORY / "CHANGELOG.md").read_text()
    notes = (dist / "NOTES.md").read_text()
    assert notes.strip() == re.split(r"^## .*$", changelog, flags=re.M)[1].strip()


def check_archive(dist, repository):
    """Checks that all files of the commit are in the archive, with the commit's time. test_package.py builds from a
    folder with these files."""
    with tarfile.open(dist / f"mivo-{VERSION}.tar.gz") as archive:
        members = archive.getmembers()
    files = {member.name.removeprefix(f"mivo-{VERSION}/") for member in members if member.isfile()}
    assert files == set(output_of("git", "-C", repository.folder, "ls-files").splitlines())
    assert {member.mtime for member in members} == {COMMIT_TIME}


# The releases that script/release refuses. It refuses all of them before it builds.


def refused(repository, version=VERSION):
    """Checks that there is no release; returns the reason."""
    done = repository.release(version)
    assert done.returncode == 1
    assert not (repository.folder / "build").exists()
    return done.stderr.splitlines()[-1].removeprefix("No release: ")


def test_release__is_refused_without_a_version(repository):
    done = repository.release()
    assert (done.returncode, done.stderr) == (1, "No release: say which: script/release VERSION.\n")
    assert not (repository.folder / "build").exists()


def test_release__is_refused_if_a_file_is_not_committed(repository):
    (repository.folder / "note.txt").write_text("to be looked at\n")
    assert refused(repository) == "the working tree has changes that are not committed."


def test_release__is_refused_if_its_version_is_stated_nowhere(repository):
    assert refused(repository, "9.9.9") == f"CMakeLists.txt states version {VERSION}, not 9.9.9."


@pytest.mark.parametrize("file, pattern, text", [
    ("packaging/mivo.8", r"^\.Os mivo .*$", ".Os mivo 9.9.9"),
    ("CHANGELOG.md", r"^## \S+", "## 9.9.9"),
], ids=["manual", "changelog"])
def test_release__is_refused_if_the_manual_or_the_changelog_states_another_version(file, pattern, text, repository):
    repository.change(file, pattern, text)
    repository.commit()
    assert refused(repository) == f"{file} states version 9.9.9, not {VERSION}."


def test_release__is_refused_if_the_changelog_has_no_text_for_it(repository):
    repository.change("CHANGELOG.md", r"^(## \S+ .*)$", r"\1\n\n## 0.0.1 (2026-11-01)")
    repository.commit()
    assert refused(repository) == f"the changelog's section for {VERSION} is empty."


@pytest.mark.parametrize("script, reason", [
    ("script/test", "a test fails."),
    ("bench/figures_age", "the figures are older than the code."),
])
def test_release__is_refused_if_a_check_fails(script, reason, repository):
    repository.replace(script, STAND_IN.format(script, 1))
    repository.commit()
    assert refused(repository) == reason


def test_release__is_refused_if_the_figures_cannot_be_checked(repository):
    (repository.folder / "bench/figures_age").unlink()
    repository.commit()
    assert refused(repository) == "the figures are older than the code."


def test_release__is_refused_if_a_package_states_another_version(repository):
    control = "Package: mivo\nVersion: 9.9.9\nArchitecture: all\nMaintainer: tester@mivo.example\nDescription: empty\n"
    repository.replace("script/package", "#!/bin/sh\nmkdir -p build/package/mivo/DEBIAN\n"
                       f"cat >build/package/mivo/DEBIAN/control <<'end'\n{control}end\n"
                       "dpkg-deb --build build/package/mivo\n")
    repository.commit()
    assert refused(repository) == f"build/package/mivo.deb states version 9.9.9, not {VERSION}."


def test_release__is_built_without_files_that_git_ignores(repository):
    """A file that git ignores does not make the tree dirty. It must not get into the build either."""
    repository.replace("script/test", "#!/bin/sh\n! test -e base/ignored.cpp\n")
    repository.replace(".gitignore", (repository.folder / ".gitignore").read_text() + "ignored.cpp\n")
    repository.replace("script/package", STAND_IN.format("script/package", 7))
    repository.commit()
    (repository.folder / "base/ignored.cpp").write_text("#error this is not committed\n")
    done = repository.release(VERSION)
    assert done.returncode == 7 and "script/package ran" in done.stdout, done.stdout + done.stderr
