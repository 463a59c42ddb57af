"""The figures in the documents belong to these sources, are complete, and come from one file. `bench/run` measures
again, and `bench/run --report` writes the texts and charts."""

import hashlib
import re

import pytest

import bars
import figures
import report
import sources
from workloads import MOST_ROUNDS, ROUNDS, WORKLOADS

FILE = sources.ROOT / "docs/performance/figures.json"
CHARTS = sorted((sources.ROOT / "docs/performance").glob("*.svg"))


@pytest.fixture(scope="module")
def data():
    return figures.load(FILE)


def test_figures__are_of_these_sources(data):
    """Comments and layout may have changed since the measurement; see bench/figures_age."""
    assert sources.older_workloads(data, sources.sources_hash()) == [], (
        "measured before the last change to the code: run ./bench/run and then ./bench/run --report")


def test_figures__are_of_all_workloads_in_all_rounds(data):
    assert sorted(data["workloads"]) == sorted(WORKLOADS)
    for name, workload in data["workloads"].items():
        assert workload["failures"] == [], name
        assert workload["seconds"] >= 3, name
        assert set(workload["results"]) == set(WORKLOADS[name].servers), name
        for server, runs in workload["results"].items():
            assert [run["round"] for run in runs] == list(range(1, WORKLOADS[name].rounds + 1)), (name, server)
    assert WORKLOADS["keep-alive, 16 clients"].rounds == MOST_ROUNDS >= 10


def test_bars__compare_the_medians_of_enough_rounds(data):
    """The size of the program is the same in each round."""
    for bar in bars.BARS:
        measured = bar.read({name: workload["results"] for name, workload in data["workloads"].items()})
        assert measured.spread.count >= ROUNDS >= 7 or bar.name == "stripped program", bar.name


def test_page__is_made_from_the_figures(data):
    page = report.page(data)
    assert (sources.ROOT / "docs/performance.md").read_text() == page
    assert "not measured" not in page


def test_readme__has_the_table_that_is_made_from_the_figures(data):
    readme = (sources.ROOT / "README.md").read_text()
    assert readme == report.with_block(readme, report.readme_block(data))


def ticks_of(panel):
    """The ticks of the vertical axis of a panel, from below: (what stands beside the tick, its place)."""
    found = re.findall(r'<use [^>]* y="([\d.]+)"[^>]*/>\s*</g>\s*</g>\s*<g id="text_\d+">\s*<text [^>]*>([^<]*)</text>',
                       panel)
    return [(text, float(place)) for place, text in found]


def test_axes_of_the_charts__begin_at_zero_and_are_linear():
    """On a logarithmic axis, a server that costs ten times as much would look a little more expensive."""
    for chart in CHARTS:
        panels = re.split(r'<g id="axes_\d+">', chart.read_text())[1:]
        assert panels, chart.name
        for panel in panels:
            (first, zero), (second, next_to_it), *others = ticks_of(panel)
            assert first == "0" and others, chart.name
            for text, place in others:
                expected = zero + (next_to_it - zero) * float(text) / float(second)
                assert place == pytest.approx(expected, abs=0.1), chart.name


def test_charts__are_drawn_from_the_figures_and_shown():
    shown = re.findall(r"\]\(performance/(\S+\.svg)\)", (sources.ROOT / "docs/performance.md").read_text())
    assert shown and sorted(shown) == [chart.name for chart in CHARTS]
    expected = hashlib.sha256(FILE.read_bytes()).hexdigest()
    for chart in CHARTS:
        assert chart.read_text().endswith(f"<!-- sha256 {expected} -->\n"), chart.name
