"""How soon an agent consumes again when it is restarted, with 50 applications known and configured: from the start of
the process to its word that it consumes. A part of it is the broker's handshake, so a bare consumer in C is timed in the
same turn from its start to the end of its first message; what counts is the difference.
"""

import subprocess
import time

from support.plane import ManagementPlane

from qelbench.agents import configure_all, known_applications, new_agent
from qelbench.results import Figure, Results, at_most

NAME = "restart"
TITLE = "Restart"
ORDER = 46

APPLICATIONS = 50
QUEUE = "handshake"
READY = b"qel-agent is ready"
PATIENCE = 60


def restart(bench, agent):
    """Milliseconds from the start of the process to its consuming."""
    before = agent.log_file.read_bytes().count(READY)
    began = time.monotonic()
    agent.launch()
    try:
        while agent.log_file.read_bytes().count(READY) <= before:
            if time.monotonic() > began + PATIENCE or not agent.running():
                raise RuntimeError(f"the agent is not ready{agent.log_tail()}")
            time.sleep(0.0005)
        took = 1000 * (time.monotonic() - began)
        # Not only its word.
        if not bench.node().list_consumers().get(agent.client_queue):
            raise RuntimeError(f"the agent does not consume{agent.log_tail()}")
        return took
    finally:
        agent.stop()


def handshake(bench):
    """Milliseconds that a bare consumer needs to connect and take one message."""
    with ManagementPlane(bench.node().url()) as plane:
        plane.declare_queue(QUEUE)
        plane.publish("", QUEUE)
    began = time.monotonic()
    subprocess.run([bench.program("bench/qel_bare_consumer"), bench.node().url(), QUEUE, "1"], check=True,
                   stdout=subprocess.DEVNULL, timeout=60)
    return 1000 * (time.monotonic() - began)


def run(bench):
    agent = new_agent(bench, bench.scratch("restart"), "quorum", known_applications(APPLICATIONS))
    agent.start()
    configure_all(bench, agent, APPLICATIONS)
    agent.stop()
    turns = bench.interleave({"agent": lambda: restart(bench, agent), "bare": lambda: handshake(bench)},
                             full=15, quick=5)
    return Results([
        Figure("from the start to consuming", "ms", turns["agent"]),
        Figure("a bare consumer's start, handshake and first message", "ms", turns["bare"]),
        Figure("restart beyond the handshake", "ms", [mine - its for mine, its in zip(turns["agent"], turns["bare"])],
               at_most(200))])
