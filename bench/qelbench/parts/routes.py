"""What it costs to find a message's takers as routes grow, inside of the process: the processor's time of the routing
registry's answer and of the subscriptions', for keys in random order, which is how messages come; and the memory that the
tables take for each route. Exact topics are kept in tables by key; patterns in a tree of words, of which a message follows
only the branches that fit. The steps grow with the logarithm of the routes in the registry, and hardly otherwise; what makes
large tables slow is that each step is a miss of the processor's caches, tens of nanoseconds instead of one.
"""

import itertools

from qelbench import googlebenchmark
from qelbench.results import Curve, Figure, Results

NAME = "routes"
TITLE = "Growth: routes"
ORDER = 50

PROGRAM = "bench/qel_route_growth_bench"
EXACT = {"FindRoute": "registry", "ResolveExact": "subscriptions", "FindAndResolve": "both"}
PATTERNS = {"ResolveStar": "`a.*.c`", "ResolveHash": "`a.b.#`", "ResolveInner": "`*.b.#.d`"}


def measure(bench):
    """{"Name/argument": one dictionary a run}."""
    only = bench.pick("", "/(10|1000)$|Share|Many")
    runs = [googlebenchmark.run(bench.program(PROGRAM), only, bench.pick(0.2, 0.05)) for _ in range(bench.turns(full=5))]
    for name, row in itertools.chain.from_iterable(run.items() for run in runs):
        if row["found"] != 1:
            raise RuntimeError(f"{name}: only {row['found']:.1%} of the keys had a taker")
    return {name: [run[name] for run in runs] for name in runs[0]}


def of_name(measured, name):
    """The runs of one benchmark by its argument, in order."""
    found = ((int(full.partition("/")[2]), rows) for full, rows in measured.items() if full.startswith(f"{name}/"))
    return sorted(found, key=lambda one: one[0])


def add_figures(results, measured, name, text):
    """A figure for each argument, beside the first one. Returns the curve's points."""
    figures = [(argument, results.add(Figure(text.format(f"{argument:,}"), "ns", [row["cpu"] for row in rows])))
               for argument, rows in of_name(measured, name)]
    for _, figure in figures[1:]:
        figure.beside(figures[0][1])
    return [(argument, figure.median) for argument, figure in figures]


def add_memory(results, measured, name, what):
    argument, rows = of_name(measured, name)[-1]
    results.add(Figure(f"memory of {what}, {argument:,} of them", "bytes each",
                       [row["bytes_per_route"] for row in rows]))


def run(bench):
    measured = measure(bench)
    results = Results()
    exact = {what: add_figures(results, measured, name, f"{what}, {{}} exact topics") for name, what in EXACT.items()}
    patterns = {what: add_figures(results, measured, name, f"subscriptions, {{}} patterns {what}")
                for name, what in PATTERNS.items()}
    shares = add_figures(results, measured, "ResolveShare", "subscriptions, 10,000 topics, {} in a hundred patterns")
    many = add_figures(results, measured, "ResolveForMany", "subscriptions, a topic of {} applications")
    add_memory(results, measured, "FindRoute", "the registry's routes")
    add_memory(results, measured, "ResolveExact", "exact subscriptions")
    add_memory(results, measured, "ResolveHash", "patterns `a.b.#`")
    results.curves = [
        Curve("exact", "Finding a message's takers among exact topics", "topics", "ns", exact, log_x=True),
        Curve("patterns", "Finding a message's takers among patterns", "patterns", "ns", patterns, log_x=True),
        Curve("shares", "10,000 topics, a share of them patterns", "patterns in a hundred", "ns", {"subscriptions": shares}),
        Curve("many", "A topic that several applications have", "applications", "ns", {"subscriptions": many})]
    return results
