"""What a message's size costs: a filled client queue is emptied through the agent into one application that answers at once,
and beside it by a bare consumer of the same queue that acknowledges by the hundred. However large the bodies are, the agent
holds 64 MiB of them at the most (`broker.max_held_bytes`) and what is on its way to the application.
"""

from qelbench.draining import DrainedAgent
from qelbench.results import Curve, Figure, Results

NAME = "bodies"
TITLE = "Growth: bodies"
ORDER = 52

SIZES = (0, 256, 4096, 65536, 1 << 20, 16 << 20)
MOST_MESSAGES, QUICK_MESSAGES = 30000, 3000
MOST_BYTES, QUICK_BYTES = 512 << 20, 48 << 20
FEWEST_MESSAGES = 4


def name_of(size):
    for unit, factor in (("MiB", 1 << 20), ("KiB", 1 << 10)):
        if size >= factor:
            return f"{size // factor} {unit}"
    return f"{size} bytes"


def messages_of(bench, size):
    """How many messages of this size a run has."""
    fit = bench.pick(MOST_BYTES, QUICK_BYTES) // max(size, 1)
    return max(FEWEST_MESSAGES, min(bench.pick(MOST_MESSAGES, QUICK_MESSAGES), fit))


def run_size(bench, size):
    """One run by the agent and one by the bare consumer: ((rate, µs), (rate, µs), MiB at most)."""
    messages, body = messages_of(bench, size), b"x" * size
    with DrainedAgent(bench, f"bodies-{size}", 1) as drained:
        seconds, cpu, most = drained.drain(1, messages, body)
        agent = messages / seconds, 1e6 * cpu / messages
    bench.wait_for_no_connection(bench.node())
    return agent, drained.bare(messages, body), most


def add_way(results, size, name, rows, beside=()):
    """The figures of one way for one size: rate and processor time, beside those of another way when given."""
    figures = (results.add(Figure(f"{name_of(size)}, {name}: rate", "messages/s", [row[0] for row in rows])),
               results.add(Figure(f"{name_of(size)}, {name}: processor time", "µs a message",
                                  [row[1] for row in rows])))
    for figure, other in zip(figures, beside):
        figure.beside(other)
    return figures


def run(bench):
    measured = bench.interleave({size: lambda size=size: run_size(bench, size) for size in SIZES}, bench.pick(5, 1))
    results = Results()
    rates, costs, memory = {"agent": [], "bare consumer": []}, {"agent": [], "bare consumer": []}, []
    for size, runs in measured.items():
        agent, bare, most = zip(*runs)
        by_name = {"bare consumer": add_way(results, size, "bare consumer", bare)}
        by_name["agent"] = add_way(results, size, "agent", agent, by_name["bare consumer"])
        results.add(Figure(f"{name_of(size)}, agent: throughput", "MB/s", [row[0] * size / 1e6 for row in agent]))
        held = results.add(Figure(f"{name_of(size)}, agent: most memory", "MiB", list(most)))
        # A logarithmic axis has no place for an empty body.
        place = max(size, 1)
        for name, (rate, cost) in by_name.items():
            rates[name].append((place, rate.median))
            costs[name].append((place, cost.median))
        memory.append((place, held.median))
    results.curves = [
        Curve("rate", "Messages a second by size", "bytes", "messages/s", rates, log_x=True, log_y=True),
        Curve("cost", "Processor time by size", "bytes", "µs a message", costs, log_x=True, log_y=True),
        Curve("memory", "The agent's memory at its most", "bytes", "MiB", {"agent": memory}, log_x=True)]
    return results
