"""The systemd units, as far as a test can check them without a running systemd; and their command, run as systemd
would run it."""

import configparser
import os
import pathlib
import re
import shutil
import signal
import socket
import subprocess
import tempfile

import pytest

from mivo_process import PROGRAM
from wire import Wire, request, until

UNITS = ["mivo.service", "mivo@.service"]
NOBODY = 65534
LEAST_PORT = 1024  # ports below it need a privilege


@pytest.fixture
def unit(installed, name):
    return installed / "usr/lib/systemd/system" / name


def settings(unit, section="Service"):
    parser = configparser.ConfigParser(strict=False, interpolation=None, delimiters="=")
    parser.optionxform = str
    parser.read(unit)
    return parser[section]


@pytest.mark.parametrize("name", UNITS)
def test_unit__is_without_fault(unit, tmp_path):
    # systemd looks for the program and its manual on this machine, where they need not be installed.
    copy = tmp_path / unit.name
    copy.write_text(unit.read_text().replace("/usr/bin/mivo ", f"{PROGRAM} "))
    result = subprocess.run(["systemd-analyze", "verify", "--man=no", copy], capture_output=True, text=True)
    assert (result.returncode, result.stdout, result.stderr) == (0, "", "")


@pytest.mark.parametrize("name", UNITS)
def test_exposure_of_the_unit__is_at_most_2(unit):
    result = subprocess.run(["systemd-analyze", "security", "--offline=true", "--no-pager", unit],
                            capture_output=True, text=True, env={**os.environ, "LC_ALL": "C.UTF-8"})
    exposure = re.search(r"Overall exposure level for \S+: ([\d.]+)", result.stdout)
    assert exposure, result.stdout + result.stderr
    assert float(exposure[1]) <= 2.0, result.stdout


def test_template__differs_in_its_name_alone(installed):
    plain, template = ((installed / "usr/lib/systemd/system" / name).read_text().splitlines() for name in UNITS)
    assert len(plain) == len(template)
    differing = [a.split("=")[0] for a, b in zip(plain, template) if a != b and not a.startswith("#")]
    assert differing == ["Description", "SyslogIdentifier"]


@pytest.mark.parametrize("name", UNITS)
def test_files_that_the_unit_names__are_installed(unit, installed):
    service = settings(unit)
    stdbuf, mode, program, arguments = service["ExecStart"].split()
    assert (stdbuf, mode, arguments) == (shutil.which("stdbuf"), "-oL", "$MIVO_ARGS")
    assert os.access(f"{installed}{program}", os.X_OK)
    assert "\nMIVO_ARGS=" in (installed / service["EnvironmentFile"].lstrip("/")).read_text()
    users = (installed / "usr/lib/sysusers.d/mivo.conf").read_text()
    assert re.search(rf"^u {service['User']} ", users, re.M)


@pytest.mark.parametrize("name", UNITS)
def test_program_that_ends_at_once_again_and_again__makes_the_unit_fail(unit):
    """The exit status is 0 even then, so only Restart=always starts the program again. The starts have to reach the
    limit within the interval; otherwise systemd would go on for ever and report nothing."""
    service, limit = settings(unit), settings(unit, "Unit")
    assert service["Restart"] == "always"
    seconds_between, starts = int(service["RestartSec"]), int(limit["StartLimitBurst"])
    assert 1 < starts and seconds_between * starts * 2 < int(limit["StartLimitIntervalSec"])


@pytest.mark.parametrize("name", UNITS)
def test_memory_limits__have_room_for_all_connections_and_refuse_memory_before_the_kernel_ends_mivo(unit):
    memory, whole = (int(re.fullmatch(r"(\d+)G", settings(unit)[name])[1]) for name in ("LimitDATA", "MemoryMax"))
    connections, buffer_mib = 1024, 1
    assert memory * 1024 >= 2 * connections * buffer_mib
    assert memory < whole


@pytest.mark.parametrize("name", UNITS)
def test_limit_of_the_journal__is_a_million_lines_a_second_or_more(unit):
    """The interval must not be 0: systemd would not pass it on, and the journal's own limit would apply."""
    service = settings(unit)
    seconds, lines = int(service["LogRateLimitIntervalSec"]), int(service["LogRateLimitBurst"])
    assert seconds > 0 and lines / seconds >= 1_000_000


def free_low_port():
    """A free port that only privileged users may open."""
    for port in range(LEAST_PORT - 1, 512, -1):
        with socket.socket() as sock:
            try:
                sock.bind(("0.0.0.0", port))
                return port
            except OSError:
                continue
    raise AssertionError("no port is free")


@pytest.fixture
def open_folder():
    """A folder that other users may enter, unlike pytest's own."""
    with tempfile.TemporaryDirectory(prefix="mivo_test_") as path:
        os.chmod(path, 0o755)
        yield pathlib.Path(path)


@pytest.mark.skipif(os.geteuid() != 0, reason="only root can start a process as another user")
@pytest.mark.parametrize("name", ["mivo.service"])
def test_command_of_the_service__serves_a_low_port_as_a_plain_user_and_prints_at_once(unit, open_folder):
    service = settings(unit)
    program = shutil.copy(PROGRAM, open_folder)
    port = free_low_port()
    command = service["ExecStart"].replace("/usr/bin/mivo", program).replace("$MIVO_ARGS", f"{port} -map a -1")
    capability = service["AmbientCapabilities"].removeprefix("CAP_").lower()
    descriptors = service["LimitNOFILE"]
    console = open_folder / "console"
    with open(console, "wb") as output:
        process = subprocess.Popen(
            ["prlimit", f"--nofile={descriptors}", "setpriv", f"--reuid={NOBODY}", f"--regid={NOBODY}",
             "--clear-groups", f"--inh-caps=-all,+{capability}", f"--ambient-caps=+{capability}",
             f"--bounding-set=-all,+{capability}", "--no-new-privs", *command.split()], stdout=output)
    try:
        until(lambda: process.poll() is not None or "connections\n" in console.read_text(), "the first turn")
        client = Wire.connect(port)
        client.send(request("a"))
        client.read_head()
        until(lambda: "\n[a] 127.0.0.1:" in console.read_text(), "the request's line")
        client.close()
        process.send_signal(getattr(signal, service["KillSignal"]))
        assert process.wait(15) == 0
        assert console.read_text().endswith("\nShutting down...\n")
    finally:
        if process.poll() is None:
            process.kill()
            process.wait()
