"""Draws the charts: bars from zero, the median above each bar, and a line from the least round to the greatest."""

import hashlib

import matplotlib

matplotlib.use("svg")
import charts  # noqa: E402
import figures  # noqa: E402
import matplotlib.pyplot as plt  # noqa: E402
from bars import TITLES  # noqa: E402

# With these settings the same figures give the same file.
matplotlib.rcParams.update({"svg.hashsalt": "mivo", "svg.fonttype": "none", "font.size": 9})

COLOURS = {
    "mivo": "#1f5fa8",
    "nginx": "#3a923a",
    "nginx unpooled": "#a5cfa5",
    "haproxy": "#d07020",
    "floor": "#909090",
}


def draw_panel(axes, panel, results):
    pairs = list(charts.drawn(panel, results))
    highest = max(found.most for _, found in pairs)
    for place, (server, found) in enumerate(pairs):
        axes.bar(place, found.median, 0.8, color=COLOURS[server], label=TITLES[server])
        axes.plot([place, place], [found.least, found.most], color="black", linewidth=1)
        text = figures.number(found.median)
        axes.text(place, found.most + highest * 0.02, text, ha="center", va="bottom", fontsize=8)
    axes.set_ylim(0, highest * 1.12)
    axes.set_xlim(-0.7, len(pairs) - 0.3)
    axes.set_xticks([])
    axes.set_title(panel.title, fontsize=9)
    axes.set_ylabel(panel.unit)
    axes.spines[["top", "right"]].set_visible(False)


def draw(chart, results, path):
    drawing, all_axes = plt.subplots(1, len(chart.panels), figsize=(8.4, 3.2))
    for axes, panel in zip(all_axes, chart.panels):
        draw_panel(axes, panel, results)
    handles = {}
    for axes in all_axes:
        handles.update(reversed(pair) for pair in zip(*axes.get_legend_handles_labels()))
    drawing.legend(handles.values(), handles.keys(), loc="lower center", ncol=len(handles), frameon=False)
    drawing.tight_layout(rect=(0, 0.08, 1, 1))
    drawing.savefig(path, metadata={"Date": None, "Title": chart.heading})
    plt.close(drawing)


def draw_all(results, folder, source):
    """Replaces the charts in `folder`. Each chart ends with the hash of `source`, the file with the figures."""
    folder.mkdir(parents=True, exist_ok=True)
    for old in folder.glob("*.svg"):
        old.unlink()
    told = hashlib.sha256(source.read_bytes()).hexdigest()
    for chart in charts.CHARTS:
        if charts.is_drawn(chart, results):
            path = folder / chart.file
            draw(chart, results, path)
            path.write_text(path.read_text() + f"<!-- sha256 {told} -->\n")
