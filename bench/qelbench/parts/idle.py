"""What the agent needs when nothing happens, with 50 applications known and configured and none of them attached:
processor time as a share of one core, heartbeats and the messages that the agent sends itself to see that it consumes
included, and resident memory. A turn is a start of the agent; the first seconds after it do not count.
"""

import time

from qelbench.agents import configure_all, known_applications, new_agent
from qelbench.context import cpu_seconds, resident_mib
from qelbench.results import Figure, Results, at_most

NAME = "idle"
TITLE = "Idle"
ORDER = 47

APPLICATIONS = 50
SETTLING = 3


def one_turn(bench, agent):
    """One start: (percent of a core, MiB)."""
    agent.start()
    try:
        time.sleep(SETTLING)
        before, began = cpu_seconds(agent.pid), time.monotonic()
        time.sleep(bench.pick(60, 5))
        used = cpu_seconds(agent.pid) - before
        return 100 * used / (time.monotonic() - began), resident_mib(agent.pid)
    finally:
        agent.stop()


def run(bench):
    agent = new_agent(bench, bench.scratch("idle"), "quorum", known_applications(APPLICATIONS))
    agent.start()
    configure_all(bench, agent, APPLICATIONS)
    agent.stop()
    turns = bench.interleave({"idle": lambda: one_turn(bench, agent)}, full=3)["idle"]
    return Results([Figure("idle processor time", "% of a core", [cpu for cpu, _ in turns], at_most(0.1)),
                    Figure("idle memory", "MiB", [memory for _, memory in turns], at_most(25))])
