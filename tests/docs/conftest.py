"""The tests of the documents use the vocabulary of the black-box tests, which is in tests/system."""

import pathlib
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "system"))
