"""A large configuration and a full queue make nobody else wait. What came first is told by events, not by clocks."""

import pika
import pika.exceptions
import pytest

CLASSIC = {"broker": {"queue_type": "classic"}}
MANY = 20_000


def is_bound(plane, agent, topic):
    """Whether the topic has a binding: the broker returns what it cannot route."""
    try:
        plane.publish(agent.exchange, topic, b"probe")
        return True
    except pika.exceptions.UnroutableError:
        return False


def publish_many(url, queue, count, **properties):
    """Publishes quickly, without waiting for each confirm; returns when the broker has all of them."""
    with pika.BlockingConnection(pika.URLParameters(url)) as connection:
        channel = connection.channel()
        channel.tx_select()
        for number in range(count):
            channel.basic_publish("", queue, str(number).encode(), pika.BasicProperties(delivery_mode=2, **properties))
        channel.tx_commit()


def test_a_large_configuration_delays_neither_pings_nor_others_nor_its_own_topics(world):
    agent, plane = world.agent(), world.plane()
    alpha, beta = world.attach(agent, "alpha"), world.attach(agent, "beta")
    kept, last = ["kept", ("urgent.kept", 1)], f"bulk.{MANY - 1}"
    work = f"work.{agent.agent_id}"
    plane.configure(agent, "alpha", kept)
    alpha.wait_for_state("APPLIED", ["kept", "urgent.kept"])
    plane.configure(agent, "beta", ["betas"], [work])
    beta.wait_for_state("APPLIED", ["betas"])

    bulk = [f"bulk.{number}" for number in range(MANY)]
    plane.configure(agent, "alpha", [*bulk, *kept])
    agent.wait_for_log("topic:bulk.20 ", patience=120)
    for number in range(20):
        plane.ping(agent)
        body = str(number).encode()
        plane.publish(agent.exchange, "betas", body)
        plane.publish("", work, body)
        plane.publish("", agent.priority_queue, body, app_id="beta")
        assert beta.take(3) == [body] * 3
        plane.publish(agent.exchange, "kept", body)
        plane.publish(agent.exchange, "urgent.kept", body)
        plane.publish(agent.exchange, f"bulk.{number}", body)
        assert alpha.take(3) == [body] * 3
    plane.publish("", agent.client_queue, b"nobody's yet")
    plane.ping(agent)
    assert plane.count(agent.dead_letter_queue) == 0, "its route may be among those that are still to come"
    assert not is_bound(plane, agent, last), "all of this was to happen before the configuration's end"

    alpha.wait_for_state("APPLIED", [*bulk, "kept", "urgent.kept"], patience=300)
    assert is_bound(plane, agent, last)
    assert alpha.take() == [b"probe"]
    _, body = plane.wait_and_take(agent.dead_letter_queue, agent)
    assert body == b"nobody's yet"
    assert plane.count(agent.dead_letter_queue) == 0


@pytest.mark.parametrize("present", [False, True])
def test_a_full_normal_queue_does_not_delay_the_priority_queue(world, present):
    agent, plane = world.agent(CLASSIC, {"alpha": {"window": 10}, "beta": {}}), world.plane()
    assert agent.stop() == 0
    publish_many(world.node.url(), agent.client_queue, MANY, app_id="alpha")
    plane.publish("", agent.client_queue, b"normal", app_id="beta")
    plane.publish("", agent.priority_queue, b"urgent", app_id="beta")

    agent.start()
    # Nobody takes alpha's messages: it is not there, or it is and answers none.
    alpha = world.attach(agent, "alpha") if present else None
    beta = world.attach(agent, "beta")
    assert beta.take(2, patience=120) == [b"urgent", b"normal"]
    if alpha:
        assert alpha.next().body == b"0"
    assert plane.count(agent.dead_letter_queue) == 0
