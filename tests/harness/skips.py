"""Lists the tests that a run of CTest skipped, each with its reason: skips.py LOG. Fails if a skip was not expected.
LOG is CTest's LastTest.log.

A skip is expected if script/test cannot avoid it with its changes to the machine. MIVO_MAY_SKIP, a regular
expression for reasons, allows further skips: `MIVO_MAY_SKIP='port 443' script/test`.
"""

import os
import re
import sys

EXPECTED = [
    "is not installed; its package would start a server on this machine",
    "passed before, and nothing has changed since",
    "a network namespace is not allowed here",
    "neither docker nor podman works here",
    "the page is about servers of Debian 12",
    "needs Node 20.19",  # Debian 12 has 18
]
if os.geteuid() != 0:
    EXPECTED.append("only root can make a system of its own")


def skipped(log):
    """(where, reason) of every skip that pytest or GoogleTest reports."""
    found = re.findall(r"^SKIPPED \[\d+\] (\S+): (.*)$", log, re.M)
    for reason, name in re.findall(r": Skipped\n(.*)\n(?:(?!\[ RUN ).*\n)*?\[  SKIPPED \] (\S+)", log):
        found.append((name, reason))
    return found


def main(path):
    expected = EXPECTED + list(filter(None, [os.environ.get("MIVO_MAY_SKIP")]))
    surprises = 0
    with open(path, errors="replace") as log:
        for where, reason in skipped(log.read()):
            is_expected = any(re.search(pattern, reason) for pattern in expected)
            surprises += not is_expected
            print(f"Skipped{'' if is_expected else ', which was not expected'}: {where}: {reason}")
    return 1 if surprises else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))
