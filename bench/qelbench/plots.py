"""Curves and bars as SVG files that differ from run to run by the figures only."""

import matplotlib

matplotlib.use("svg")
# Names of clips and markers from a fixed salt instead of a random one; text as text.
matplotlib.rcParams.update({"svg.hashsalt": "qel", "svg.fonttype": "none", "font.size": 10})

from matplotlib import pyplot  # noqa: E402

NO_DATE = {"Date": None}


def _save(figure, path):
    figure.tight_layout()
    figure.savefig(path, format="svg", metadata=NO_DATE)
    pyplot.close(figure)
    # It leaves blanks at the ends of lines.
    text = path.read_text(encoding="utf-8")
    path.write_text("\n".join(line.rstrip() for line in text.splitlines()) + "\n", encoding="utf-8")


def draw_curve(curve, path):
    figure, axes = pyplot.subplots(figsize=(7.5, 4))
    for number, (name, points) in enumerate(curve.series.items()):
        axes.plot(*zip(*points), marker="osD^v<>"[number % 7], markersize=4, label=name)
    if curve.log_x:
        axes.set_xscale("log")
    if curve.log_y:
        axes.set_yscale("log")
    else:
        axes.set_ylim(bottom=0)
    axes.set(title=curve.title, xlabel=curve.x_label, ylabel=curve.y_label)
    axes.grid(alpha=0.3)
    axes.legend()
    _save(figure, path)


def draw_bars(bars, figures, path):
    """Medians as bars, the least and the most of the runs as whiskers."""
    chosen = [figures[name] for name in bars.figures]
    figure, axes = pyplot.subplots(figsize=(7.5, 1.2 + 0.4 * len(chosen)))
    medians = [one.median for one in chosen]
    errors = [[one.median - one.spread[0] for one in chosen], [one.spread[1] - one.median for one in chosen]]
    axes.barh([one.name for one in chosen], medians, xerr=errors, capsize=3, color="#4c78a8", ecolor="#333333")
    axes.invert_yaxis()
    axes.set(title=bars.title, xlabel=chosen[0].unit)
    axes.grid(axis="x", alpha=0.3)
    _save(figure, path)
