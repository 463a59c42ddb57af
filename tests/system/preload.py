"""Libraries that a test preloads, between mivo and the system."""

import subprocess

from upstreams import HERE


def build_preload(tmp_path_factory, name):
    """Compiles NAME.c of this folder; returns the path for LD_PRELOAD."""
    library = tmp_path_factory.mktemp(name) / f"{name}.so"
    subprocess.run(["cc", "-O1", "-fPIC", "-shared", HERE / f"{name}.c", "-o", library], check=True)
    return library
