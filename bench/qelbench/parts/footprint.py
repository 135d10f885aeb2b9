"""What a configuration of many topics costs: times are the agent's and the broker's together, and the broker has most
of them; memory is the resident set of the whole process.
"""

import time

from support.application import GrpcApplication
from support.plane import ManagementPlane

from qelbench.agents import new_agent
from qelbench.context import resident_mib
from qelbench.results import Figure, Results

NAME = "footprint"
TITLE = "Memory and configurations"
ORDER = 54

APPLICATION = "bench"
PATIENCE = 1800


def timed(action):
    began = time.monotonic()
    action()
    return time.monotonic() - began


def one_turn(bench, topics):
    """A new agent each turn: {what: value}."""
    agent = new_agent(bench, bench.scratch("footprint"), "quorum", {APPLICATION: {}})
    found = {}
    try:
        found["start to ready, nothing configured"] = timed(agent.start)
        found["memory, nothing configured"] = resident_mib(agent.pid)
        with ManagementPlane(bench.node().url()) as plane, GrpcApplication(agent, APPLICATION) as application:
            application.wait_for_welcome()

            def configure():
                plane.configure(agent, APPLICATION, topics=[f"bench.topic.{number}" for number in range(topics)])
                application.wait_for_state("APPLIED", patience=PATIENCE)

            found[f"configuration of {topics:,} topics"] = timed(configure)
        found[f"memory, {topics:,} topics"] = resident_mib(agent.pid)
        agent.stop()
        found[f"start to ready, {topics:,} topics"] = timed(lambda: agent.start(PATIENCE))
    finally:
        agent.stop()
    return found


def run(bench):
    topics = bench.pick(10_000, 1_000)
    turns = bench.interleave({"agent": lambda: one_turn(bench, topics)}, full=3)["agent"]
    return Results([Figure(what, "MiB" if what.startswith("memory") else "s", [turn[what] for turn in turns])
                    for what in turns[0]])
