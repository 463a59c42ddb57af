"""docs/stacks.md itself: its structure, and a test for each of its stacks."""

import pathlib
import re

import pytest

from checks import CHECKS
from page import LINES, STACKS, TEXT, sections

HERE = pathlib.Path(__file__).resolve().parent
TESTS = "".join(path.read_text() for path in HERE.glob("*.py") if path.name != "test_page.py")


@pytest.mark.parametrize("name", STACKS)
def test_stack__has_its_four_lines_and_a_test(name):
    stack = STACKS[name]
    assert tuple(stack.labels) == LINES
    assert f'"{name}"' in TESTS
    assert re.search(r"(?<!\d)3000(?!\d)", stack.server + "".join(stack.files.values()))
    assert re.fullmatch(r"-map (\S+\.localhost|127\.0\.0\.14):8080 3000", stack.map)


@pytest.mark.parametrize("name", STACKS)
def test_words_of_a_stack__are_explained(name):
    explained = re.findall(r"^\| ([A-Za-z -]+) \|", TEXT, re.MULTILINE)
    assert set(CHECKS) < set(explained)
    assert set(STACKS[name].works) <= set(explained)


def anchor(heading):
    """The anchor that a site makes from a heading when it shows the page."""
    return re.sub(r"[^a-z0-9 -]", "", heading.lower()).replace(" ", "-")


def test_contents__lead_to_every_section():
    contents = TEXT.split("\n## ")[0]
    linked = dict(re.findall(r"\[([^\]]+)\]\(#([^)]+)\)", contents))
    headings = re.findall(r"^##+ (.+)$", TEXT, re.MULTILINE)
    assert set(STACKS) <= set(headings)
    assert {anchor(heading) for heading in headings} >= set(linked.values())
    assert {anchor(name) for name in STACKS} <= set(linked.values())


def test_facts__have_tests_under_the_same_headings():
    told = [section.partition("\n")[0] for section in sections("What holds for all of them")]
    assert told == re.findall(r"^# (.+)$", (HERE / "test_facts.py").read_text(), re.MULTILINE)
