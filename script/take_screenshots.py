"""Takes the pictures for script/screenshots, which starts this with a display and a network of its own."""

import contextlib
import pathlib
import signal
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parents[1]
sys.path.insert(0, str(ROOT / "tests/system"))

from devtools import Browser  # noqa: E402  (found through the path above)
from wire import until  # noqa: E402

MOST_BYTES = 60000  # of a picture, because the pictures are in the repository


@contextlib.contextmanager
def running(*command):
    """Runs a server as long as the block lasts."""
    process = subprocess.Popen(command, cwd=ROOT, stdout=subprocess.DEVNULL)
    try:
        yield
    finally:
        process.send_signal(signal.SIGINT)
        process.wait(10)


def wait_for_port(port):
    """Waits until a server listens. This takes long when script/run builds first."""
    until(lambda: f":{port} " in subprocess.run(["ss", "-ltn"], capture_output=True, text=True).stdout,
          f"port {port}", 300)


def take(name):
    """Takes a picture of the whole screen, which the window of the browser fills."""
    path = ROOT / "docs" / name
    subprocess.run(["import", "-window", "root", "-colors", "64", f"png8:{path}"], check=True)
    if path.stat().st_size > MOST_BYTES:
        raise RuntimeError(f"{path.name} has {path.stat().st_size} bytes")


def show(tab, text, name):
    tab.commands(("Page.bringToFront", {}))
    tab.wait_for_text(text)
    tab.evaluate("window.scrollTo(0, 0)")
    tab.evaluate("new Promise(done => requestAnimationFrame(() => setTimeout(done, 1000)))")  # the frame is drawn
    take(name)


def main():
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
    with tempfile.TemporaryDirectory() as folder, contextlib.closing(Browser(
            folder, "--no-proxy-server", "--ignore-certificate-errors", "--test-type", "--window-position=0,0",
            "--window-size=800,420", in_window=True)) as browser:
        with running("script/run"):
            wait_for_port(8080)
            tab = browser.open("http://localhost:8080/any/path?and=query")
            show(tab, "Your IPv4 address is", "echo_page.png")
        with running("script/run", "--https"):
            wait_for_port(8443)
            tab.commands(("Page.navigate", {"url": "https://site.localhost:8443/"}))
            show(tab, "The browser asked for", "https_site.png")
        with running("build/release/examples/chat", "8080"):
            wait_for_port(8080)
            tabs = [tab, browser.open("http://localhost:8080/")]
            tab.commands(("Page.navigate", {"url": "http://localhost:8080/"}))
            for each in tabs:
                each.wait_for_text("You are in.")
            for number, line in enumerate(["Hello, is anybody there?", "Yes: ünïcödé and 😀, too."]):
                tabs[number].type_line(line)
            show(tab, "Yes: ", "chat.png")
    print("Taken: docs/echo_page.png, docs/https_site.png, docs/chat.png")


main()
