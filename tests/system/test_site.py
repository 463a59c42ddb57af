"""Real clients fetch a site of 200 files from real upstreams through mivo."""

import pytest

from clients import curl, curl_files, fetch_files, wget_files
from wire import request


@pytest.fixture
def three_sites(start_mivo, python_site, nginx, node):
    """A mivo that serves a different upstream under each of three host names, and the three base URLs."""
    mivo = start_mivo({"127.0.0.1:{port}": python_site.port, "localhost:{port}": nginx.port,
                       "127.0.0.2:{port}": node.port})
    return mivo, [f"http://{host}:{mivo.port}" for host in ("127.0.0.1", "localhost", "127.0.0.2")]


def test_three_upstreams_and_three_kinds_of_client_at_once__every_file_is_identical(
        three_sites, site, folder):
    mivo, bases = three_sites
    downloads = []
    for base in bases:
        downloads += [curl_files(folder, base, site.names), wget_files(folder, base, site.names),
                      fetch_files(base, site.names)]
    for download in downloads:
        download.check(site)
    assert len(mivo.requests()) == len(downloads) * len(site.names)


@pytest.mark.parametrize("fetch", [curl_files, wget_files])
def test_files_one_after_the_other__take_one_upstream_connection(
        start_mivo, python_site, site, folder, fetch):
    mivo = start_mivo({"127.0.0.1:{port}": python_site.port})
    fetch(folder, f"http://127.0.0.1:{mivo.port}", site.names).check(site)
    assert python_site.connections() == 1


def test_files_one_after_the_other_from_nginx__take_one_connection_on_each_side(
        start_mivo, nginx, site, folder):
    mivo = start_mivo({"127.0.0.1:{port}": nginx.port})
    opened = curl_files(folder, f"http://127.0.0.1:{mivo.port}", site.names).check(site).split()
    assert opened == ["1"] + ["0"] * (len(site.names) - 1)
    assert nginx.connections() == 1


def test_fetch_with_eight_files_at_a_time__every_client_connection_keeps_its_upstream_connection(
        start_mivo, node, site):
    mivo = start_mivo({"127.0.0.1:{port}": node.port})
    fetch_files(f"http://127.0.0.1:{mivo.port}", site.names, parallel=8).check(site)
    clients = {line.split()[1] for line in mivo.requests()}
    assert len(clients) < len(site.names) / 4
    assert node.connections() == len(clients)


def test_head_request__is_answered_without_a_body_and_the_connection_stays(three_sites, site, connect):
    mivo, bases = three_sites
    name = site.names[-1]
    for base in bases[:2]:
        client = connect(mivo.port)
        client.send(request(base[7:], "/" + name, "HEAD"))
        head = client.read_head()
        assert head.startswith(b"HTTP/1.1 200 OK\r\n")
        assert f"content-length: {len(site.read(name))}\r\n".encode() in head.lower()
        assert client.ask(request(base[7:], "/" + name)) == site.read(name)


def test_head_request_of_curl__gives_the_head_of_the_upstream(three_sites, site):
    for base in three_sites[1]:
        assert curl("--head", f"{base}/{site.names[0]}").startswith("HTTP/1.1 200 OK\r\n")


def test_file_that_is_not_there__gives_the_404_of_the_upstream(three_sites, folder):
    for base in three_sites[1]:
        status = curl("--output", f"{folder}/page", "--write-out", "%{http_code} %{num_connects}",
                      f"{base}/no_such_file")
        assert status == "404 1"


def test_chunked_reply_in_slow_pieces__arrives_as_it_was_sent(start_mivo, node):
    mivo = start_mivo({"127.0.0.1:{port}": node.port})
    expected = "".join(f"piece {i}\n" for i in range(20))
    assert curl(f"http://127.0.0.1:{mivo.port}/drip/20") == expected


def test_one_client_connection_to_all_upstreams_in_turn__gets_each_reply_from_the_right_one(
        three_sites, site, connect):
    mivo, bases = three_sites
    client = connect(mivo.port)
    for name in site.names[:30]:
        for base in bases[:2]:
            assert client.ask(request(base[7:], "/" + name)) == site.read(name)
