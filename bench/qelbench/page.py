"""The page of the benchmarks, and results.json, from which it can be written again."""

import inspect
import json

from . import parts
from .results import Results

INTRODUCTION = """# Benchmarks

Written by `bench/run`; the same figures for machines are in [results.json](benchmarks/results.json). Every figure is
the median of runs that took turns with those of what it is compared with (A B C A B C ...), with the least and the
most of the runs; a ratio is the median of the ratios within each turn. Broker, agent, applications and the
measurement share one machine.
"""


def number(value):
    """Three digits that count, thousands apart."""
    if abs(value) >= 1000:
        digits = max(0, len(str(int(abs(value)))) - 3)
        return f"{round(value, -digits):,.0f}"
    return f"{value:.3g}"


class Document:
    """results.json: the machine, and by part what it has found and when."""

    def __init__(self, folder):
        self.folder = folder / "benchmarks"
        self.page = folder / "benchmarks.md"
        self.file = self.folder / "results.json"
        self.content = {"machine": {}, "parts": {}}
        if self.file.exists():
            self.content = json.loads(self.file.read_text(encoding="utf-8"))

    def put(self, name, results, circumstances):
        """Replaces one part's results, and nothing else, and writes everything."""
        self.content["parts"][name] = {"measured": circumstances, **results.to_json()}
        self.write()

    def write(self):
        self.folder.mkdir(parents=True, exist_ok=True)
        self.file.write_text(json.dumps(self.content, indent=1) + "\n", encoding="utf-8")
        contents = self.content["parts"]
        found = [(part, contents[part.NAME]) for part in parts.find() if part.NAME in contents]
        for old in self.folder.glob("*.svg"):
            old.unlink()
        sections = [self._section(part, found_by_part) for part, found_by_part in found]
        self.page.write_text("\n".join([INTRODUCTION, self._targets(found), self._machine(), *sections]),
                             encoding="utf-8")

    @staticmethod
    def _targets(found):
        rows = []
        for part, content in found:
            for figure in Results.from_json(content).figures:
                if figure.target:
                    rows.append(_target_row(part, figure.name, figure.target, figure.unit, figure.median, figure.runs))
                rows += [_target_row(part, f"{figure.name}, beside {one.other}", one.target, "times", one.median,
                                     one.ratios) for one in figure.comparisons if one.target]
        if not rows:
            return ""
        return "\n".join(["## Targets", "", "| What | Part | Target | Reached | Least to most | |",
                          "|---|---|---|---|---|---|", *rows, ""])

    def _machine(self):
        rows = [f"| {what} | {text} |" for what, text in self.content["machine"].items()]
        return "\n".join(["## Machine", "", "| | |", "|---|---|", *rows, ""])

    def _section(self, part, content):
        results = Results.from_json(content)
        measured = content["measured"]
        quick = ", a quick run: provisional" if measured["quick"] else ""
        lines = [f"## {part.TITLE}", "", inspect.cleandoc(part.__doc__), "",
                 f"<!-- not run here: minutes of load -->\n```sh\nbench/run --only {part.NAME}\n```\n",
                 f"Measured {measured['date']}, commit {measured['commit']}, load at the start {measured['load']}, "
                 f"{measured['seconds']} s{quick}.", ""]
        if results.figures:
            lines += ["| What | Unit | Median | Least to most | Runs | Compared with |", "|---|---|---|---|---|---|",
                      *map(_figure_row, results.figures), ""]
        by_name = {figure.name: figure for figure in results.figures}
        if results.bars or results.curves:
            # Not at the top: without pictures nothing is needed that the tests do without.
            from . import plots  # pylint: disable=import-outside-toplevel
        for bars in results.bars:
            plots.draw_bars(bars, by_name, self._picture(part, bars))
            lines += [f"![{bars.title}](benchmarks/{self._picture(part, bars).name})", ""]
        for curve in results.curves:
            plots.draw_curve(curve, self._picture(part, curve))
            lines += [f"![{curve.title}](benchmarks/{self._picture(part, curve).name})", ""]
        for note in results.notes:
            lines += [note, ""]
        return "\n".join(lines)

    def _picture(self, part, drawing):
        return self.folder / f"{part.NAME}-{drawing.name}.svg"


def _target_row(part, what, target, unit, median, runs):
    verdict = "reached" if target.held_by(median) else "**missed**"
    return (f"| {what} | [{part.NAME}](#{_anchor(part.TITLE)}) | {target} {unit} | {number(median)} | "
            f"{number(min(runs))} to {number(max(runs))} | {verdict} |")


def _anchor(title):
    return "".join(letter for letter in title.lower().replace(" ", "-") if letter.isalnum() or letter == "-")


def _figure_row(figure):
    least, most = figure.spread
    compared = "; ".join(f"{number(one.median)} times {one.other}" for one in figure.comparisons)
    note = f" ({figure.note})" if figure.note else ""
    return (f"| {figure.name}{note} | {figure.unit} | {number(figure.median)} | {number(least)} to {number(most)} | "
            f"{len(figure.runs)} | {compared} |")
