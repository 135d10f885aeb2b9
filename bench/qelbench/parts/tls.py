"""What TLS costs: messages of 256 bytes get from a filled quorum queue (a quick run: classic) through the agent to an attached
application's *done*, over TLS and without, beside a bare consumer in C that acknowledges a hundred at a time.
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
    queue_type = bench.pick("quorum", "classic")
    plain, secured = (Drain(bench, queue_type, messages, tls=tls) for tls in (False, True))
    ways = {"tls": secured.through_the_agent, "bare tls": lambda: secured.bare(BATCH)}
    if not bench.quick:
        # That without TLS is in the part end_to_end as well.
        ways |= {"plain": plain.through_the_agent, "bare": lambda: plain.bare(BATCH)}
    turns = bench.interleave(ways)
    results = Results()
    for what, unit, suffix in (("rate", "messages/s", ""), ("cpu", "µs a message", ", processor time")):
        figures = {way: results.add(Figure(NAMES[way] + suffix, unit, [run[what] for run in turns[way]]))
                   for way in NAMES if way in turns}
        figures["tls"].beside(figures["bare tls"])
        if "plain" in ways:
            figures["tls"].beside(figures["plain"])
            figures["bare tls"].beside(figures["bare"])
        results.bars.append(Bars(what, f"{queue_type} queue, with TLS and without", [one.name for one in figures.values()]))
    return results
