"""What a user sees in a browser: the echo page, and a site over HTTPS."""

import shutil

import pytest

from devtools import Browser
from mivo_process import REPOSITORY

pytest_plugins = ["tls_service"]


@pytest.fixture
def browser(start_mivo, folder):
    """A browser that takes any certificate, because no browser knows the authority of the tests' certificates."""
    started = Browser(folder, "--no-proxy-server", "--ignore-certificate-errors")
    yield started
    started.close()


def test_echo_page__shows_the_request_of_the_browser(start_mivo, browser):
    mivo = start_mivo({"localhost:{port}": -1})
    tab = browser.open(f"http://localhost:{mivo.port}/some/path?with=query")
    tab.wait_for_text("Your IPv4 address is: 127.0.0.1")
    assert tab.text().startswith("GET /some/path?with=query HTTP/1.1")


def test_http_address_of_an_https_site__ends_on_its_page(serve_tls, browser, python_site, site):
    shutil.copy(REPOSITORY / "examples/site/index.html", site.folder / "site.html")
    service = serve_tls({"localhost:{ssl_port}": python_site.port})
    tab = browser.open(f"http://localhost:{service.mivo.port}/site.html")
    tab.wait_for_text(f"asked for {service.url}/site.html")
