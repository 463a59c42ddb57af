"""The harness itself: it reports a fault in a test program soon, with the name of the test, and it leaves out no build
of a program."""

import os
import pathlib
import subprocess
import sys

import pytest

PROGRAM = f"{os.environ['MIVO_BUILD']}/tests/faulty_tests"
SYSTEM = pathlib.Path(__file__).resolve().parents[1] / "system"
SOON = 30  # seconds; usually it takes a quarter of a second


def run(*command, **options):
    return subprocess.run(command, capture_output=True, text=True, errors="replace", timeout=SOON, **options)


def run_test(name):
    """Runs one of the tests in the program; returns its exit status and everything that it prints."""
    result = run(PROGRAM, "--gtest_also_run_disabled_tests", f"--gtest_filter=*{name}")
    return result.returncode, result.stdout, result.stderr


def test_leak_in_a_test__is_reported_with_its_place():
    status, _, errors = run_test("leaks")
    assert status != 0
    assert "LeakSanitizer: detected memory leaks" in errors
    assert "Direct leak of 4711 byte(s)" in errors
    assert "made_for_nobody" in errors


def test_crash_in_a_test__leaves_its_name_as_the_last_line():
    status, output, _ = run_test("crashes")
    assert status != 0
    assert output.rstrip().split("\n")[-1].split("]")[1].strip() == "faulty.DISABLED_crashes"


SKIPPING_TEST = """
import pytest

@pytest.fixture(params=[1, 2])
def dry(request):
    pytest.skip("it rains")

def test_picnic(dry):
    pass
"""


@pytest.fixture
def log(tmp_path):
    """The log of a run in which three tests were skipped, by GoogleTest and by pytest."""
    (tmp_path / "test_picnic.py").write_text(SKIPPING_TEST)
    printed = run(sys.executable, "-m", "pytest", "-q", "-rs", "-p", "no:cacheprovider", "test_picnic.py", cwd=tmp_path)
    path = tmp_path / "LastTest.log"
    path.write_text(printed.stdout + run_test("skips")[1])
    return path


@pytest.mark.parametrize("allowed, surprises", [("", 2), ("it rains", 1), ("moon", 1), ("rain|moon", 0)])
def test_skips__are_listed_and_fail_the_run_unless_they_are_expected(log, allowed, surprises):
    script = pathlib.Path(__file__).with_name("skips.py")
    listed = run(sys.executable, script, log, env={**os.environ, "MIVO_MAY_SKIP": allowed})
    assert listed.stdout.count("it rains\n") == listed.stdout.count("the moon is full\n") == 1
    assert listed.stdout.count("not expected") == surprises
    assert listed.returncode == (surprises > 0)


@pytest.mark.parametrize("program", ["mivo", "chat", "file_server", "forward_proxy", "slow_job"])
def test_program__is_tested_with_sanitizers_too(program):
    """Where a build is missing, the black-box tests do without it and pass."""
    script = ("import example_process, mivo_process, sys\n"
              "name = sys.argv[1]\n"
              "print(*mivo_process.programs() if name == 'mivo' else example_process.builds(name))")
    listed = run(sys.executable, "-B", "-c", script, program, cwd=SYSTEM)
    assert listed.returncode == 0, listed.stderr
    assert {"release", "sanitized"} <= set(listed.stdout.split())
