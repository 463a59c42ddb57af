"""Medians, spreads and ratios; merging; the print of a figure."""

import json

import pytest

import figures
from figures import Spread


def results_of(workload, **by_server):
    """Results in which each server has the given figures in rounds 1, 2, ...; None stands for a failed round."""
    return {workload: {server: [{"round": n, "x": x} for n, x in enumerate(values, 1) if x is not None]
                       for server, values in by_server.items()}}


def test_spread__is_the_least_the_median_and_the_most():
    assert figures.spread_of([5, 1, 4, 2]) == Spread(1, 3, 5, 4)
    assert figures.spread_of([7]) == Spread(7, 7, 7, 1)
    assert figures.spread_of([]) is None


def test_spread_of_a_figure__is_scaled_and_leaves_out_what_is_missing():
    results = results_of("w", mivo=[4, None, 2])
    results["w"]["mivo"].append({"round": 4, "x": None})
    assert figures.spread(results, "w", "mivo", "x", 10) == Spread(20, 30, 40, 2)
    assert figures.spread(results, "w", "mivo", "y") is None
    assert figures.spread(results, "w", "nginx", "x") is None
    assert figures.spread(results, "other", "mivo", "x") is None


def test_ratio__is_taken_within_each_round():
    """The machine was three times as slow in the second round. The ratio of the medians would be 1.5."""
    results = results_of("w", mivo=[10, 30, 12], nginx=[8, 24, 8])
    assert figures.ratio(results, "w", "x", "nginx") == Spread(1.25, 1.25, 1.5, 3)


def test_ratio__leaves_out_rounds_that_one_of_the_two_does_not_have():
    results = results_of("w", mivo=[10, None, 30], nginx=[None, 5, 10])
    assert figures.ratio(results, "w", "x", "nginx") == Spread(3, 3, 3, 1)
    assert figures.ratio(results, "w", "x", "haproxy") is None


def test_least__has_the_lowest_median_and_not_the_lowest_round():
    results = results_of("w", nginx=[1, 9, 9], haproxy=[5, 6, 7])
    assert figures.least_of(results, "w", "x", ("nginx", "haproxy")) == "haproxy"
    assert figures.least_of(results, "w", "x", ("nginx", "caddy")) is None


@pytest.mark.parametrize("value, text", [
    (0, "0"), (0.0312, "0.031"), (0.9449, "0.94"), (1.0, "1.00"), (9.994, "9.99"), (9.996, "10.0"), (12.34, "12.3"),
    (99.94, "99.9"), (99.96, "100"), (1234.5, "1234"),
])
def test_number__has_three_digits(value, text):
    assert figures.number(value) == text


def test_text__has_the_spread_in_brackets_unless_there_is_none():
    assert figures.text_of(Spread(12.31, 12.62, 12.93, 7)) == "12.6 (12.3–12.9)"
    assert figures.text_of(Spread(4, 4.001, 4.004, 7)) == "4.00"
    assert figures.text_of(None) == ""


def run_of(machine="one", **workloads):
    return {"machine": {"processor": machine}, "versions": {}, "flags": {}, "servers": {"http, mivo": "mivo 80"},
            "workloads": workloads}


def test_merging__replaces_the_workloads_that_were_measured_again():
    merged = figures.merged(run_of(first={"commit": "a"}, second={"commit": "a"}), run_of(second={"commit": "b"}))
    assert merged["workloads"] == {"first": {"commit": "a"}, "second": {"commit": "b"}}
    assert merged["servers"] == {"http, mivo": "mivo 80"}


def test_merging__is_refused_for_another_machine():
    with pytest.raises(ValueError, match="another machine"):
        figures.merged(run_of("one"), run_of("two"))


def test_saved_figures__are_loaded_again(tmp_path):
    data = run_of(first={"commit": "a"})
    figures.save(data, tmp_path / "new" / "figures.json")
    assert figures.load(tmp_path / "new" / "figures.json") == data
    assert json.loads((tmp_path / "new" / "figures.json").read_text()) == data
    assert [path.name for path in (tmp_path / "new").iterdir()] == ["figures.json"]
