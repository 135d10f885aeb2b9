"""The management plane pings the agent."""

from support.plane import DIRECT_REPLY_TO, PING, PING_REPLY


def test_reply_comes_to_the_reply_queue_with_type_and_correlation_id(world):
    agent, plane = world.agent(), world.plane()
    # ping() itself checks the correlation id.
    properties, _, _ = plane.ping(agent)
    assert properties.type == PING_REPLY


def test_reply_comes_by_direct_reply_to(world):
    agent, plane = world.agent(), world.plane()
    properties, _, _ = plane.ping(agent, reply_to=DIRECT_REPLY_TO)
    assert properties.type == PING_REPLY


def test_pings_one_after_the_other_are_all_answered(world):
    agent, plane = world.agent(), world.plane()
    for _ in range(20):
        plane.ping(agent)


def test_a_ping_that_nobody_waits_for_leaves_the_agent_answering(world):
    agent, plane = world.agent(), world.plane()
    plane.publish("", agent.client_queue, type=PING, reply_to="no.such.queue", correlation_id="x")
    plane.publish("", agent.client_queue, type=PING)
    plane.ping(agent)
    assert agent.running()


def test_a_ping_is_answered_while_an_application_does_not_answer(world):
    agent, plane = world.agent(applications={"alpha": {"window": 5}}), world.plane()
    stuck = world.attach(agent, "alpha")
    for number in range(50):
        plane.publish("", agent.client_queue, str(number).encode(), app_id="alpha")
    stuck.next()
    plane.ping(agent)
