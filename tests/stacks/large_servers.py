"""Servers whose packages are too large for every run of the tests. script/stacks runs this file with the others."""

import asyncio
import contextlib
import os
import pathlib
import re
import shutil
import subprocess
import tempfile

import pytest
import websockets

from behind import APPS, LARGE_PACKAGES_TARGET, Behind, Ports, large_packages
from checks import CHECKS
from hot_updates import expect_hot_update, expect_none, waits_for
from page import STACKS
from wire import until

START_TIME = 120  # seconds


def test_go__does_over_http_and_https_what_the_page_says(put_behind):
    server = put_behind("Go", "go")
    for access in (server.http(), server.https()):
        for word in STACKS["Go"].works:
            CHECKS[word](server, access)


def test_webpack__updates_a_page_without_a_reload(put_behind, browser):
    assert STACKS["webpack-dev-server"].works == ["pages", "hot updates"]
    server = put_behind("webpack-dev-server", "webpack")
    for access in (server.http(), server.https()):
        CHECKS["pages"](server, access)
        expect_hot_update(browser, access, server.folder / "text.js")


def leave_out_the_names(text):
    assert ', allowedHosts: [".localhost"]' in text
    return text.replace(', allowedHosts: [".localhost"]', "")


def test_webpack_that_does_not_allow_the_name__updates_no_page(put_behind, browser):
    server = put_behind("webpack-dev-server", "webpack", change=leave_out_the_names)
    access = server.http()
    expect_none(browser, access, server.folder / "text.js", lambda: server.output().count("compiled successfully"))
    assert "Invalid Host/Origin header" in asyncio.run(first_messages(server.ports["3000"], access.url))


async def first_messages(port, origin):
    """The messages that webpack sends to a page from `origin` until it closes the connection."""
    told = ""
    async with websockets.connect(f"ws://127.0.0.1:{port}/ws", origin=origin, open_timeout=START_TIME) as socket:
        with contextlib.suppress(websockets.ConnectionClosed):
            while True:
                told += await asyncio.wait_for(socket.recv(), START_TIME)
    return told


def test_vite_without_the_lines_for_updates__updates_pages_only_over_http(put_behind, browser):
    def leave_out(text):
        kept = [line for line in text.splitlines(keepends=True) if "hmr:" not in line]
        assert len(kept) == len(text.splitlines()) - 1
        return "".join(kept)
    server = put_behind("Vite", "vite", change=leave_out)
    expect_hot_update(browser, server.http(), server.folder / "text.js")
    expect_none(browser, server.https(), server.folder / "text.js", lambda: server.output().count("hmr update"))


# Next.js wants its packages in its own folder, so its folder is beside the packages and has links to them.


@pytest.fixture
def next_folder():
    packages = large_packages()
    with tempfile.TemporaryDirectory(prefix="next_", dir=LARGE_PACKAGES_TARGET) as path:
        folder = shutil.copytree(APPS / "next", pathlib.Path(path, "next"))
        shutil.copytree(packages, folder / "node_modules", copy_function=os.link, symlinks=True)
        shutil.copy(packages.parent / "package-lock.json", folder)
        yield folder


@pytest.fixture
def start_next(next_folder, certificate):
    """start_next(change): starts Next.js with the command of the page, which `change` changes."""
    running = []

    def start(change=lambda text: text):
        ports = Ports()
        stack = STACKS["Next.js"]
        running.append(Behind(next_folder, ports.put_in(change(stack.server)), stack.map, ports, certificate))
        return running[-1]

    yield start
    for server in running:
        server.close()


def count_a_click(browser, url):
    """The text of the button after a click: as soon as it has changed, or unchanged after a while."""
    page = browser.open(url)
    until(lambda: "first text, 0 clicks" in page.text(), f"the page of {url}", START_TIME)

    def click_counts():
        page.evaluate("document.querySelector('button').click()")
        return waits_for(page, "1 clicks", 1)

    try:
        until(click_counts, "a click", 15)
    except AssertionError:
        pass
    return re.search(r"\d+ clicks", page.text())[0]


def test_next_that_was_built__works(start_next, next_folder, browser):
    assert STACKS["Next.js"].works == ["pages", "clicks"]
    subprocess.run(["npx", "next", "build"], cwd=next_folder, stdin=subprocess.DEVNULL, capture_output=True, check=True,
                   timeout=START_TIME, env={**os.environ, "NEXT_TELEMETRY_DISABLED": "1"})
    server = start_next()
    for access in (server.http(), server.https()):
        CHECKS["pages"](server, access)
        assert count_a_click(browser, access.url) == "1 clicks"


def test_next_dev__shows_a_page_on_which_nothing_can_be_clicked(start_next, browser):
    server = start_next(lambda text: text.replace("next start", "next dev"))
    assert count_a_click(browser, f"http://127.0.0.1:{server.ports['3000']}") == "1 clicks"
    assert count_a_click(browser, server.http().url) == "0 clicks"


# Jupyter


OUTPUT = """new Promise((done) => Jupyter.notebook.kernel.execute("print(6 * 7)", {
  iopub: { output: (message) => done(message.content.text) } }))"""


def open_notebook(browser, access):
    """The notebook's page, as soon as its scripts know the kernel."""
    page = browser.open(f"{access.url}/notebooks/test.ipynb?token=secret")
    until(lambda: page.evaluate("Boolean(window.Jupyter && Jupyter.notebook && Jupyter.notebook.kernel)"),
          "the notebook", START_TIME)
    return page


def is_connected(page):
    return page.evaluate("Jupyter.notebook.kernel.is_connected()")


def start_jupyter(put_behind, change=lambda text: text):
    def with_options(text):
        return text + " --NotebookApp.token=secret" + (" --allow-root" if os.geteuid() == 0 else "")
    return put_behind("Jupyter Notebook", "jupyter", change=change, command=with_options)


def test_jupyter__runs_a_line_of_a_notebook_over_http(put_behind, browser):
    assert STACKS["Jupyter Notebook"].works == ["notebooks over HTTP"]
    server = start_jupyter(put_behind)
    page = open_notebook(browser, server.http())
    until(lambda: is_connected(page), "the kernel", START_TIME)
    assert page.evaluate(OUTPUT) == "42\n"


def test_jupyter_over_https__has_no_kernel(put_behind, browser):
    server = start_jupyter(put_behind)
    page = open_notebook(browser, server.https())
    until(lambda: "Couldn't authenticate WebSocket connection" in server.output(), "the refusal", START_TIME)
    assert not is_connected(page)


def test_jupyter_that_does_not_know_the_name__refuses_everything(put_behind):
    def leave_out(text):
        return "".join(line for line in text.splitlines(keepends=True) if "local_hostnames" not in line)
    server = start_jupyter(put_behind, leave_out)
    access = server.http()
    assert access.read("GET", "/api/status?token=secret")[0] == 403
