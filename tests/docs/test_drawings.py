"""script/drawings makes the drawings from texts. Each drawing has to match its present text."""

import hashlib
import re
import xml.etree.ElementTree

import pytest

from mivo_process import REPOSITORY

TEXTS = sorted((REPOSITORY / "docs/drawings").glob("*.dot"))


@pytest.mark.parametrize("text", TEXTS, ids=[text.stem for text in TEXTS])
def test_drawing__is_made_from_its_text(text):
    drawing = (REPOSITORY / "docs" / f"{text.stem}.svg").read_text()
    told = re.search(r"^<!-- sha256 (\w+) -->$", drawing, re.MULTILINE)[1]
    assert told == hashlib.sha256(text.read_bytes()).hexdigest(), "run script/drawings"
    assert xml.etree.ElementTree.fromstring(drawing).tag.endswith("svg")


def test_every_drawing__is_shown_in_a_document():
    documents = [REPOSITORY / "README.md", REPOSITORY / "docs/architecture.md"]
    shown = [name for document in documents
             for name in re.findall(r"!\[[^]]*\]\((?:docs/)?(\w+)\.svg\)", document.read_text())]
    assert sorted(shown) == sorted([*(text.stem for text in TEXTS), "two_terminals"])


def test_first_lines_of_the_readme__are_those_of_the_recording():
    """script/record writes the README's terminal, the recording and the picture from one run."""
    block = re.search(r"^    \$ mivo .*\n(?:    .*\n)*", (REPOSITORY / "README.md").read_text(), re.MULTILINE)[0]
    lines = [line.removeprefix("    ") for line in block.splitlines()]
    assert "\n".join(lines) in (REPOSITORY / "docs/first_run.txt").read_text()
    picture = xml.etree.ElementTree.parse(REPOSITORY / "docs/two_terminals.svg").getroot()
    shown = [element.text for element in picture.iter("{http://www.w3.org/2000/svg}text")]
    assert [line for line in lines if line not in shown] == []
