"""The facts in docs/stacks.md about all servers behind mivo, each with the server and the client that it names."""

import re
import subprocess
import time

import pytest

from checks import MIB, curl
from clients import ENVIRONMENT, PATIENCE
from page import TEXT, shown_file
from wire import until

PAGE = b"This is PHP.\n"


def run(*command, **environment):
    """The exit status of a client, and its output."""
    done = subprocess.run(command, env={**ENVIRONMENT, **environment}, stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=PATIENCE, check=False)
    return done.returncode, done.stdout


# Redirects and addresses that a server makes


def test_plain_request_to_the_https_port__gets_no_answer(put_behind):
    access = put_behind("nginx", "site").https()
    status, answer = run("curl", "-q", "--silent", "--noproxy", "*", f"http://{access.name}/")
    assert status in (52, 56)
    assert answer == b""


# Replies that end with the connection


@pytest.fixture
def php(put_behind):
    """PHP, reached by an address, because every client knows addresses."""
    return put_behind("PHP", "php", hosts="-map 127.0.0.14:8080 3000")


PYTHON = "import sys, urllib.request; print(urllib.request.urlopen(sys.argv[1]).read().decode(), end='')"
NODE = "fetch(process.argv[1]).then((reply) => reply.text()).then((text) => process.stdout.write(text))"
RUBY = """
require "net/http"
uri = URI(ARGV[0])
client = Net::HTTP.new(uri.host, uri.port)
client.use_ssl = uri.scheme == "https"
client.ca_file = ARGV[1]
print client.get("/").body
"""


def clients(server, access):
    """The result of each client for the page: its exit status and its output."""
    trust = str(server.certificate[1])
    return {"curl": run("curl", "-q", "--silent", "--noproxy", "*", "--cacert", trust, access.url + "/"),
            "Python": run("/usr/bin/python3", "-c", PYTHON, access.url + "/", SSL_CERT_FILE=trust),
            "Node": run("node", "-e", NODE, access.url + "/", NODE_EXTRA_CA_CERTS=trust),
            "wget": run("wget", "--no-config", "--quiet", "--tries=1", "--no-proxy", f"--ca-certificate={trust}",
                        "-O", "-", access.url + "/"),
            "Ruby": run("ruby", "-e", RUBY, access.url + "/", trust)}


def test_reply_without_a_length_over_https__is_whole_for_some_clients(php, browser):
    access = php.https()
    seen = clients(php, access)
    assert {name: seen[name] for name in ("curl", "Python", "Node")} == dict.fromkeys(
        ("curl", "Python", "Node"), (0, PAGE))
    assert seen["wget"][0] == 4
    assert seen["Ruby"][0] != 0 and b"OpenSSL::SSL::SSLError" in seen["Ruby"][1]
    assert b"SSL read failed" in run("ab", "-n", "1", access.url + "/")[1]
    browser.open(access.url).wait_for_text(PAGE.decode().strip())


def test_reply_that_was_given_a_length__is_whole_for_all_clients(put_behind):
    option = re.search(r"`(-d \S+)`", TEXT.partition("## What holds for all of them")[2])[1]
    server = put_behind("PHP", "php", hosts="-map 127.0.0.14:8080 3000",
                        command=lambda text: text.replace("php -S", f"php {option} -S"))
    (server.folder / "length.php").write_text(shown_file("length.php"))
    assert set(clients(server, server.https()).values()) == {(0, PAGE)}


# PHP as a client


def test_php_as_a_client__waits_for_the_server_unless_it_speaks_http_1_0(put_behind):
    server = put_behind("Express", "express", hosts="-map 127.0.0.14:8080 3000")
    server.http()
    code = server.ports.put_in(shown_file("client.php"))
    plain = code.replace(", false, $context", "")
    assert plain != code
    taken = []
    for text in (code, plain):
        start = time.monotonic()
        assert run("php", "-r", text) == (0, b"This is Express.\n")
        taken.append(time.monotonic() - start)
    assert taken[1] > 4  # the server's idle time is 5 s
    assert taken[0] < taken[1] / 2


# Names that clients do not know


def test_address_as_a_name__is_known_to_all_clients(put_behind):
    server = put_behind("nginx", "site", hosts="-map 127.0.0.14:8080 3000")
    for access in (server.http(), server.https()):
        assert set(clients(server, access).values()) == {(0, b"This is the site.\n")}


def test_name_in_localhost__is_known_to_wget_only_where_the_system_knows_it(put_behind):
    access = put_behind("nginx", "site").http()
    assert curl(access, access.url + "/") == b"This is the site.\n"
    is_known = run("getent", "ahosts", access.name.split(":")[0])[0] == 0
    status, _ = run("wget", "--no-config", "--quiet", "--tries=1", "--no-proxy", "-O", "/dev/null", access.url + "/")
    assert status == (0 if is_known else 4)


# Server-sent events and a server that restarts


def test_event_source__gives_up_when_the_server_restarts_until_the_page_starts_it_again(put_behind, browser):
    server = put_behind("Express", "express")
    access = server.http()
    plain = "window.source = new EventSource('/events')"
    direct = f"http://127.0.0.1:{server.ports['3000']}/"
    pages = [browser.open(url) for url in (access.url, access.url, direct)]
    for page, script in zip(pages, (plain, shown_file("events.js"), plain)):
        page.wait_for_text("This is Express.")
        page.evaluate(script)
        until(lambda page=page: page.evaluate("source.readyState") == 1, "the stream is open")
    server.stop()
    for page in pages[:2]:
        until(lambda page=page: page.evaluate("source.readyState") == 2, "the page has given the stream up", 30)
    server.start()
    for page in pages[1:]:
        until(lambda page=page: page.evaluate("source.readyState") == 1, "the stream is open again", 30)
    assert pages[0].evaluate("source.readyState") == 2


# Uploads above 100 MiB


def test_upload_above_100_mib__waits_and_mivo_prints_only_warnings(put_behind):
    server = put_behind("Express", "express")
    access = server.http()
    large = server.folder / "large"
    with open(large, "wb") as file:
        file.truncate(110 * MIB)
    upload = ["curl", "-q", "--silent", "--noproxy", "*", "-H", "Expect:", "-X", "POST", "--upload-file", large]
    assert run(*upload, "--max-time", "3", access.url + "/upload") == (28, b"")
    assert len(server.mivos[0].lines(r"Warning! Request exceeds max length of 104857600\.")) >= 10
    status, answer = run(*upload, f"http://127.0.0.1:{server.ports['3000']}/upload")
    assert (status, answer.split()[0]) == (0, str(110 * MIB).encode())


# ab keeps no connection


def test_ab_that_asks_to_keep_its_connection__keeps_none(put_behind):
    access = put_behind("nginx", "site", hosts="-map 127.0.0.14:8080 3000").http()
    answer = run("ab", "-k", "-n", "20", access.url + "/")[1].decode()
    assert re.search(r"Complete requests: +20\n", answer)
    assert re.search(r"Keep-Alive requests: +0\n", answer)
