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

WHERE_THE_REST_GOES = """By hand, November 2026, with `perf record` and counts of each thread's switches, on a virtual machine
of 4 cores: what is left of the agent's processor time is mostly wake-ups, which cost 10 to 25 µs each there, and most of those
are between the two threads that poll for gRPC 1.51's callback server: at least two, which hand each event to one another. With
one (tried by exchanging that function of the library) a message of a quorum queue cost 4.3 µs instead of 6.1, and the rate was
0.98 instead of 0.83 of the batching consumer's; that of a classic queue, which is one process of the broker, stayed what it
was. The library has no setting for it. Its other server interface has, for the price of one server for all applications: no
memory of its own for each of them any more, and a connection's application to be told by the number of a descriptor. There we
stopped. Larger batches of acknowledgements (200, or 1 to 3 ms), of deliveries (256), and longer rests between reads (0.5 and
0.6 ms) made no difference that could be told from noise."""


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
    results = Results(notes=bench.pick([WHERE_THE_REST_GOES], []))
    for queue_type in bench.pick(("classic", "quorum"), ("classic",)):
        of_queue_type(bench, queue_type, results)
    return results
