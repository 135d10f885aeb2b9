"""SIGTERM: status 0, nothing lost, nothing dead-lettered because of it."""

import signal
import threading

import pytest


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
def test_idle(world, number):
    agent, plane = world.agent(), world.plane()
    world.attach(agent, "alpha")
    agent.signal(number)
    assert agent.wait_for_exit() == 0
    assert plane.count(agent.dead_letter_queue) == 0
    assert agent.client_queue not in world.node.list_consumers()


def test_before_the_broker_could_be_reached(lonely_world):
    node = lonely_world.own_node()
    node.stop()
    agent = lonely_world.agent(start=False)
    agent.launch()
    agent.wait_for_log(str(node.port))
    agent.signal(signal.SIGTERM)
    assert agent.wait_for_exit() == 0


def test_under_load(world):
    agent, plane = world.agent(), world.plane()
    alpha = world.attach(agent, "alpha")
    plane.configure(agent, "alpha", topics=["a.one"])
    alpha.wait_for_state("APPLIED", ["a.one"])
    total = 3000
    publisher = threading.Thread(target=publish_numbers, args=(world.node.url(), agent.exchange, total))
    publisher.start()
    seen = [int(body) for body in alpha.take(500)]
    agent.signal(signal.SIGTERM)
    assert agent.wait_for_exit() == 0
    publisher.join(120)
    assert not publisher.is_alive()
    # What was on its way to the application when the agent left was never answered.
    assert plane.count(agent.dead_letter_queue) == 0

    agent.start()
    successor = world.attach(agent, "alpha")
    missing = set(range(total)) - set(seen)
    while missing:
        missing -= {int(body) for body in successor.take()}
    assert plane.count(agent.dead_letter_queue) == 0


def publish_numbers(url, exchange, total):
    from support.plane import ManagementPlane
    with ManagementPlane(url) as plane:
        for number in range(total):
            plane.publish(exchange, "a.one", str(number).encode())


def test_with_an_application_that_never_answers(world):
    agent, plane = world.agent(applications={"alpha": {"window": 10}}), world.plane()
    alpha = world.attach(agent, "alpha")
    for number in range(30):
        plane.publish("", agent.client_queue, str(number).encode(), app_id="alpha")
    alpha.next()
    agent.signal(signal.SIGTERM)
    assert agent.wait_for_exit() == 0
    agent.start()
    successor = world.attach(agent, "alpha")
    seen = set()
    while seen != set(range(30)):
        seen.update(int(body) for body in successor.take())
    assert plane.count(agent.dead_letter_queue) == 0


def test_inside_a_large_configuration(world):
    agent, plane = world.agent(), world.plane()
    alpha = world.attach(agent, "alpha")
    topics = [f"bulk.{number}" for number in range(2000)]
    plane.configure(agent, "alpha", topics=topics)
    agent.wait_for_log("topic:bulk.10 ")
    agent.signal(signal.SIGTERM)
    assert agent.wait_for_exit() == 0
    agent.start()
    alpha = world.attach(agent, "alpha")
    alpha.wait_for_state("APPLIED", topics, patience=120)
    keys = {key for exchange, _, key in world.node.list_bindings() if exchange == agent.exchange}
    assert keys == set(topics)
    assert plane.count(agent.dead_letter_queue) == 0


def test_a_retried_message_keeps_its_count(world):
    agent, plane = world.agent(applications={"alpha": {"max_tries": 4}}), world.plane()
    alpha = world.attach(agent, "alpha")
    plane.publish("", agent.client_queue, b"waits for its next try", app_id="alpha")
    plane.publish("", agent.client_queue, b"is with the application", app_id="alpha")
    waiting = alpha.next()
    alpha.verdict(waiting, "retry", delay_ms=900_000)
    for tries in range(2):
        delivery = alpha.next()
        assert (delivery.body, delivery.tries) == (b"is with the application", tries)
        alpha.verdict(delivery, "retry", delay_ms=1)
    alpha.next()
    agent.signal(signal.SIGTERM)
    assert agent.wait_for_exit() == 0

    agent.start()
    alpha = world.attach(agent, "alpha")
    again = {delivery.body: delivery for delivery in (alpha.next(), alpha.next())}
    assert again[b"waits for its next try"].tries == 1
    assert again[b"is with the application"].tries == 2
    alpha.verdict(again[b"waits for its next try"], "done")
    alpha.verdict(again[b"is with the application"], "retry", delay_ms=1)
    assert alpha.next().tries == 3
    assert plane.count(agent.dead_letter_queue) == 0


@pytest.mark.parametrize("first, second", [(signal.SIGTERM, signal.SIGTERM), (signal.SIGINT, signal.SIGTERM)])
def test_a_second_signal_ends_the_process_at_once(world, first, second):
    agent, plane = world.agent(), world.plane()
    alpha = world.attach(agent, "alpha")
    plane.publish("", agent.client_queue, b"never answered", app_id="alpha")
    alpha.next()
    agent.signal(first)
    # It waits for the application's verdict now.
    agent.wait_for_log("stopping: finishing what is in hand")
    agent.signal(second)
    assert agent.wait_for_exit() == 1
    assert not agent.log_lines("qel: stopped$")

    agent.start()
    assert world.attach(agent, "alpha").take() == [b"never answered"]
    assert plane.count(agent.dead_letter_queue) == 0


def test_inside_a_replacement_of_many_topics_with_messages_for_the_kept_ones(world):
    agent, plane = world.agent(), world.plane()
    alpha = world.attach(agent, "alpha")
    kept = [f"kept.{number}" for number in range(10)]
    old = kept + [f"old.{number}" for number in range(1500)]
    plane.configure(agent, "alpha", topics=old)
    alpha.wait_for_state("APPLIED", old, patience=120)
    new = kept + [f"new.{number}" for number in range(3000)]
    plane.configure(agent, "alpha", topics=new)
    agent.wait_for_log("topic:new.10 ", patience=120)
    for topic in kept:
        plane.publish(agent.exchange, topic, topic.encode())
    agent.signal(signal.SIGTERM)
    assert agent.wait_for_exit() == 0
    assert not agent.log_lines("topic:new.2999 "), "the stop came too late to be inside"

    agent.start()
    successor = world.attach(agent, "alpha")
    successor.wait_for_state("APPLIED", new, patience=120)
    keys = {key for exchange, _, key in world.node.list_bindings() if exchange == agent.exchange}
    assert keys == set(new)
    # The first instance has answered none of them.
    missing = {topic.encode() for topic in kept}
    while missing:
        missing -= set(successor.take())
    assert plane.count(agent.dead_letter_queue) == 0
