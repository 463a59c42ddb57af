"""Servers from npm packages whose pages talk to the server: Socket.IO and Vite behind mivo."""

import subprocess

from checks import CHECKS
from clients import ENVIRONMENT, PATIENCE
from hot_updates import expect_hot_update
from page import STACKS


def ask(server, url, *options):
    """The output of Socket.IO's client, and its exit status."""
    trust = {"NODE_EXTRA_CA_CERTS": server.certificate[1]}
    done = subprocess.run(["node", "client.js", url, *options], cwd=server.folder, env={**ENVIRONMENT, **trust},
                          stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, timeout=PATIENCE, check=False)
    return done.stdout.decode(), done.returncode


def test_socket_io__stays_with_polling_and_each_message_is_answered(put_behind):
    assert STACKS["Socket.IO"].works == ["messages"]
    server = put_behind("Socket.IO", "socket.io")
    for access in (server.http(), server.https()):
        assert ask(server, access.url) == ("polling\n", 0)
    assert ask(server, access.url, "websocket") == ("websocket error\n", 1)
    assert ask(server, f"http://127.0.0.1:{server.ports['3000']}") == ("websocket\n", 0)


def test_vite__updates_a_page_without_a_reload(put_behind, browser):
    assert STACKS["Vite"].works == ["pages", "hot updates"]
    server = put_behind("Vite", "vite")
    for access in (server.http(), server.https()):
        CHECKS["pages"](server, access)
        expect_hot_update(browser, access, server.folder / "text.js")
