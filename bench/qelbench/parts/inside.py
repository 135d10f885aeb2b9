"""What a step costs inside of the agent's process, by Google Benchmark. `Callback` with its default dispatch at log
level 4 stands beside one inlined function that does the same work by hand: copies the type, locks the dispatcher,
compares with three names, dispatches with a reference of its own.
"""

from qelbench import googlebenchmark
from qelbench.results import Bars, Figure, Results, at_most

NAME = "inside"
TITLE = "Inside of the process"
ORDER = 10

PROGRAM = "bench/qel_handler_dispatch_bench"
FLOOR = "ByHand"
TARGETS = {"CallbackDefaultDispatch": at_most(1.2)}


def nanoseconds(bench):
    """One run of every benchmark of the program: {name: nanoseconds of processor time}."""
    found = googlebenchmark.run(bench.program(PROGRAM), seconds=bench.pick(0.5, 0.1))
    return {name: row["cpu"] for name, row in found.items()}


def run(bench):
    # A run of the program is a turn: it runs its benchmarks one after the other.
    turns = bench.interleave({"all": lambda: nanoseconds(bench)}, full=15, quick=5)["all"]
    figures = {name: Figure(name, "ns a call", [turn[name] for turn in turns]) for name in turns[0]}
    for name, target in TARGETS.items():
        figures[name].beside(figures[FLOOR], target)
    return Results(list(figures.values()), bars=[Bars("calls", "One call", list(figures))])
