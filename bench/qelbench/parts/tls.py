"""What TLS costs: messages of 256 bytes get from a filled quorum queue through the agent to an attached application's
*done*, over TLS and without, beside a bare consumer in C that acknowledges a hundred at a time.
"""

from qelbench.drain import Drain
from qelbench.results import Bars, Figure, Results

NAME = "tls"
TITLE = "End to end over TLS"
ORDER = 21

BATCH = 100
NAMES = {"tls": "agent, TLS", "plain": "agent, no TLS", "bare tls": "bare consumer, TLS", "bare": "bare consumer, no TLS"}


def run(bench):
    messages = bench.pick(100_000, 20_000)
    plain, secured = (Drain(bench, "quorum", messages, tls=tls) for tls in (False, True))
    turns = bench.interleave({"tls": secured.through_the_agent, "plain": plain.through_the_agent,
                              "bare tls": lambda: secured.bare(BATCH), "bare": lambda: plain.bare(BATCH)})
    results = Results()
    for what, unit, suffix in (("rate", "messages/s", ""), ("cpu", "µs a message", ", processor time")):
        figures = {way: results.add(Figure(NAMES[way] + suffix, unit, [run[what] for run in turns[way]]))
                   for way in NAMES}
        figures["tls"].beside(figures["plain"])
        figures["tls"].beside(figures["bare tls"])
        figures["bare tls"].beside(figures["bare"])
        results.bars.append(Bars(what, "quorum queue, with TLS and without", [figures[way].name for way in NAMES]))
    return results
