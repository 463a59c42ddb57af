"""Every recipe of the README, taken from its text and run, with free ports in place of the ports that it names.

Two things are left out, because no test machine has what they need:

* certbot gets a certificate only for a name that leads to this machine from everywhere. The tests check the server that
  serves certbot's proof, for the first certificate and for a renewal.
* The service recipe installs a package and needs systemd. The tests run what the recipe writes for the service,
  as the service does.
"""

import os
import re
import shlex
import signal
import subprocess

import pytest

from certificates import Authority
from clients import curl
from mivo_process import PROGRAM, REPOSITORY, Mivo, ReservedPort
from page_blocks import ended_in_good_order
from upstreams import PythonSite

PATIENCE = 60  # seconds; a recipe that runs longer fails the test
CHALLENGE = ".well-known/acme-challenge/token"
LIVE = "/etc/letsencrypt/live/www.example.org"


def read_recipes():
    """The text of each recipe, by the name in the comment above it."""
    text = (REPOSITORY / "README.md").read_text()
    return dict(re.findall(r"<!-- recipe: ([^>]+) -->\n```sh\n(.*?)```", text, re.DOTALL))


RECIPES = read_recipes()
RUN_WHOLE = {"two names": ["This is one.", "This is two."],
             "self-signed": ["This came over HTTPS."],
             "echo page": ["GET /any/path?and=query HTTP/1.1", "Your IPv4 address is: 127.0.0.1"]}
RUN_IN_PART = ["first certificate", "full chain", "service"]


@pytest.fixture
def ports():
    """Free ports that stay free: {port in the README: free port}."""
    reserved = {port: ReservedPort() for port in (8080, 8443, 3000, 3001)}
    yield {old: new.port for old, new in reserved.items()}
    for port in reserved.values():
        port.close()


@pytest.fixture
def site(tmp_path):
    """The site on port 3000, with the file by which certbot proves that it controls the name."""
    file = tmp_path / "site" / CHALLENGE
    file.parent.mkdir(parents=True)
    file.write_text("the proof\n")
    served = PythonSite(tmp_path / "site")
    yield served
    served.close()


@pytest.fixture
def start(tmp_path):
    """start(arguments): mivo with these arguments, which has to end in good order after the test."""
    with ended_in_good_order() as started:
        def run(arguments):
            started.append(Mivo(tmp_path, arguments))
            started[-1].wait_until_it_runs()
            return started[-1]

        yield run


def arguments_of(recipe):
    """The arguments of mivo in the recipe."""
    line = next(line for line in RECIPES[recipe].replace("\\\n", " ").split("\n") if line.startswith("mivo "))
    return [word for word in shlex.split(line)[1:] if word != "&"]


def test_readme__has_these_recipes():
    assert sorted(RECIPES) == sorted([*RUN_WHOLE, *RUN_IN_PART])


def test_commands_of_the_readme__are_there():
    commands = re.findall(r"(?:^ {4}|^|`)\./(script/\w+)", (REPOSITORY / "README.md").read_text(), re.MULTILINE)
    assert {"script/run", "script/test"} <= set(commands)
    for command in {"script/run", "script/test"}:
        assert os.access(REPOSITORY / command, os.X_OK)


FIRST_RUN = """
ip link set lo up
set -m  # as on a terminal, script/run has a process group of its own
script/run {arguments} &
run=$!
for attempt in $(seq 300); do curl --silent --output /dev/null {address} && break; sleep 0.1; done
curl --silent --insecure --location http://site.localhost:8080/ http://localhost:8080/
kill -INT -- -$run  # Ctrl-C
wait $run
for attempt in $(seq 100); do [ -z "$(ss -ltnH)$(ls -A $TMPDIR)" ] && break; sleep 0.1; done
ss -ltnH
ls -A $TMPDIR
"""


@pytest.mark.parametrize("arguments, address", [("", "http://localhost:8080/"),
                                                ("--https", "--insecure https://localhost:8443/")])
def test_first_command__relays_a_page_and_leaves_no_process_and_no_key(arguments, address, tmp_path):
    """The commands run in a separate network, where the ports of the README are free."""
    script = FIRST_RUN.format(arguments=arguments, address=address)
    # Root needs no namespace of users, and could not make one in a chroot.
    as_root = [] if os.geteuid() == 0 else ["--map-root-user"]
    done = subprocess.run(["unshare", *as_root, "--net", "bash", "-c", script], cwd=REPOSITORY,
                          env={**os.environ, "TMPDIR": str(tmp_path)},
                          stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, timeout=PATIENCE, check=False)
    output = done.stdout.decode()
    assert (REPOSITORY / "examples/site/index.html").read_text() in output
    assert "\r\nYour IPv4 address is: 127.0.0.1" in output
    assert output.endswith("Shutting down...\n"), "somebody still listens, or a file is left"


@pytest.mark.parametrize("name", RUN_WHOLE)
def test_recipe__runs_as_pasted(name, ports, tmp_path):
    script = re.sub(r"\b(8080|8443|3000|3001)\b", lambda match: str(ports[int(match[0])]), RECIPES[name])
    bin_folder = tmp_path / "bin"
    bin_folder.mkdir()
    (bin_folder / "mivo").symlink_to(PROGRAM)
    environment = {"PATH": f"{bin_folder}:/usr/bin:/bin", "HOME": str(tmp_path)}
    process = subprocess.Popen(["bash", "-c", script], cwd=tmp_path, env=environment, start_new_session=True,
                               stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    try:
        output = process.communicate(timeout=PATIENCE)[0].decode()
    finally:
        end_group(process)
    for line in RUN_WHOLE[name]:
        assert line in output.replace("\r", "").split("\n"), output


def end_group(process):
    """Ends what a failed recipe has left behind. A recipe that worked has ended its servers itself."""
    try:
        os.killpg(process.pid, signal.SIGKILL)
    except ProcessLookupError:
        pass
    process.wait()


def test_certificate_recipes__serve_the_proof_before_and_after_and_the_whole_chain(site, start, tmp_path):
    """Before there is a certificate, the authority fetches certbot's proof through plain HTTP; for a renewal, through
    the redirect. A client that trusts nothing but the root reaches the site only if it sees the whole chain."""
    plain = arguments_of("first certificate")
    assert plain == ["80", "-map", "www.example.org", "3000"]
    mivo = start(["{port}", "-map", "www.example.org:{port}", str(site.port)])
    address = f"http://www.example.org:{mivo.port}/{CHALLENGE}"
    name = f"www.example.org:{mivo.port}:127.0.0.1"
    assert curl("--resolve", name, address) == "the proof\n"

    chain = arguments_of("full chain")
    assert chain == ["80", "-ssl", "443", f"{LIVE}/privkey.pem", f"{LIVE}/fullchain.pem",
                     "-map", "www.example.org", "3000"]
    authority = Authority(tmp_path)
    certificate = authority.issue("server")
    https = ReservedPort()
    mivo = start(["{port}", "-ssl", str(https.port), str(certificate.key), str(certificate.crt),
                  "-map", f"www.example.org:{https.port}", str(site.port)])
    try:
        fetched = curl("--location", "--cacert", str(authority.root.crt),
                       "--resolve", f"www.example.org:{mivo.port}:127.0.0.1",
                       "--resolve", f"www.example.org:{https.port}:127.0.0.1",
                       f"http://www.example.org:{mivo.port}/{CHALLENGE}")
        assert fetched == "the proof\n"
    finally:
        https.close()


def test_certificate_recipe__keeps_the_key():
    """A renewed certificate with another key would not match the key that mivo has loaded."""
    assert "--reuse-key" in RECIPES["first certificate"]


def test_service_recipe__writes_arguments_that_serve(site, start):
    line = re.search(r"^echo '(.*)' >/etc/default/mivo$", RECIPES["service"], re.MULTILINE)[1]
    arguments = shlex.split(line.removeprefix("MIVO_ARGS="))[0].split()
    assert arguments == ["80", "-map", "www.example.org", "3000"]
    # A client on port 80 does not name the port, so the map has none either.
    mivo = start(["{port}", *arguments[1:3], str(site.port)])
    answer = curl("--header", "Host: www.example.org", f"http://127.0.0.1:{mivo.port}/{CHALLENGE}")
    assert answer == "the proof\n"
