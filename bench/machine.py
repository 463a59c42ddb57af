"""The conditions of a run: the machine, the commit, the versions of the programs, and how mivo was compiled."""

import os
import platform
import re
import subprocess
from pathlib import Path

from sources import FOLDERS, ROOT


def field(file, name):
    found = re.search(rf"^{name}\s*:\s*(.+)$", Path(file).read_text(), re.M)
    return found.group(1) if found else "unknown"


def machine():
    return {
        "processor": field("/proc/cpuinfo", "model name"),
        "cores": os.cpu_count(),
        "memory_mib": int(field("/proc/meminfo", "MemTotal").split()[0]) // 1024,
        "kernel": platform.release().split("-")[0],
    }


def first_line(*command):
    try:
        done = subprocess.run(command, capture_output=True, text=True)
    except OSError:
        return "unknown"
    line = ((done.stdout + done.stderr).splitlines() or ["unknown"])[0]
    return re.split(r" \(x86| - http|, Copyright| Copyright| \(Library", line)[0]


def commit():
    """The commit that is measured; "unknown" in a tree without a repository. Only changes of the program's own sources
    are marked, because other changes do not change the program."""
    git = ["git", "-C", str(ROOT)]
    said = first_line(*git, "rev-parse", "--short", "HEAD")
    if not re.fullmatch(r"[0-9a-f]+", said):
        return "unknown"
    changed = subprocess.run([*git, "diff", "--quiet", "HEAD", "--", *FOLDERS], capture_output=True).returncode
    return f"{said} with changes" if changed else said


def versions():
    return {
        "nginx": first_line("nginx", "-v"),
        "HAProxy": first_line("haproxy", "-v"),
        "Caddy": first_line("caddy", "version"),
        "wrk": first_line("wrk", "-v"),
        "ab": first_line("ab", "-V"),
        "hey": first_line("dpkg-query", "-W", "-f", "${Version}\n", "hey"),
        "curl": first_line("curl", "--version"),
        "OpenSSL": first_line("openssl", "version"),
        "compiler": first_line("c++", "--version"),
    }


def flags():
    """The flags with which the build compiles mivo's main.cpp and links mivo, without paths."""
    lines = (ROOT / "build" / "release" / "build.ninja").read_text().splitlines()

    def of_target(start, variable):
        """The value of a variable in the block that begins with `start`."""
        begin = next(i for i, line in enumerate(lines) if line.startswith(start))
        for line in lines[begin + 1 :]:
            if not line.startswith(" "):
                return ""
            if line.strip().startswith(variable + " ="):
                return line.split("=", 1)[1].strip()
        return ""

    compiling = of_target("build CMakeFiles/mivo.dir/main/main.cpp.o:", "FLAGS")
    linking = of_target("build mivo:", "LINK_FLAGS")
    return {
        "compiler": " ".join(word for word in compiling.split() if "/" not in word),
        "linker": " ".join(word for word in linking.split() if "/" not in word),
    }
