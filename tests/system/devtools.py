"""A Chromium that is driven through its DevTools protocol.

The Browser owns its process; `close` ends the process. A Page is a tab. Each call of a Page opens a new DevTools
connection, so a test may keep several pages and use them in any order.
"""

import asyncio
import base64
import json
import os
import pathlib
import shutil
import subprocess
import urllib.request

import websockets

from clients import ENVIRONMENT
from upstreams import end
from wire import until

START_TIME = 60  # seconds; a browser starts slowly on a busy machine
FLAGS = ("--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
         "--disable-background-networking", "--disable-component-update", "--disable-sync",
         "--disable-dev-shm-usage", "--window-size=800,600", "--remote-debugging-port=0")


class NoPageYet(Exception):
    """The tab is between two pages, for example for a moment during a redirect."""


class Page:
    def __init__(self, address):
        self.address = address

    def commands(self, *commands):
        """Sends commands, each (method, parameters), one after the other; returns the result of the last."""
        return asyncio.run(asyncio.wait_for(self._run(commands), START_TIME))

    async def _run(self, commands):
        result = None
        async with websockets.connect(self.address, max_size=None) as devtools:
            for number, (method, parameters) in enumerate(commands):
                await devtools.send(json.dumps({"id": number, "method": method, "params": parameters}))
                while (answer := json.loads(await devtools.recv())).get("id") != number:
                    pass  # an event
                if "default execution context" in answer.get("error", {}).get("message", ""):
                    raise NoPageYet
                assert "error" not in answer, f"{method}: {answer}"
                result = answer["result"]
        return result

    def evaluate(self, expression):
        parameters = {"expression": expression, "returnByValue": True, "awaitPromise": True}
        answer = self.commands(("Runtime.evaluate", parameters))
        assert "exceptionDetails" not in answer, answer
        return answer["result"].get("value")

    def text(self):
        try:
            return self.evaluate("document.body ? document.body.innerText : ''")
        except NoPageYet:
            return ""

    def wait_for_text(self, text):
        until(lambda: text in self.text(), f"{text!r} on the page", START_TIME)

    def type_line(self, text):
        """Types into the element with the focus, then presses Enter. A tab that comes to the front gets the focus a
        little later, and text that is typed before that is lost."""
        self.commands(("Page.bringToFront", {}))
        until(lambda: self.evaluate("document.hasFocus() && document.activeElement !== document.body"), "focus",
              START_TIME)
        key = {"key": "Enter", "code": "Enter", "windowsVirtualKeyCode": 13}
        self.commands(("Input.insertText", {"text": text}),
                      ("Input.dispatchKeyEvent", {"type": "keyDown", "text": "\r", **key}),
                      ("Input.dispatchKeyEvent", {"type": "keyUp", **key}))

    def screenshot(self):
        """The page as the bytes of a PNG."""
        answer = self.commands(("Page.bringToFront", {}), ("Page.captureScreenshot", {"format": "png"}))
        return base64.b64decode(answer["data"])


class Browser:
    def __init__(self, folder, *flags, in_window=False):
        """`in_window` gives the browser a window on the display that DISPLAY names; otherwise it is headless."""
        shown = {"DISPLAY": os.environ["DISPLAY"], "XAUTHORITY": os.environ["XAUTHORITY"]} if in_window else {}
        head = [] if in_window else ["--headless"]
        self.profile = pathlib.Path(folder, "profile")
        with open(f"{folder}/browser_output", "wb") as output:
            self.process = subprocess.Popen(
                ["chromium", *head, *FLAGS, *flags, f"--user-data-dir={self.profile}", "about:blank"],
                env={**ENVIRONMENT, **shown, "HOME": folder}, stdin=subprocess.DEVNULL, stdout=output, stderr=output)
        try:
            self.port = until(self._debugging_port, "the browser has started", START_TIME)
        except AssertionError:
            self.close()
            raise

    def _debugging_port(self):
        try:
            lines = (self.profile / "DevToolsActivePort").read_text().split()
        except FileNotFoundError:
            return None
        return lines[0] if len(lines) == 2 else None

    def open(self, url):
        """Opens a new tab and returns its Page."""
        ask = urllib.request.Request(f"http://127.0.0.1:{self.port}/json/new?{url}", method="PUT")
        opener = urllib.request.build_opener(urllib.request.ProxyHandler({}))
        with opener.open(ask, timeout=START_TIME) as answer:
            return Page(json.load(answer)["webSocketDebuggerUrl"])

    def close(self):
        """Also removes the profile. The other processes of the browser still write to it for a moment."""
        end(self.process)
        until(self._remove_profile, "the profile is removed", START_TIME)

    def _remove_profile(self):
        shutil.rmtree(self.profile, ignore_errors=True)
        return not self.profile.exists()
