"""What a part of the benchmarks finds: figures with their spread, what they are compared with, and curves to draw.

A figure is never one run: it is the median of runs that took turns with those of what it is compared with, and a
ratio is the median of the ratios within each turn, so that a slow minute of the machine meets both sides.
"""

import dataclasses
import statistics


def percentile(values, share):
    """The value below which this share of them lies."""
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(share * len(ordered)))]


@dataclasses.dataclass(frozen=True)
class Target:
    """What a value shall be: `at_least(0.95)`, `at_most(1.5)`."""

    limit: float
    sense: str

    def held_by(self, value):
        return value >= self.limit if self.sense == "at least" else value <= self.limit

    def __str__(self):
        return f"{self.sense} {self.limit:g}"


def at_least(limit):
    return Target(limit, "at least")


def at_most(limit):
    return Target(limit, "at most")


@dataclasses.dataclass
class Comparison:
    """How a figure stands to another one of the same runs: figure / other."""

    other: str
    ratios: list
    target: Target | None = None

    @property
    def median(self):
        return statistics.median(self.ratios)


@dataclasses.dataclass
class Figure:
    """One thing measured: Figure("agent, classic", "messages/s", rates).beside(bare, at_least(1.0)).

    runs    one value a run, in the order of the runs
    target  what the median shall be; that of a ratio belongs to its comparison
    note    what a reader of the table has to know
    """

    name: str
    unit: str
    runs: list
    target: Target | None = None
    note: str = ""
    comparisons: list = dataclasses.field(default_factory=list)

    @property
    def median(self):
        return statistics.median(self.runs)

    @property
    def spread(self):
        """The least and the most of the runs."""
        return min(self.runs), max(self.runs)

    def beside(self, other, target=None):
        """Compares with another figure, run by run; returns this one."""
        if len(other.runs) != len(self.runs):
            raise ValueError(f"{self.name} and {other.name} were not run in turns")
        ratios = [mine / its for mine, its in zip(self.runs, other.runs)]
        self.comparisons.append(Comparison(other.name, ratios, target))
        return self


@dataclasses.dataclass
class Curve:
    """Lines to draw: series is {"agent": [(x, y), ...]}. The file is called after part and name."""

    name: str
    title: str
    x_label: str
    y_label: str
    series: dict
    log_x: bool = False
    log_y: bool = False


@dataclasses.dataclass
class Bars:
    """Figures of one unit to draw beside each other, by their names."""

    name: str
    title: str
    figures: list


@dataclasses.dataclass
class Results:
    """All that one part has found. `notes` are paragraphs (Markdown) that follow its tables."""

    figures: list = dataclasses.field(default_factory=list)
    curves: list = dataclasses.field(default_factory=list)
    bars: list = dataclasses.field(default_factory=list)
    notes: list = dataclasses.field(default_factory=list)

    def add(self, figure):
        self.figures.append(figure)
        return figure

    def to_json(self):
        """As results.json keeps it, with what follows from the runs for readers that are not us."""
        document = dataclasses.asdict(self)
        for figure, row in zip(self.figures, document["figures"]):
            row["median"] = figure.median
            for comparison, cell in zip(figure.comparisons, row["comparisons"]):
                cell["median"] = comparison.median
        return document

    @classmethod
    def from_json(cls, document):
        return cls([_figure(row) for row in document["figures"]],
                   [Curve(**row) for row in document["curves"]],
                   [Bars(**row) for row in document["bars"]],
                   list(document["notes"]))


def _target(row):
    return Target(**row) if row else None


def _figure(row):
    comparisons = [Comparison(cell["other"], cell["ratios"], _target(cell["target"])) for cell in row["comparisons"]]
    return Figure(row["name"], row["unit"], row["runs"], _target(row["target"]), row["note"], comparisons)
