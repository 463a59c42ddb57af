"""docs/behaviour.md names tests as evidence, in a table at its end. Each answer has tests, and each test exists."""

import re

import pytest

from mivo_process import REPOSITORY

TEXT, _, TABLE = (REPOSITORY / "docs/behaviour.md").read_text().partition("\n## Tests\n")
QUESTIONS = re.findall(r"^### (.+)$", TEXT, re.MULTILINE)
ROW = re.compile(r"^\|(?: ([^|]+))? \| `([^`:]+)::([^`]+)` \|$", re.MULTILINE)


def named_tests():
    """{question: [(file, test)]}. A row without a question belongs to the question above it."""
    named, question = {}, None
    for title, file, name in ROW.findall(TABLE):
        question = title or question
        named.setdefault(question, []).append((file, name))
    return named


NAMED = named_tests()


def is_there(file, name):
    text = (REPOSITORY / file).read_text()
    if file.endswith(".py"):
        return re.search(rf"^def {re.escape(name)}\(", text, re.MULTILINE) is not None
    suite, _, test = name.partition(".")
    return re.search(rf"^TEST(_F|_P)?\({re.escape(suite)}, *{re.escape(test)}\)", text, re.MULTILINE) is not None


def test_table__has_each_question_once_and_in_its_order():
    assert list(NAMED) == QUESTIONS
    assert len(QUESTIONS) > 30
    assert all(question.endswith("?") for question in QUESTIONS)
    rows = [line for line in TABLE.splitlines() if line.startswith("|")][2:]
    assert len(rows) == sum(map(len, NAMED.values()))


def test_names_of_tests__stand_only_in_the_table():
    assert not re.search(r"\.(py|cpp)::", TEXT)


@pytest.mark.parametrize("question", QUESTIONS)
def test_answer__names_tests_that_are_there(question):
    missing = [f"{file}::{name}" for file, name in NAMED.get(question, []) if not is_there(file, name)]
    assert missing == []
