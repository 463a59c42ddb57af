"""The tests of docs/stacks.md use the vocabulary of the black-box tests, which is in tests/system."""

import pathlib
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "system"))

pytest_plugins = ["behind"]
