"""How fast persistent messages of 256 bytes get from a filled client queue through the agent to an attached
application's *done*, beside a bare consumer of the same queue, in C, that does nothing but acknowledge: each message
on its own, or a hundred at a time, since the agent batches, too. Processor time is that of the whole process.
"""

from qelbench.drain import Drain
from qelbench.results import Bars, Figure, Results, at_least, at_most

NAME = "end_to_end"
TITLE = "End to end"
ORDER = 20

BATCH = 100


def of_queue_type(bench, queue_type, results):
    drain = Drain(bench, queue_type, bench.pick(100_000, 20_000))
    turns = bench.interleave({"agent": drain.through_the_agent, "each": lambda: drain.bare(1),
                              "batching": lambda: drain.bare(BATCH)})
    names = {"agent": "agent", "each": "bare consumer, acknowledging each", "batching": "bare consumer, batching"}
    figures = {(way, what): results.add(Figure(f"{queue_type}: {names[way]}{suffix}", unit,
                                               [run[what] for run in turns[way]]))
               for what, unit, suffix in (("rate", "messages/s", ""), ("cpu", "µs a message", ", processor time"))
               for way in names}
    figures["agent", "rate"].beside(figures["each", "rate"], at_least(1.0))
    figures["agent", "rate"].beside(figures["batching", "rate"], at_least(0.95))
    figures["agent", "cpu"].beside(figures["each", "cpu"], at_most(1.5))
    results.bars += [Bars(f"{queue_type}-{what}", f"{queue_type} queue", [figures[way, what].name for way in names])
                     for what in ("rate", "cpu")]


def run(bench):
    results = Results()
    for queue_type in ("classic", "quorum"):
        of_queue_type(bench, queue_type, results)
    return results
