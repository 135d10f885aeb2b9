"""The network loses packets at random, or has little room; TCP carries on.

The invariant of every row: what the broker has confirmed arrives, what the agent has confirmed is on the broker, the
queues end empty, and SIGTERM ends the agent in order, also while the fault lasts. The figures are the longest gap between
two deliveries and the connections that the fault has cost.
"""

import signal
import time

import pytest

from support import figures
from support.load import Load

LOST = "qel: (Publishing c|C)onnection to the broker .* ended"
LOSSY_SECONDS = 8


# 10 %: longest gap 0.7 s. 40 %: longest gap 3.5 s. No connection lost.
@pytest.mark.parametrize("percent", [10, 40])
def test_random_loss(distant_world, distant_host, percent):
    agent = distant_world.agent({"broker": {"heartbeat_seconds": 5}})
    with Load(distant_world, agent, "alpha") as load:
        distant_host.lose(percent)
        time.sleep(LOSSY_SECONDS)
        dropped = {direction: distant_host.dropped(direction) for direction in ("to_agent", "to_broker")}
        distant_host.mend()
        load.wait_for_flow()
        result = load.finish()
    assert min(dropped.values()) > 0
    figures.note(f"{percent} % of the packets lost for {LOSSY_SECONDS} s, heartbeat 5 s",
                 f"{sum(dropped.values())} dropped, connections lost {len(agent.log_lines(LOST))}; {result}")
    assert agent.stop() == 0


# Ended after 1.2 s.
def test_sigterm_while_half_of_the_packets_are_lost(distant_world, distant_host):
    agent = distant_world.agent()
    with Load(distant_world, agent, "alpha"):
        distant_host.lose(50)
        agent.signal(signal.SIGTERM)
        began = time.monotonic()
        assert agent.wait_for_exit() == 0
        took = time.monotonic() - began
    figures.note("SIGTERM while 50 % of the packets are lost", f"ended after {took:.1f} s")


# A backlog that takes far longer to transfer than the broker's answers may take: the agent has to tell a slow line from a
# broker that does not answer.
def test_little_room_and_a_backlog(distant_world, distant_host):
    agent = distant_world.agent({"broker": {"heartbeat_seconds": 2}})
    alpha, plane = distant_world.attach(agent, "alpha"), distant_world.plane()
    topics = [f"slow.{number}" for number in range(100)]
    plane.configure(agent, "alpha", topics=topics)
    alpha.wait_for_state("APPLIED", topics)
    assert agent.stop() == 0
    bodies = [f"{number:04}".encode() * 1000 for number in range(60)]
    for body in bodies:
        plane.publish(agent.exchange, topics[0], body)
    plane.close()

    before = len(agent.log())
    distant_host.limit_rate(256)
    began = time.monotonic()
    agent.launch()
    agent.wait_until(agent.socket("alpha").exists, "the application's socket")
    successor = distant_world.attach(agent, "alpha")
    missing = set(bodies)
    while missing:
        missing -= set(successor.take(patience=90))
    took = time.monotonic() - began
    agent.wait_for_log("qel-agent is ready", start=before)
    plane = distant_world.plane()
    figures.note("256 kbit/s and a backlog of 0.24 MB, heartbeat 2 s",
                 f"everything after {took:.1f} s, connections lost "
                 f"{len(agent.log_lines(LOST))}, duplicates {successor.pending()}")
    assert plane.count(agent.dead_letter_queue) == 0
    assert agent.stop() == 0
