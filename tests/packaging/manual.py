"""The manual page, taken apart: its sections, and the console lines with the modes in which they appear."""

import re
import shlex

from mivo_process import REPOSITORY

MANUAL = REPOSITORY / "packaging/mivo.8"
BLANK = "\0"  # stands for the parts of a message that vary
MODES = {"Both modes": {"http", "https"}, "HTTP mode": {"http"}, "HTTPS mode": {"https"}}
NEITHER = "From other programs on the same library"  # the title of the part with lines that appear in no mode


def section(title):
    """The source lines of a section."""
    parts = re.split(r"^\.Sh (.+)$", MANUAL.read_text(), flags=re.M)
    return dict(zip(parts[1::2], parts[2::2]))[title].strip("\n").split("\n")


def message_of_item(line):
    """The message in an .It line of the manual: .Li has its fixed words, .Ar the parts that vary."""
    # The split would read a backslash as quoting; in the manual it only begins the empty "\&".
    line = line.replace("\\&", "&")
    text, kind, joined = "", None, True
    for word in shlex.split(line.removeprefix(".It "), posix=True):
        if word in ("Li", "Ar"):
            kind = word
        elif word == "Ns":
            joined = True
        else:
            assert kind, f"no macro before {word!r}: {line}"
            text += ("" if joined else " ") + (word.replace("&", "") if kind == "Li" else BLANK)
            joined = False
    return text


def items_of_messages():
    """(message, modes) of each item that is a console line, by its line in the source."""
    items, part = {}, ""
    lines = section("CONSOLE OUTPUT")
    for line, following in zip(lines, lines[1:]):
        if line.startswith(".Ss "):
            part = line.removeprefix(".Ss ")
        elif line.startswith(".It "):
            assert line not in items
            named = re.fullmatch(r"\.Em (.+) \.", following)
            assert bool(named) == (part != NEITHER), f"the mode of {line}"
            items[line] = message_of_item(line), MODES[named[1]] if named else set()
    return items


def manual_messages():
    return {message for message, _ in items_of_messages().values()}
