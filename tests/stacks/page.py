"""docs/stacks.md as the tests read it: they run the commands and files that the page shows."""

import re

from mivo_process import REPOSITORY

TEXT = (REPOSITORY / "docs/stacks.md").read_text()
LINES = ("Server", "Map", "Works", "Does not")


def blocks(text, kind=""):
    """The files of this kind that a text shows, by name."""
    return dict(re.findall(rf"^In `(\S+)`{kind}:\n\n```\w*\n(.*?)```", text, re.DOTALL | re.MULTILINE))


class Stack:
    """A section of the page: its four lines, and the files that it shows, by name. `https_files` are the files that
    help over HTTPS."""

    def __init__(self, section):
        self.name, _, self.text = section.partition("\n")
        points = re.split(r"^\* \*\*([A-Z][a-z ]+):\*\* ", self.text, flags=re.MULTILINE)[1:]
        self.labels = points[0::2]
        self.points = {label: text.split("\n\n")[0] for label, text in zip(self.labels, points[1::2])}
        self.files = blocks(self.text)
        self.https_files = blocks(self.text, ", for HTTPS")

    @property
    def server(self):
        """The command that starts the server."""
        return self._code("Server")

    @property
    def map(self):
        """The arguments after mivo's port."""
        start, arguments = self._code("Map").split(" ", 2)[::2]
        assert start == "mivo"
        return arguments

    @property
    def works(self):
        """The words for what works; the page explains them at its beginning."""
        listed = self.points["Works"].split(".")[0]
        return [word.strip() for word in " ".join(listed.split()).split(",")]

    def _code(self, label):
        return re.search(r"`([^`]+)`", self.points[label])[1]


def sections(heading):
    """The sections `### ` in the part whose title is `## ` and `heading`."""
    part = re.search(rf"^## {re.escape(heading)}$(.*?)(?=^## |\Z)", TEXT, re.MULTILINE | re.DOTALL)[1]
    return re.split(r"^### ", part, flags=re.MULTILINE)[1:]


def shown_file(name):
    """A file that is for all stacks, from the page."""
    return blocks("".join(sections("What holds for all of them")))[name]


STACKS = {stack.name: stack for stack in map(Stack, sections("The stacks"))}
