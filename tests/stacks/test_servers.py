"""Servers behind mivo. The command of docs/stacks.md starts each server, and the server does what the page says."""

import re

import pytest

from checks import CHECKS, redirect_target
from page import STACKS

# The application of each server: a folder in apps/.
APPLICATIONS = {"Python http.server": "site", "Flask": "flask", "Django": "django", "gunicorn": "flask",
                "FastAPI": "fastapi", "Express": "express", "Fastify": "fastify", "Apache": "site", "nginx": "site",
                "lighttpd": "site", "PHP": "php", "WEBrick": "site", "Puma": "puma"}
TOLD_THE_SCHEME = ["Flask", "Django", "gunicorn", "FastAPI", "Express", "Apache", "Puma"]


@pytest.mark.parametrize("name", APPLICATIONS)
def test_server__does_over_http_and_https_what_the_page_says(put_behind, name):
    server = put_behind(name, APPLICATIONS[name])
    for access in (server.http(), server.https()):
        for word in STACKS[name].works:
            CHECKS[word](server, access)
        if "redirects" not in STACKS[name].works:
            assert redirect_target(access) == f"http://{access.name}/folder/"


@pytest.mark.parametrize("name", TOLD_THE_SCHEME)
def test_server_that_is_told_the_scheme__redirects_to_https(put_behind, name):
    server = put_behind(name, APPLICATIONS[name], https=True)
    access = server.https()
    CHECKS["pages"](server, access)
    CHECKS["redirects"](server, access)


def test_django_that_redirects_to_https__loops_until_it_is_told_the_scheme(put_behind):
    for is_told in (False, True):
        server = put_behind("Django", "django", https=is_told,
                            prepare="echo SECURE_SSL_REDIRECT = True >>settings.py")
        access = server.https()
        if is_told:
            assert access.read("GET", "/")[0] == 200
        else:
            assert redirect_target(access, "/") == access.url + "/"


def test_php_that_is_told_the_scheme__redirects_to_https(put_behind):
    told = re.search(r"`(-d \S+)`", STACKS["PHP"].text)[1]
    server = put_behind("PHP", "php", https=True, command=lambda text: text.replace("php -S", f"php {told} -S"))
    CHECKS["redirects"](server, server.https())


def test_nginx_without_its_line_for_redirects__leads_to_its_own_port(put_behind):
    def leave_out(text):
        assert "absolute_redirect off;" in text
        return text.replace("absolute_redirect off;", "")
    server = put_behind("nginx", "site", change=leave_out)
    access = server.http()
    assert redirect_target(access) == f"http://{access.name.split(':')[0]}:{server.ports['3000']}/folder/"
