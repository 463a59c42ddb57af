"""The folders are layers. A file includes only files of its own folder and of lower layers."""

import re
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
LAYERS = ["base", "net", "tls", "http", "proxy", "main"]  # the lowest first


def sources():
    for layer in LAYERS:
        for path in sorted((ROOT / layer).glob("*")):
            yield layer, path


def own_includes(path):
    return re.findall(r'^\s*#\s*include\s+"([^"]+)"', path.read_text(), re.M)


def test_there_are_sources_to_check():
    assert len(list(sources())) > 30


def test_includes_point_to_the_same_or_a_lower_layer():
    wrong = []
    for layer, path in sources():
        for include in own_includes(path):
            folder = include.split("/")[0]
            if folder not in LAYERS or LAYERS.index(folder) > LAYERS.index(layer):
                wrong.append(f"{path.relative_to(ROOT)} includes {include}")
    assert wrong == []


def test_includes_are_written_from_the_root():
    wrong = []
    for _, path in sources():
        for include in own_includes(path):
            if not (ROOT / include).is_file():
                wrong.append(f"{path.relative_to(ROOT)} includes {include}")
    assert wrong == []
