"""A test that has passed need not run again until something changes on which it depends. The build folder has an empty
file for each pass, named after the digest of everything on which the test depended. A clean clone has none of these
files, so everything runs."""

import hashlib
import os
from pathlib import Path

REPOSITORY = Path(__file__).resolve().parents[2]
FOLDER = Path(os.environ.get("MIVO_BUILD", REPOSITORY / "build/asan"), "passed")


def digest_of(*parts):
    """The digest of texts, bytes and paths. A path stands for its name and its content."""
    digest = hashlib.sha256()
    for part in parts:
        content = part.read_bytes() if isinstance(part, Path) else b""
        name = part if isinstance(part, bytes) else str(part).encode()
        digest.update(b"%d %d " % (len(name), len(content)) + name + content)
    return digest.hexdigest()


def has_passed(digest):
    return (FOLDER / digest).exists()


def note_pass(digest):
    FOLDER.mkdir(parents=True, exist_ok=True)
    (FOLDER / digest).touch()
