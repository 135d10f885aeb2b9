"""Configurations of applications: replaced, refused, failed."""

from support.plane import CONFIGURATION
from support.schema import applications as schema


def bindings(world, agent):
    """The bindings on the agent's exchange as {(queue, topic)}."""
    return {(queue, topic) for exchange, queue, topic in world.node.list_bindings() if exchange == agent.exchange}


def test_a_replacement_removes_the_old_bindings_and_makes_the_new(world):
    agent, plane = world.agent(), world.plane()
    alpha = world.attach(agent, "alpha")
    plane.configure(agent, "alpha", topics=["old.one", "kept", ("old.two", 1)])
    alpha.wait_for_state("APPLIED", ["old.one", "kept", "old.two"])
    normal, priority = agent.client_queue, agent.priority_queue
    assert bindings(world, agent) == {(normal, "old.one"), (normal, "kept"), (priority, "old.two")}

    plane.configure(agent, "alpha", topics=["kept", ("new.one", 1), "new.two"])
    alpha.wait_for_state("APPLIED", ["kept", "new.one", "new.two"])
    assert bindings(world, agent) == {(normal, "kept"), (priority, "new.one"), (normal, "new.two")}
    plane.publish(agent.exchange, "new.two", b"new")
    assert alpha.take() == [b"new"]


def test_a_topic_that_changes_its_priority_moves_to_the_other_queue(world):
    agent, plane = world.agent(), world.plane()
    alpha = world.attach(agent, "alpha")
    plane.configure(agent, "alpha", topics=["moved", "kept"])
    alpha.wait_for_state("APPLIED", ["kept", "moved"])
    plane.configure(agent, "alpha", topics=[("moved", 2), "kept", "mark"])
    alpha.wait_for_state("APPLIED", ["kept", "mark", "moved"])
    assert bindings(world, agent) == {(agent.priority_queue, "moved"), (agent.client_queue, "kept"),
                                      (agent.client_queue, "mark")}


def test_an_empty_configuration_removes_everything(world):
    agent, plane = world.agent(), world.plane()
    alpha = world.attach(agent, "alpha")
    queue = f"work.{agent.agent_id}"
    plane.configure(agent, "alpha", topics=["one", ("two", 1)], queues=[queue])
    alpha.wait_for_state("APPLIED", ["one", "two"])
    plane.configure(agent, "alpha")
    alpha.wait_for_state("APPLIED", [])
    assert bindings(world, agent) == set()
    consumers = world.node.list_consumers()
    assert queue in world.node.list_queues() and queue not in consumers, "a cancelled queue is kept, not consumed"
    assert consumers[agent.client_queue] == 1


def test_the_application_is_told_its_configuration(world):
    agent, plane = world.agent(), world.plane()
    alpha = world.attach(agent, "alpha")
    assert alpha.welcome.configuration.state == schema.Configuration.MISSING
    queue = f"work.{agent.agent_id}"
    plane.configure(agent, "alpha", topics=["two", "one"], queues=[queue])
    alpha.wait_for_state("APPLIED", ["one", "two"])
    assert list(alpha.configurations[-1].queues) == [queue]
    alpha.close()
    again = world.attach(agent, "alpha")
    assert again.welcome.configuration == alpha.configurations[-1]


def test_a_body_that_does_not_parse_leaves_the_old_configuration_in_place(world):
    agent, plane = world.agent(), world.plane()
    alpha = world.attach(agent, "alpha")
    plane.configure(agent, "alpha", topics=["old.one", "old.two"])
    alpha.wait_for_state("APPLIED", ["old.one", "old.two"])
    before = bindings(world, agent)

    plane.configure(agent, "alpha", body=b"\xff\xff this is no configuration")
    agent.wait_for_log("Unable to parse AppInitConfig from body")
    agent.wait_for_log("Bad parse for AppInit msg")
    properties, body = plane.wait_and_take(agent.dead_letter_queue, agent)
    assert (properties.type, body) == (CONFIGURATION, b"\xff\xff this is no configuration")
    assert bindings(world, agent) == before
    plane.publish(agent.exchange, "old.one", b"still here")
    assert alpha.take() == [b"still here"]


def test_an_unknown_application_is_refused_and_nothing_is_bound(world):
    agent, plane = world.agent(), world.plane()
    queue = f"work.{agent.agent_id}"
    plane.configure(agent, "stranger", topics=["a.topic"], queues=[queue])
    agent.wait_for_log("Non register app stranger")
    agent.wait_for_log("unable to unbind topics in AppInitConfig from app (stranger)")
    properties, _ = plane.wait_and_take(agent.dead_letter_queue, agent)
    assert (properties.type, properties.app_id) == (CONFIGURATION, "stranger")
    assert bindings(world, agent) == set()
    assert queue not in world.node.list_queues()


def test_a_refused_third_topic_leaves_none_of_them_bound(world):
    url, user = world.broker_user()
    agent, plane = world.agent(urls=url), world.plane()
    alpha = world.attach(agent, "alpha")
    plane.configure(agent, "alpha", topics=["old.one"])
    alpha.wait_for_state("APPLIED", ["old.one"])
    world.node.ctl("set_topic_permissions", user, agent.exchange, ".*", r"^(old|allowed)\..*")

    plane.configure(agent, "alpha", topics=["allowed.one", "allowed.two", "forbidden.three", "allowed.four"])
    agent.wait_for_log("Bind fail on app: alpha for topic: forbidden.three to queue " + agent.client_queue)
    alpha.wait_for_state("FAILED")
    assert bindings(world, agent) == set()
    assert agent.running()

    world.node.ctl("clear_topic_permissions", user, agent.exchange)
    plane.configure(agent, "alpha", topics=["allowed.one", "forbidden.three"])
    alpha.wait_for_state("APPLIED", ["allowed.one", "forbidden.three"])
    assert bindings(world, agent) == {(agent.client_queue, "allowed.one"), (agent.client_queue, "forbidden.three")}


def test_a_refused_bind_does_not_disturb_another_application(world):
    url, user = world.broker_user()
    agent, plane = world.agent(urls=url), world.plane()
    alpha, beta = world.attach(agent, "alpha"), world.attach(agent, "beta")
    plane.configure(agent, "beta", topics=["b.one"])
    beta.wait_for_state("APPLIED", ["b.one"])
    world.node.ctl("set_topic_permissions", user, agent.exchange, ".*", r"^b\..*")
    held = []
    plane.publish(agent.exchange, "b.one", b"before")
    held.append(beta.next())
    plane.configure(agent, "alpha", topics=["a.one"])
    alpha.wait_for_state("FAILED")
    plane.publish(agent.exchange, "b.one", b"after")
    held.append(beta.next())
    for delivery in held:
        beta.verdict(delivery, "done")
    assert [delivery.body for delivery in held] == [b"before", b"after"]
    assert bindings(world, agent) == {(agent.client_queue, "b.one")}


def test_a_shared_topic_stays_bound_until_its_last_user_is_gone(world):
    agent, plane = world.agent(), world.plane()
    alpha, beta = world.attach(agent, "alpha"), world.attach(agent, "beta")
    plane.configure(agent, "alpha", topics=["shared", "mine"])
    alpha.wait_for_state("APPLIED", ["mine", "shared"])
    plane.configure(agent, "beta", topics=["shared"])
    beta.wait_for_state("APPLIED", ["shared"])
    plane.configure(agent, "alpha", topics=["mine"])
    alpha.wait_for_state("APPLIED", ["mine"])
    assert bindings(world, agent) == {(agent.client_queue, "shared"), (agent.client_queue, "mine")}
    plane.publish(agent.exchange, "shared", b"for beta alone")
    assert beta.take() == [b"for beta alone"]
    assert alpha.pending() == 0
    plane.configure(agent, "beta")
    beta.wait_for_state("APPLIED", [])
    assert bindings(world, agent) == {(agent.client_queue, "mine")}


def test_a_configuration_cannot_take_the_agents_own_queue(world):
    agent, plane = world.agent(), world.plane()
    alpha = world.attach(agent, "alpha")
    plane.configure(agent, "alpha", queues=[agent.priority_queue])
    alpha.wait_for_state("FAILED")
    plane.ping(agent)
    assert world.node.list_consumers()[agent.priority_queue] == 1


def test_configurations_survive_a_restart_of_the_agent(world):
    agent, plane = world.agent(), world.plane()
    alpha = world.attach(agent, "alpha")
    plane.configure(agent, "alpha", topics=["a.one", ("a.two", 1)])
    alpha.wait_for_state("APPLIED", ["a.one", "a.two"])
    before = bindings(world, agent)
    alpha.close()
    assert agent.stop() == 0
    plane.publish(agent.exchange, "a.one", b"while away")
    agent.start()
    alpha = world.attach(agent, "alpha")
    assert alpha.take() == [b"while away"]
    assert bindings(world, agent) == before
