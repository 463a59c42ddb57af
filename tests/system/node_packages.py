"""The npm packages of the tests. npm installs the packages of a lock file once, into the build folder.

MIVO_NODE_FOLDER names another folder for the packages.
"""

import fcntl
import os
import pathlib
import shutil
import subprocess

from mivo_process import REPOSITORY

NODE_FOLDER = pathlib.Path(os.environ.get("MIVO_NODE_FOLDER", REPOSITORY / "build/node"))
INSTALL_PATIENCE = 300  # seconds


def node_packages(source, target=NODE_FOLDER):
    """The folder node_modules with the packages of source/package-lock.json. If several tests ask at the same time,
    one installs the packages and the others wait."""
    target.mkdir(parents=True, exist_ok=True)
    installed = target / "package-lock.json"
    with open(target / "lock", "wb") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        wanted = (source / "package-lock.json").read_bytes()
        if not installed.exists() or installed.read_bytes() != wanted:
            install(source, target)
            installed.write_bytes(wanted)
    return target / "node_modules"


def install(source, target):
    """Installs into a separate folder first, so that nobody takes an unfinished folder for a finished one."""
    shutil.rmtree(target / "node_modules", ignore_errors=True)
    work = target / "work"
    work.mkdir(exist_ok=True)
    for name in ("package.json", "package-lock.json"):
        shutil.copy(source / name, work)
    subprocess.run(["npm", "ci", "--ignore-scripts", "--no-audit", "--no-fund"], cwd=work,
                   stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, timeout=INSTALL_PATIENCE, check=True)
    (work / "node_modules").rename(target / "node_modules")
    shutil.rmtree(work)
