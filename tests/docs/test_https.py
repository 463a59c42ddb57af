"""Every command of docs/https.md, taken from its text and run, except for commands that need the Internet.

certbot itself runs the deploy hook, after a renewal that is made up.
"""

import os
import re
import shlex
import subprocess

import pytest

from certificates import Authority
from fake_clock import Clock, clock_library  # noqa: F401
from mivo_process import PROGRAM, REPOSITORY, Mivo
from page_blocks import House, blocks, ended_in_good_order

BLOCKS = blocks("https.md")
RUN = ["self-signed", "authority", "issue", "trust of the system", "trust of browsers", "names of a file", "folder",
       "copy", "replace", "readable", "fit", "executable", "hook by hand", "served", "reloads", "ends soon"]
NEED_THE_INTERNET = ["certbot", "webroot", "dns", "names", "new key"]
ECHO = "GET / HTTP/1.1"

# certbot's own function that runs the hooks of the folder, as after a renewal.
CERTBOT = """
import sys
from certbot import configuration
from certbot._internal import cli, hooks
from certbot._internal.display import obj
from certbot._internal.plugins import disco
obj.set_display(obj.NoninteractiveDisplay(sys.stdout))
folder, lineage = sys.argv[1:]
options = ["renew", "--config-dir", folder, "--work-dir", folder + "/work", "--logs-dir", folder + "/logs"]
settings = cli.prepare_and_parse_args(disco.PluginsRegistry.find_all(), options)
hooks.renew_hook(configuration.NamespaceConfig(settings), ["blog.example"], lineage)
"""


def test_page__has_these_commands_and_no_other():
    assert sorted(name for kind, name in BLOCKS if kind == "run") == sorted(RUN)
    assert sorted(name for kind, name in BLOCKS if kind == "needs the Internet") == sorted(NEED_THE_INTERNET)
    assert sorted(kind for kind, _ in BLOCKS if kind not in ("run", "needs the Internet")) == [
        "arguments", "arguments", "hook"]


@pytest.fixture
def house():
    made = House([443, 8080, 8443])
    yield made
    made.close()


def run(house, name, **options):
    return house.run(BLOCKS["run", name], **options)


@pytest.fixture
def serve(house, tmp_path):
    """serve(arguments, settings): a running mivo, which has to end in good order after the test. `settings` are shell
    settings, which stand before the program."""
    with ended_in_good_order() as started:
        def start(arguments, settings=""):
            started.append(Mivo(tmp_path, ["-c", f'{settings} exec "$0" "$@"', PROGRAM, *arguments], program="sh"))
            started[-1].wait_until_it_runs()
            return started[-1]

        yield start


# Self-made certificates


def test_self_signed_certificate__serves(house):
    assert ECHO in run(house, "self-signed").splitlines()


def test_authority__is_trusted_by_the_system_by_a_browser_and_by_node(house, serve):
    for name in ("authority", "issue", "trust of the system", "trust of browsers"):
        run(house, name)
    port = house.port(8443)
    hosts = [f"{host}:{port}" for host in ("blog.localhost", "shop.localhost", "127.0.0.1")]
    serve(["0", "-ssl", str(port), str(house.folder / "key.pem"), str(house.folder / "crt.pem"),
           *(word for host in hosts for word in ("-map", host, "-1"))])
    for host in hosts:
        assert ECHO in house.run(f"curl -sS --noproxy '*' --cacert {house.bundle} https://{host}/")
    ask = f"require('https').get('https://{hosts[2]}/', answer => answer.pipe(process.stdout))"
    assert ECHO in house.run(f'NODE_EXTRA_CA_CERTS=ca.pem node -e "{ask}"')
    assert ECHO in house.run("chromium --headless --no-sandbox --disable-gpu --disable-quic --no-first-run "
                             "--disable-background-networking --disable-component-update --disable-sync "
                             f"--disable-dev-shm-usage --no-proxy-server --user-data-dir={house.folder}/profile "
                             f"--dump-dom https://{hosts[0]}/ 2>/dev/null").replace("<pre", "\n<pre")


def test_name_that_is_added__keeps_the_key(house):
    for name in ("authority", "issue"):
        run(house, name)
    key = (house.folder / "key.pem").read_text()
    names = house.folder / "names"
    names.write_text(names.read_text().replace("IP:", "DNS:new.localhost, IP:"))
    sign = BLOCKS["run", "issue"].partition("openssl x509")
    house.run(sign[1] + sign[2])
    house.run("install -m 640 crt.pem /etc/mivo")
    assert "DNS:new.localhost" in run(house, "names of a file")
    assert (house.folder / "key.pem").read_text() == key
    assert same_keys(house.run("openssl pkey -in key.pem -pubout; openssl x509 -in crt.pem -noout -pubkey"))


def same_keys(output):
    half = len(output) // 2
    return output[:half] == output[half:]


# Files that the service may read


@pytest.fixture
def own_files(house):
    """A key and a certificate that are made and copied as the page says."""
    house.etc_mivo.rmdir()
    house.run(BLOCKS["run", "self-signed"].partition("mivo 8080")[0])
    run(house, "folder")
    run(house, "copy")


def test_files_that_are_copied__are_for_the_service_alone(house, own_files):
    assert house.etc_mivo.stat().st_mode & 0o777 == 0o750
    assert house.etc_mivo.group() == house.group
    for name in ("key.pem", "crt.pem"):
        assert (house.etc_mivo / name).stat().st_mode & 0o777 == 0o640
        assert (house.etc_mivo / name).group() == house.group
    assert run(house, "names of a file").endswith("DNS:localhost\n")


def test_file_that_is_replaced__is_a_new_file_for_the_service_alone(house, own_files):
    served = house.etc_mivo / "crt.pem"
    before = served.stat().st_ino
    run(house, "replace")
    assert served.stat().st_ino != before
    assert (served.stat().st_mode & 0o777, served.group()) == (0o640, house.group)
    assert sorted(file.name for file in house.etc_mivo.iterdir()) == ["crt.pem", "key.pem"]


def test_command_that_reads_as_the_service__tells_what_it_cannot_read(house, own_files):
    key = house.etc_mivo / "key.pem"
    assert run(house, "readable") == "readable\n"
    key.chmod(0o000 if not house.is_root else 0o600)
    if os.geteuid() == 0 or not os.access(key, os.R_OK):
        assert "Permission denied" in run(house, "readable", expected_status=1)


def test_command_that_compares_keys__detects_keys_that_do_not_match(house, own_files):
    assert same_keys(run(house, "fit"))
    house.run("openssl genpkey -algorithm RSA -out /etc/mivo/key.pem 2>/dev/null")
    assert not same_keys(run(house, "fit"))


def test_command_for_a_monitor__fails_in_the_last_week(house, own_files):
    run(house, "ends soon")
    house.run(BLOCKS["run", "self-signed"].partition("mivo 8080")[0].replace("-days 30", "-days 6"))
    run(house, "copy")
    run(house, "ends soon", expected_status=1)


def test_command_for_the_journal__is_understood(house):
    output = house.run(BLOCKS["run", "reloads"] + "true")
    known = r"-- No entries --|No journal files were found\.|.*Reloading certificate.*|Hint: .*|\n"
    assert re.fullmatch(f"({known})*", output)


# certbot


def test_options_for_certbot__are_known_to_certbot():
    known = subprocess.run(["certbot", "--help", "all"], check=True, capture_output=True, text=True).stdout
    for name in NEED_THE_INTERNET:
        for option in re.findall(r" (--[a-z-]+)", BLOCKS["needs the Internet", name]):
            # certbot knows the options of a plugin only where the plugin is installed.
            assert option.startswith("--dns-") or re.search(rf"(^|[ ,]){option}\b", known, re.M), option


def test_certificates_from_certbot__keep_their_key():
    for name in ("webroot", "dns", "names"):
        assert "--reuse-key" in BLOCKS["needs the Internet", name]


def test_hook__is_that_of_the_manual():
    manual = (REPOSITORY / "packaging/mivo.8").read_text()
    assert BLOCKS["hook", ""] == re.search(r"^(#!/bin/sh\n.*?)^\.Ed$", manual, re.M | re.S)[1].replace("\\e", "\\")


class Renewals:
    """The certificates that certbot has fetched, in the folders and links that it makes."""

    def __init__(self, house, authority):
        self.house = house
        self.authority = authority
        self.count = 0
        self.hook = house.letsencrypt / "renewal-hooks/deploy/mivo"
        self.hook.write_text(house.place(BLOCKS["hook", ""]))
        self.hook.chmod(0o644)

    def fetch(self, name="blog.example", key=None):
        """A new certificate, with the old key or with a new one."""
        self.count += 1
        issued = self.authority.issue(f"{name}{self.count}", key=key)
        archive, live = self.house.letsencrypt / "archive" / name, self.lineage(name)
        for folder in (archive, live):
            folder.mkdir(parents=True, exist_ok=True)
        for kind, file in (("privkey", issued.key), ("fullchain", issued.crt)):
            target = archive / f"{kind}{self.count}.pem"
            target.write_bytes(file.read_bytes())
            link = live / f"{kind}.pem"
            link.unlink(missing_ok=True)
            link.symlink_to(target)
        return issued

    def lineage(self, name="blog.example"):
        return self.house.letsencrypt / "live" / name

    def run_certbot(self, name="blog.example"):
        subprocess.run(["/usr/bin/python3", "-c", CERTBOT, self.house.letsencrypt, self.lineage(name)], check=True,
                       env=self.house.environment(), capture_output=True)

    def served(self):
        return {file.name: file.read_text() for file in self.house.etc_mivo.iterdir()}


@pytest.fixture
def renewals(house, tmp_path):
    made = Renewals(house, Authority(tmp_path, "ecdsa"))
    issued = made.fetch()
    assert (made.lineage() / "privkey.pem").read_text() == issued.key.read_text()
    return made


def test_hook_that_is_not_executable__is_passed_over(house, renewals):
    renewals.run_certbot()
    assert renewals.served() == {}
    run(house, "executable")
    renewals.run_certbot()
    assert sorted(renewals.served()) == ["crt.pem", "key.pem"]


def test_first_certificate__is_copied_whole_and_for_the_service_alone(house, renewals):
    run(house, "executable")
    assert "key.pem" in run(house, "hook by hand")
    assert renewals.served()["crt.pem"].count("BEGIN CERTIFICATE") == 2
    for name in ("key.pem", "crt.pem"):
        file = house.etc_mivo / name
        assert (file.stat().st_mode & 0o777, file.group()) == (0o640, house.group)
    assert house.requests_to_systemd() == ["try-restart mivo mivo@*"]


def test_renewal_of_another_certificate__changes_nothing(house, renewals):
    run(house, "executable")
    renewals.run_certbot()
    before = renewals.served()
    renewals.fetch("other.example")
    renewals.run_certbot("other.example")
    assert renewals.served() == before


def test_renewal_with_a_new_key__restarts_the_service(house, renewals):
    run(house, "executable")
    renewals.run_certbot()
    house.asked.unlink()
    issued = renewals.fetch()
    renewals.run_certbot()
    assert renewals.served() == {"key.pem": issued.key.read_text(), "crt.pem": issued.crt.read_text()}
    assert house.requests_to_systemd() == ["try-restart mivo mivo@*"]


def test_restart_that_fails__is_tried_again_by_the_next_run_of_the_hook(house, renewals):
    run(house, "executable")
    house.systemd_fails.touch()
    run(house, "hook by hand")
    house.systemd_fails.unlink()
    house.asked.unlink()
    run(house, "hook by hand")
    assert house.requests_to_systemd() == ["try-restart mivo mivo@*"]
    run(house, "hook by hand")
    assert house.requests_to_systemd() == ["try-restart mivo mivo@*"]


def test_renewal_with_the_same_key__is_served_without_a_restart(
        house, renewals, serve, tmp_path, clock_library):  # noqa: F811
    run(house, "executable")
    renewals.run_certbot()
    house.asked.unlink()
    long_ago = 1000000000  # seconds; times are compared in seconds, and the test may take less than one
    os.utime(house.etc_mivo / "crt.pem", (long_ago, long_ago))
    clock = Clock(tmp_path / "clock")
    arguments = [house.place(word) for word in arguments_of("after")]
    mivo = serve(["0", *arguments[1:]], f'LD_PRELOAD="$LD_PRELOAD:{clock_library}" MIVO_CLOCK={clock.path}')
    first, in_the_file = served_serials(house)
    assert first == in_the_file

    issued = renewals.fetch(key=renewals.lineage() / "privkey.pem")
    renewals.run_certbot()
    assert house.requests_to_systemd() == []
    shown, in_the_file = served_serials(house)
    assert (shown, in_the_file) == (first, issued.serial)
    clock.advance(61)
    mivo.wait_for_line(r"Reloading certificate\.\.\.")  # in a quiet moment, so nobody asks until then
    assert served_serials(house) == [issued.serial, issued.serial]
    assert mivo.is_running()


def served_serials(house):
    """The serial numbers that two commands print: of the certificate that is served, and of the one in the file."""
    return [int(line, 16) for line in re.findall(r"^serial=(\w+)$", run(house, "served"), re.M)]


# The arguments of the service


def arguments_of(name):
    line = BLOCKS["arguments", name].strip()
    return shlex.split(line.removeprefix("MIVO_ARGS="))[0].split()


def test_arguments_before_and_after__serve_the_same_name():
    assert arguments_of("before") == ["80", "-map", "blog.example", "3000"]
    assert arguments_of("after") == ["80", "-ssl", "443", "/etc/mivo/key.pem", "/etc/mivo/crt.pem",
                                     "-map", "blog.example", "3000"]
