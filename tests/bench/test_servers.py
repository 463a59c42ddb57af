"""The configurations of the peers, as the benchmarks use them."""

import re

import pytest

import servers
from servers import JOBS, PEERS, adapted

PORTS = {80: 11080, 443: 11443, 3000: 13000, 3001: 13001}
FILES = ("mivo", "nginx.conf", "haproxy.cfg", "Caddyfile")


def test_adapted__changes_only_ports_and_certificates():
    text = "bind :443 ssl crt both.pem\nserver 127.0.0.1:3001\nmaxconn 4000\nkey key.pem 8080 3000;"
    assert adapted(text, PORTS, "/run") == (
        "bind :11443 ssl crt /run/both.pem\nserver 127.0.0.1:13001\nmaxconn 4000\nkey /run/key.pem 8080 13000;")


@pytest.mark.parametrize("job", JOBS)
@pytest.mark.parametrize("file", FILES)
def test_configuration__does_the_job(job, file):
    """Each has both names and both upstreams; only the HTTPS job has TLS."""
    text = servers.without_comments((PEERS / job / file).read_text())
    for word in ("one.example", "two.example", "3000", "3001"):
        assert re.search(rf"\b{re.escape(word)}\b", text)
    assert bool(re.search(r"\b\w+\.pem\b", text)) == (job == "https")


def test_nginx_without_a_pool__differs_only_in_the_pool():
    pooled = servers.without_comments((PEERS / "http/nginx.conf").read_text())
    unpooled = servers.without_comments((PEERS / "http/nginx_unpooled.conf").read_text())
    without = re.sub(r"  upstream \w+ \{.*?\n  \}\n", "", pooled, flags=re.DOTALL)
    without = without.replace("http://one;", "http://127.0.0.1:3000;").replace("http://two;", "http://127.0.0.1:3001;")
    assert without.replace('Connection ""', "Connection close") == unpooled


def test_lines_of_a_configuration__do_not_count_comments():
    lines = (PEERS / "https/Caddyfile").read_text().splitlines()
    assert servers.configuration_lines("https", "Caddyfile") == 8
    assert len(lines) > 8
