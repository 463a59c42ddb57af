"""Links within the repository lead to existing files."""

import re

import pytest

from mivo_process import REPOSITORY

DOCUMENTS = [*sorted(REPOSITORY.glob("*.md")), *sorted((REPOSITORY / "docs").glob("*.md"))]


@pytest.mark.parametrize("document", DOCUMENTS, ids=[path.name for path in DOCUMENTS])
def test_links_of_a_document__lead_to_files(document):
    targets = re.findall(r"\]\(([^)#]+)\)", document.read_text())
    missing = [target for target in targets if "://" not in target and not (document.parent / target).exists()]
    assert missing == []


def test_documents__are_there():
    names = {path.name for path in DOCUMENTS}
    assert {"README.md", "CONTRIBUTING.md", "architecture.md", "behaviour.md", "embedding.md"} <= names


def test_pictures__are_shown_and_small():
    texts = "".join(path.read_text() for path in DOCUMENTS)
    for picture in (REPOSITORY / "docs").glob("*.png"):
        assert f"{picture.name})" in texts
        assert picture.stat().st_size < 60000
