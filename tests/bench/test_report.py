"""The tables, the page and the README, made from figures."""

import pytest

import bars
import charts
import figures
import report
import tables
from bars import COST
from test_figures import results_of
from workloads import WORKLOADS

RESULTS = {
    "keep-alive, 16 clients": {
        "mivo": [{"round": 1, COST: 9.0, "p99_ms": 0.5}, {"round": 2, COST: 11.0, "p99_ms": 0.7}],
        "nginx": [{"round": 1, COST: 10.0, "p99_ms": 0.5}, {"round": 2, COST: 11.0, "p99_ms": 0.5}],
        "haproxy": [{"round": 1, COST: 12.0, "p99_ms": 0.4}, {"round": 2, COST: 12.0, "p99_ms": 0.5}],
    },
    "idle client": {
        "mivo": [{"round": 1, "kib_per_client": 10.5}],
        "nginx": [{"round": 1, "kib_per_client": 0.42}],
        "haproxy": [{"round": 1, "kib_per_client": 1.1}],
        "caddy": [{"round": 1, "kib_per_client": 35.0}],
    },
}


def data_of(results):
    measured = {"commit": "abc1234", "sources": "", "date": "2026-01-02", "seconds": 3, "command": "a command"}
    return {
        "machine": {"processor": "a processor", "cores": 2, "memory_mib": 1, "kernel": "6"},
        "versions": {"nginx": "1.22"},
        "flags": {"compiler": "-O3", "linker": "-pie"},
        "servers": {"http, mivo": "mivo PORT"},
        "workloads": {name: {**measured, "results": one, "failures": []} for name, one in results.items()},
    }


def row_of(table, beginning):
    found = [line for line in table.splitlines() if line.startswith(f"| {beginning}")]
    assert len(found) == 1
    return [cell.strip() for cell in found[0].strip("|").split("|")]


def test_bar__has_the_ratio_to_the_peer_with_the_lower_median_and_its_spread():
    table = tables.bars_table(RESULTS)
    row = row_of(table, "keep-alive, 16 clients: processor time, of the better peer")
    assert row == ["keep-alive, 16 clients: processor time, of the better peer, nginx",
                   "0.95 (0.90–1.00)", "0.9", "2", "**no**"]
    assert row_of(table, "idle client")[1:] == ["10.5 KiB", "20 KiB", "1", "yes"]
    assert row_of(table, "keep-alive, 16 clients: processor time, of the floor")[1] == "not measured"


def test_bar__is_met_by_the_digits_that_are_printed():
    bar = bars.Bar("calls", bars.own("w", "x"), 4)
    for value, is_met in ((4.004, True), (4.006, False)):
        assert bars.is_met(bar, bar.read(results_of("w", mivo=[value]))) == is_met


def test_every_bar__is_read_from_a_workload_that_is_measured_for_its_servers():
    """A mistyped name would always say "not measured"."""
    names = (COST, "p50_ms", "p99_ms", "peak_kib", "kib_per_client", "growth_per_waiting", "kept_kib", "growth_kib",
             "resident_kib", "listening_ms", "bytes", "calls_per_request", "allocations_per_request")
    run = {"round": 1, **dict.fromkeys(names, 1.0)}
    results = {name: {server: [run] for server in workload.servers} for name, workload in WORKLOADS.items()}
    assert [bar.name for bar in bars.BARS if bar.read(results) is None] == []
    for row in [*tables.README_ROWS, *tables.PLAIN_ROWS]:
        assert row.workload in WORKLOADS
    for chart in charts.CHARTS:
        for panel in chart.panels:
            assert set(panel.servers) <= set(WORKLOADS[panel.workload].servers)


def test_readme_columns__are_measured_for_each_of_its_rows():
    for row in tables.README_ROWS:
        assert set(tables.COLUMNS) <= set(WORKLOADS[row.workload].servers), row.title


def test_row__has_a_column_for_each_server_and_is_lost_if_another_takes_less():
    row = tables.Row("memory of an idle client, KiB", "idle client", "kib_per_client")
    assert row_of(tables.rows_table(RESULTS, [row]), "memory") == [
        "memory of an idle client, KiB", "10.5", "0.42", "1.10", "35.0"]
    assert tables.lost_rows(RESULTS, [row]) == [row]
    assert tables.lost_rows(results_of("w", mivo=[1], nginx=[2]), [tables.Row("", "w", "x")]) == []


def test_page__quotes_nothing_but_the_figures():
    text = report.page(data_of(RESULTS))
    assert "Measured on 2026-01-02 at commit `abc1234`. Since" in text
    assert "| keep-alive, 16 clients | 10.0 (9.00–11.0) | 10.5 (10.0–11.0) | 12.0 |  |  |  |" in text
    assert "| keep-alive, 16 clients | 0.95 (0.90–1.00) | 0.83 (0.75–0.92) |  |  |  |" in text
    assert "* keep-alive, 16 clients: `a command`" in text
    assert "{" not in text


def test_readme__gets_the_block_and_keeps_the_rest():
    readme = "Before.\n\n<!-- figures, by bench/run --report -->\nold\n<!-- end of figures -->\n\nAfter.\n"
    block = report.readme_block(data_of(RESULTS))
    changed = report.with_block(readme, block)
    assert changed == readme.replace("old", block)
    assert report.with_block(changed, block) == changed
    lost = "takes more than the best of the others in these rows: memory of an idle HTTP client."
    assert lost in " ".join(block.split())
    with pytest.raises(ValueError):
        report.with_block("No place.\n", block)


def test_sentence_of_a_chart__quotes_what_is_drawn():
    panel = charts.Panel("16 clients", "keep-alive, 16 clients", COST, "µs", ("mivo", "haproxy"))
    chart = charts.Chart("", "", (panel,), 0, "It costs")
    assert charts.sentence(chart, RESULTS) == "It costs: mivo 10.0 (9.00–11.0) µs, HAProxy 12.0 µs."
    assert figures.spread(RESULTS, panel.workload, "nginx", COST)  # measured, but not in this panel
