"""What a message's size costs: a filled client queue is emptied through the agent into one application that answers at once,
and beside it by a bare consumer of the same queue that acknowledges by the hundred; 1,000 messages are sent ahead
(`broker.prefetch`). Of large bodies those are more than the applications together may hold, half of `broker.max_held_bytes`,
and the agent puts what is too much into the application's parking queue, where it comes back from: such messages travel twice.
Therefore a second agent has so small a prefetch that 16 MiB are sent ahead at the most, and a bare consumer has it, too. The
memory is the most of the whole process: bodies held, and their copies on the way.
"""

from qelbench.drain import PREFETCH, Drain
from qelbench.results import Curve, Figure, Results

NAME = "bodies"
TITLE = "Growth: bodies"
ORDER = 52

SIZES, QUICK_SIZES = (0, 256, 4096, 65536, 1 << 20, 16 << 20), (0, 65536)
MOST_MESSAGES, QUICK_MESSAGES = 30000, 3000
MOST_BYTES, QUICK_BYTES = 512 << 20, 48 << 20
FEWEST_MESSAGES = 4
MOST_AHEAD = 16 << 20
BATCH = 100
BARE, AGENT = "bare consumer", "agent"
FITTED_BARE, FITTED = "bare consumer, smaller prefetch", "agent, smaller prefetch"


def name_of(size):
    for unit, factor in (("MiB", 1 << 20), ("KiB", 1 << 10)):
        if size >= factor:
            return f"{size // factor} {unit}"
    return f"{size} bytes"


def messages_of(bench, size):
    """How many messages of this size a run has."""
    fit = bench.pick(MOST_BYTES, QUICK_BYTES) // max(size, 1)
    return max(FEWEST_MESSAGES, min(bench.pick(MOST_MESSAGES, QUICK_MESSAGES), fit))


def fitting_prefetch(size):
    """So many messages of this size are sent ahead that they never fill the agent."""
    return max(1, min(PREFETCH, MOST_AHEAD // max(size, 1)))


def ways_of(bench, size):
    """What takes turns for one size: {way: action}."""
    usual, fitted = (Drain(bench, "classic", messages_of(bench, size), size, prefetch)
                     for prefetch in (PREFETCH, fitting_prefetch(size)))
    ways = {BARE: lambda: usual.bare(BATCH), AGENT: usual.through_the_agent}
    if fitted.prefetch != PREFETCH:
        # It would wait for ever with more to acknowledge than it is given.
        batch = min(BATCH, fitted.prefetch)
        ways |= {FITTED_BARE: lambda: fitted.bare(batch), FITTED: fitted.through_the_agent}
    return ways


def add_way(results, size, way, runs):
    """One way's figures for one size: rate, processor time, and the agent's throughput, memory and parked messages."""
    text = f"{name_of(size)}, {way}"
    figures = [Figure(f"{text}: rate", "messages/s", [run["rate"] for run in runs]),
               Figure(f"{text}: processor time", "µs a message", [run["cpu"] for run in runs])]
    if way in (AGENT, FITTED):
        figures += [Figure(f"{text}: throughput", "MB/s", [run["rate"] * size / 1e6 for run in runs]),
                    Figure(f"{text}: most memory", "MiB", [run["most"] for run in runs]),
                    Figure(f"{text}: parked", "messages", [run["parked"] for run in runs])]
    return [results.add(figure) for figure in figures]


def run(bench):
    results = Results()
    curves = {kind: {way: [] for way in (BARE, AGENT, FITTED_BARE, FITTED)} for kind in ("rate", "cost", "memory")}
    for size in bench.pick(SIZES, QUICK_SIZES):
        bench.progress(f"{messages_of(bench, size)} bodies of {name_of(size)}")
        turns = bench.interleave(ways_of(bench, size), full=3)
        for way, runs in turns.items():
            figures = add_way(results, size, way, runs)
            if way in (BARE, FITTED_BARE):
                bare = figures
            else:
                for figure, beside in zip(figures, bare):
                    figure.beside(beside)
            # A logarithmic axis has no place for an empty body.
            place = max(size, 1)
            curves["rate"][way].append((place, figures[0].median))
            curves["cost"][way].append((place, figures[1].median))
            if way in (AGENT, FITTED):
                curves["memory"][way].append((place, figures[3].median))
    del curves["memory"][BARE], curves["memory"][FITTED_BARE]
    results.curves = [
        Curve("rate", "Messages a second by size", "bytes", "messages/s", curves["rate"], log_x=True, log_y=True),
        Curve("cost", "Processor time by size", "bytes", "µs a message", curves["cost"], log_x=True, log_y=True),
        Curve("memory", "The agent's memory at its most", "bytes", "MiB", curves["memory"], log_x=True)]
    return results
