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
