"""The figures of a run: keeps them as JSON, merges them with those of earlier runs, and sums them up.

    {"machine": ..., "versions": ..., "flags": ..., "servers": {"JOB, SERVER": command},
     "workloads": {NAME: {"commit": ..., "sources": ..., "date": ..., "seconds": ..., "command": ...,
                          "results": {SERVER: [{"round": 1, FIGURE: number, ...}, ...]},
                          "failures": [{"round": 1, "server": ..., "cause": ...}]}}}

Every round of every server is kept. The printed figures are computed from the rounds: a median, and next to it
the lowest and the highest value. A ratio is computed for each round, in which the servers ran one after the other. The
printed ratio is the median of these ratios."""

import json
import statistics
from typing import NamedTuple


class Spread(NamedTuple):
    least: float
    median: float
    most: float
    count: int = 1  # rounds

    def times(self, factor):
        return Spread(self.least * factor, self.median * factor, self.most * factor, self.count)


def spread_of(values):
    """None when there are no values."""
    values = list(values)
    return Spread(min(values), statistics.median(values), max(values), len(values)) if values else None


def by_round(results, workload, server, figure):
    """{round: figure}, without the rounds that failed or have no such figure."""
    runs = results.get(workload, {}).get(server, [])
    return {run["round"]: run[figure] for run in runs if run.get(figure) is not None}


def spread(results, workload, server, figure, factor=1.0):
    found = spread_of(by_round(results, workload, server, figure).values())
    return found.times(factor) if found else None


def ratio(results, workload, figure, other, own="mivo"):
    """The spread of the ratio of `own` to `other`, over the rounds that both have."""
    mine, theirs = (by_round(results, workload, server, figure) for server in (own, other))
    return spread_of(mine[n] / theirs[n] for n in mine if theirs.get(n))


def least_of(results, workload, figure, servers):
    """The server with the least median; None when any of them has no figure."""
    medians = {server: spread(results, workload, server, figure) for server in servers}
    if None in medians.values():
        return None
    return min(medians, key=lambda server: medians[server].median)


def number(value):
    """Three digits, or all digits before the point."""
    if value == 0:
        return "0"
    digits = 0 if abs(value) >= 99.95 else 1 if abs(value) >= 9.995 else 2 if abs(value) >= 0.1 else 3
    return f"{value:.{digits}f}"


def text_of(found):
    """A text like "12.6 (12.3–12.9)". If all rounds gave the same figure, only this figure. For None, ""."""
    if found is None:
        return ""
    least, median, most = number(found.least), number(found.median), number(found.most)
    return median if least == most else f"{median} ({least}–{most})"


def results_of(data):
    return {name: workload["results"] for name, workload in data["workloads"].items()}


def merged(old, new):
    """The old figures, in which the new figures replace those of the same workloads. Raises ValueError if the old
    figures are of another machine, or of other versions or flags, because a reader would take all of them for one
    run."""
    for key in ("machine", "versions", "flags"):
        if old[key] != new[key]:
            raise ValueError(f"the old figures are of another {key}: {old[key]}, now {new[key]}")
    return {
        **new,
        "servers": {**old["servers"], **new["servers"]},
        "workloads": {**old["workloads"], **new["workloads"]},
    }


def load(path):
    return json.loads(path.read_text())


def save(data, path):
    """Writes the whole file or nothing: when a run is interrupted, the file of the last save() stays."""
    path.parent.mkdir(parents=True, exist_ok=True)
    part = path.with_name(path.name + ".part")
    part.write_text(json.dumps(data, indent=1) + "\n")
    part.replace(path)
