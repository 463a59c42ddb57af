"""docs/behaviour.md names tests as evidence: each of them has to be there."""

import re

import pytest

from mivo_process import REPOSITORY

SECTIONS = re.split(r"^### ", (REPOSITORY / "docs/behaviour.md").read_text(), flags=re.MULTILINE)[1:]
NAMED = re.compile(r"^\* `([^`:]+)::([^`]+)`$", re.MULTILINE)


def is_there(file, name):
    text = (REPOSITORY / file).read_text()
    if file.endswith(".py"):
        return re.search(rf"^def {re.escape(name)}\(", text, re.MULTILINE) is not None
    suite, _, test = name.partition(".")
    return re.search(rf"^TEST(_F|_P)?\({re.escape(suite)}, *{re.escape(test)}\)", text, re.MULTILINE) is not None


@pytest.mark.parametrize("section", SECTIONS, ids=[section.splitlines()[0] for section in SECTIONS])
def test_answer__names_tests_that_are_there(section):
    named = NAMED.findall(section)
    assert named
    assert len(named) == section.count("\n* ")
    missing = [f"{file}::{name}" for file, name in named if not is_there(file, name)]
    assert missing == []


def test_document__has_questions_to_answer():
    assert len(SECTIONS) > 30
    assert all(section.splitlines()[0].endswith("?") for section in SECTIONS)
