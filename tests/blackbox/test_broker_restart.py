"""The broker goes away and comes back."""

from support import schema


def populated(world, options=None):
    """An agent on a node of its own, two configured applications."""
    node = world.own_node()
    agent, plane = world.agent(options=options), world.plane()
    alpha, beta = world.attach(agent, "alpha"), world.attach(agent, "beta")
    queue = f"work.{agent.agent_id}"
    plane.configure(agent, "alpha", topics=["a.one", ("a.two", 1)])
    plane.configure(agent, "beta", topics=["b.one"], queues=[queue])
    alpha.wait_for_state("APPLIED", ["a.one", "a.two"])
    beta.wait_for_state("APPLIED")
    plane.close()
    return node, agent, alpha, beta, queue


def wait_for_consumers(node, agent, queue):
    """The agent consumes every queue again, once."""
    wanted = {agent.client_queue: 1, agent.priority_queue: 1, queue: 1}
    agent.wait_until(lambda: wanted.items() <= node.list_consumers().items(), "the consumers to be back", 60)


def check_traffic(world, agent, alpha, beta, queue):
    """Every road is open again."""
    plane = world.plane()
    plane.ping(agent, patience=60)
    plane.publish(agent.exchange, "a.one", b"normal")
    assert alpha.take(patience=60) == [b"normal"]
    plane.publish(agent.exchange, "a.two", b"priority")
    assert alpha.take() == [b"priority"]
    plane.publish(agent.exchange, "b.one", b"topic")
    assert beta.take() == [b"topic"]
    plane.publish("", queue, b"queue")
    assert beta.take() == [b"queue"]
    plane.configure(agent, "alpha", topics=["a.three"])
    alpha.wait_for_state("APPLIED", ["a.three"])


def test_an_orderly_restart(lonely_world):
    node, agent, alpha, beta, queue = populated(lonely_world)
    bindings = node.list_bindings()
    with lonely_world.attach_qelctl(agent, "alpha") as watcher:
        watcher.wait_for(lambda line: line["event"] == "welcome" and line["broker"] == "CONNECTED", "the welcome")
        node.restart()
        for state in ("DISCONNECTED", "CONNECTED"):
            watcher.wait_for(lambda line, wanted=state: line["event"] == "broker" and line["state"] == wanted, state, 60)
    wait_for_consumers(node, agent, queue)
    alpha.wait_for_broker("CONNECTED")
    broker = schema.applications.Broker
    assert alpha.brokers[-3:] == [broker.CONNECTED, broker.DISCONNECTED, broker.CONNECTED]
    assert node.list_bindings() == bindings
    check_traffic(lonely_world, agent, alpha, beta, queue)
    assert agent.stop() == 0


def test_a_crash(lonely_world):
    # Quorum queues that have not written anything yet may come out of a broker's crash without a leader, for good.
    node, agent, alpha, beta, queue = populated(lonely_world, {"broker": {"queue_type": "classic"}})
    bindings = node.list_bindings()
    node.kill()
    node.start()
    wait_for_consumers(node, agent, queue)
    assert node.list_bindings() == bindings
    check_traffic(lonely_world, agent, alpha, beta, queue)


def test_a_broker_that_has_forgotten_everything(lonely_world):
    node, agent, alpha, beta, queue = populated(lonely_world)
    bindings = node.list_bindings()
    node.ctl("stop_app")
    node.ctl("force_reset")
    node.ctl("start_app")
    wait_for_consumers(node, agent, queue)
    agent.wait_until(lambda: node.list_bindings() == bindings, "the bindings to be made again", 60)
    check_traffic(lonely_world, agent, alpha, beta, queue)


def test_a_deleted_queue_is_made_again(lonely_world):
    node, agent, alpha, beta, queue = populated(lonely_world)
    bindings = node.list_bindings()
    node.ctl("delete_queue", agent.client_queue)
    wait_for_consumers(node, agent, queue)
    agent.wait_until(lambda: node.list_bindings() == bindings, "the bindings to be made again", 60)
    check_traffic(lonely_world, agent, alpha, beta, queue)


def test_nothing_unsettled_is_lost(lonely_world):
    node, agent, alpha, _, _ = populated(lonely_world)
    plane = lonely_world.plane()
    numbers = {str(number).encode() for number in range(200)}
    for body in numbers:
        plane.publish(agent.exchange, "a.one", body)
    plane.close()
    for _ in range(50):
        alpha.next()
    node.restart()
    seen = set()
    while seen != numbers:
        seen.update(alpha.take(patience=60))
    plane = lonely_world.plane()
    assert plane.count(agent.dead_letter_queue) == 0
