"""The drawings are made from text by script/drawings; each has to be that of its present text."""

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


def test_every_drawing__is_shown_in_the_architecture():
    shown = re.findall(r"!\[[^]]*\]\((\w+)\.svg\)", (REPOSITORY / "docs/architecture.md").read_text())
    assert sorted(shown) == [text.stem for text in TEXTS]
