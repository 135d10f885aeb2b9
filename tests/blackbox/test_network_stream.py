"""Something between agent and broker holds bytes back, takes them apart, or ends connections as it likes.

The invariant of every row: what the broker has confirmed arrives, what the agent has confirmed is on the broker, the
queues end empty, and SIGTERM ends the agent in order. Both of the agent's connections go through the proxy.
"""

import random
import time

import pytest

from support import figures
from support.load import Load
from support.proxy import DIRECTIONS, Fate, FaultProxy

LOST = "qel: Connection to the broker .* ended"


@pytest.fixture
def proxy(node):
    with FaultProxy(node.port) as made:
        yield made


def start_agent(world, proxy, heartbeat=10):
    return world.agent({"broker": {"heartbeat_seconds": heartbeat}}, urls=world.node.url(port=proxy.port))


# No connection lost; a ping takes 0.9 s, the longest gap is 0.8 s.
def test_delay_and_jitter(world, proxy):
    for weather in proxy.weather.values():
        weather.latency, weather.jitter = 0.2, 0.3
    agent = start_agent(world, proxy, heartbeat=2)
    with Load(world, agent, "alpha") as load:
        _, _, ping = world.plane().ping(agent)
        load.wait_for_flow(count=200)
        result = load.finish()
    assert not agent.log_lines(LOST)
    figures.note("200 ms delay and up to 300 ms jitter each way", f"a ping takes {ping:.2f} s; {result}")
    assert agent.stop() == 0


# No connection lost; some 16,000 packets, longest gap 0.2 s.
def test_one_byte_at_a_time(world, proxy):
    for weather in proxy.weather.values():
        weather.slice = 1
    agent = start_agent(world, proxy, heartbeat=2)
    with Load(world, agent, "alpha", rate=20) as load:
        load.wait_for_flow(count=100)
        result = load.finish()
    assert not agent.log_lines(LOST)
    assert proxy.weather["to_agent"].packets > 10_000
    figures.note("one byte a packet", f"{proxy.weather['to_agent'].packets} packets to the agent; {result}")
    assert agent.stop() == 0


# The side that gets the end answers it; messages again after 0.5 to 1.5 s, the first wait.
@pytest.mark.parametrize("direction", DIRECTIONS)
def test_one_half_is_closed(world, proxy, direction):
    agent = start_agent(world, proxy)
    with Load(world, agent, "alpha") as load:
        assert proxy.strike(Fate("close", direction)) == 2
        struck = time.monotonic()
        agent.wait_until(lambda: agent.log_lines(LOST), "the agent to notice")
        load.wait_for_flow()
        back = time.monotonic() - struck
        result = load.finish()
    figures.note(f"half-open close {direction}", f"flow after {back:.1f} s; {result}")
    assert agent.stop() == 0


# The connection breaks in the middle of a body, and nobody says so: noticed after 4.6 s with a heartbeat of 2 s.
def test_frozen_in_the_middle_of_a_body(world, proxy):
    agent = start_agent(world, proxy, heartbeat=2)
    with Load(world, agent, "alpha") as load:
        beta = world.attach(agent, "beta")
        assert proxy.strike(Fate("freeze", "to_agent", after=500_000)) == 2
        body = random.Random(1).randbytes(1_000_000)
        world.plane().publish("", agent.client_queue, body, app_id="beta")
        agent.wait_until(lambda: proxy.fates["freeze"], "the body to be on its way")
        frozen = time.monotonic()
        agent.wait_until(lambda: agent.log_lines(LOST), "the agent to notice")
        noticed = time.monotonic() - frozen
        assert beta.take(patience=60) == [body]
        load.wait_for_flow()
        result = load.finish()
    figures.note("frozen in the middle of a body, heartbeat 2 s", f"noticed after {noticed:.1f} s; {result}")
    assert agent.stop() == 0
