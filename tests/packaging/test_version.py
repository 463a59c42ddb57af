"""One version: CMake, the manual, the changelog and the files made from the changelog state the same version.
test_package.py checks the version of the packages."""

import pathlib
import re
import subprocess

from mivo_process import PROGRAM, REPOSITORY

CHANGELOG = (REPOSITORY / "CHANGELOG.md").read_text()
SECTIONS = re.findall(r"^## (\S+) \((\d{4}-\d\d-\d\d)\)$", CHANGELOG, re.M)


def stated(file, pattern):
    return re.search(pattern, (REPOSITORY / file).read_text(), re.M)[1]


def debian_changelog():
    made = subprocess.run([REPOSITORY / "packaging/debian_changelog", REPOSITORY / "CHANGELOG.md"],
                          stdout=subprocess.PIPE, check=True, text=True)
    return made.stdout


def test_version__is_the_same_in_cmake_the_manual_and_the_changelog():
    version = stated("CMakeLists.txt", r"^project\(mivo VERSION (\S+) ")
    assert re.fullmatch(r"\d+\.\d+\.\d+", version)
    assert stated("packaging/mivo.8", r"^\.Os mivo (\S+)$") == version
    assert SECTIONS[0][0] == version


def test_example_of_a_project__asks_for_this_version():
    asked = stated("docs/embedding.md", r"^find_package\(mivo (\S+) REQUIRED\)$")
    assert SECTIONS[0][0].startswith(f"{asked}.")


def test_versions_of_the_changelog__have_a_date_and_come_newest_first():
    assert len(SECTIONS) == len(re.findall(r"^## ", CHANGELOG, re.M)) > 1
    numbers = [tuple(map(int, version.split("."))) for version, _ in SECTIONS]
    assert numbers == sorted(set(numbers), reverse=True)
    dates = [date for _, date in SECTIONS]
    assert dates == sorted(dates, reverse=True)


def test_debian_changelog__is_read_by_debian_and_has_every_version_with_its_date():
    read = subprocess.run(["dpkg-parsechangelog", "-l", "-", "--all"], input=debian_changelog(), text=True,
                          capture_output=True, check=True)
    assert read.stderr == ""
    versions = re.findall(r"^ mivo \((\S+)\) unstable; urgency=medium$", read.stdout, re.M)
    assert versions == [version for version, _ in SECTIONS]
    stamps = re.findall(r"^ -- .*>  (.*)$", debian_changelog(), re.M)
    dates = subprocess.run(["date", "-u", "-f", "-", "+%Y-%m-%d"], input="\n".join(stamps), text=True,
                           capture_output=True, check=True)
    assert dates.stdout.split() == [date for _, date in SECTIONS]


def test_debian_changelog__has_all_words_of_all_changes_in_short_lines():
    ours = re.sub(r"^#.*$", "", CHANGELOG[CHANGELOG.index("\n## "):], flags=re.M).replace("`", "")
    debian = "\n".join(re.findall(r"^  (?!\[ ).*$", debian_changelog(), re.M))
    assert debian.split() == ours.split()
    assert max(map(len, debian.splitlines())) <= 80  # Debian's limit


def test_installed_changelog__is_the_one_of_this_version():
    made = pathlib.Path(PROGRAM).parent / "packaging/changelog.gz"
    text = subprocess.run(["gzip", "-dc", made], stdout=subprocess.PIPE, check=True).stdout.decode()
    assert text.startswith(f"mivo ({SECTIONS[0][0]}) ")
