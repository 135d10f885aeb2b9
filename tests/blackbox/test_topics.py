"""Topics that several applications use, wildcards that overlap, and names that no configuration may take."""

import pytest

CLASSIC = {"broker": {"queue_type": "classic"}}


def bindings(world, agent):
    """The bindings on the agent's exchange as {(queue, topic)}."""
    return {(queue, topic) for exchange, queue, topic in world.node.list_bindings() if exchange == agent.exchange}


def apply(agent, plane, application, topics=(), queues=()):
    """Configures an attached application and waits until it is told so."""
    plane.configure(agent, application.name, topics, queues)
    application.wait_for_state("APPLIED", [topic if isinstance(topic, str) else topic[0] for topic in topics])


def collect(agent, plane, *applications):
    """What each application has been given so far: a marker behind it in both queues tells that nothing follows."""
    for application in applications:
        for queue in (agent.client_queue, agent.priority_queue):
            plane.publish("", queue, b"marker", app_id=application.name)
    return [sorted(take_until_markers(application)) for application in applications]


def take_until_markers(application):
    bodies = []
    while bodies.count(b"marker") < 2:
        bodies += application.take()
    return [body for body in bodies if body != b"marker"]


@pytest.mark.parametrize("priority", [0, 1])
def test_a_shared_topic_outlives_one_of_its_users(world, priority):
    agent, plane = world.agent(), world.plane()
    alpha, beta = world.attach(agent, "alpha"), world.attach(agent, "beta")
    normal, urgent = agent.client_queue, agent.priority_queue
    betas_queue = urgent if priority else normal
    apply(agent, plane, alpha, ["shared", "alphas"])
    apply(agent, plane, beta, [("shared", priority), "betas"])
    assert bindings(world, agent) == {(normal, "shared"), (betas_queue, "shared"), (normal, "alphas"),
                                      (normal, "betas")}
    plane.publish(agent.exchange, "shared", b"1")
    assert collect(agent, plane, alpha, beta) == [[b"1"], [b"1"]]

    apply(agent, plane, alpha, ["shared", "others"])
    plane.publish(agent.exchange, "shared", b"2")
    assert collect(agent, plane, alpha, beta) == [[b"2"], [b"2"]]

    apply(agent, plane, alpha, ["others"])
    assert bindings(world, agent) == {(betas_queue, "shared"), (normal, "others"), (normal, "betas")}
    plane.publish(agent.exchange, "shared", b"3")
    assert collect(agent, plane, alpha, beta) == [[], [b"3"]]

    apply(agent, plane, beta)
    assert bindings(world, agent) == {(normal, "others")}
    assert plane.count(agent.dead_letter_queue) == 0


def test_a_shared_topic_that_one_user_moves_to_the_other_queue_and_back(world):
    agent, plane = world.agent(), world.plane()
    alpha, beta = world.attach(agent, "alpha"), world.attach(agent, "beta")
    normal, urgent = (agent.client_queue, "shared"), (agent.priority_queue, "shared")
    apply(agent, plane, alpha, ["shared"])
    apply(agent, plane, beta, ["shared"])
    # A further topic each time, so that the configurations can be told apart.
    for alphas, betas, bound in ((1, 0, {normal, urgent}), (1, 1, {urgent}), (0, 1, {normal, urgent}),
                                 (0, 0, {normal})):
        mark = f"mark.{alphas}.{betas}"
        apply(agent, plane, alpha, [("shared", alphas), mark])
        apply(agent, plane, beta, [("shared", betas), mark])
        assert bindings(world, agent) == bound | {(agent.client_queue, mark)}
        plane.publish(agent.exchange, "shared", mark.encode())
        assert collect(agent, plane, alpha, beta) == [[mark.encode()], [mark.encode()]]
    assert plane.count(agent.dead_letter_queue) == 0


def test_a_failed_configuration_leaves_the_other_user_its_topic(world):
    url, user = world.broker_user()
    agent, plane = world.agent(urls=url), world.plane()
    alpha, beta = world.attach(agent, "alpha"), world.attach(agent, "beta")
    apply(agent, plane, alpha, ["shared.one", "shared.two"])
    apply(agent, plane, beta, ["shared.one", ("shared.two", 1)])
    world.node.ctl("set_topic_permissions", user, agent.exchange, ".*", r"^shared\..*")
    plane.configure(agent, "alpha", ["shared.one", "shared.two", "forbidden"])
    alpha.wait_for_state("FAILED")
    assert bindings(world, agent) == {(agent.client_queue, "shared.one"), (agent.priority_queue, "shared.two")}
    for topic in ("shared.one", "shared.two"):
        plane.publish(agent.exchange, topic, topic.encode())
    assert collect(agent, plane, alpha, beta) == [[], [b"shared.one", b"shared.two"]]


def test_overlapping_wildcards_of_several_applications_give_each_one_copy(world):
    agent = world.agent(CLASSIC, applications=("alpha", "beta", "gamma"))
    plane = world.plane()
    alpha, beta, gamma = (world.attach(agent, name) for name in ("alpha", "beta", "gamma"))
    apply(agent, plane, alpha, ["a.*.c", "a.#", "a.b.c"])
    apply(agent, plane, beta, ["*.b.*", "#.c"])
    apply(agent, plane, gamma, ["#"])
    keys = ["a.b.c", "a.b", "a", "x", "x.b.d", "c", "a.b.c.d"]
    for key in keys:
        plane.publish(agent.exchange, key, key.encode())
    assert collect(agent, plane, alpha, beta, gamma) == [
        [b"a", b"a.b", b"a.b.c", b"a.b.c.d"], [b"a.b.c", b"c", b"x.b.d"], sorted(key.encode() for key in keys)]

    apply(agent, plane, gamma)
    apply(agent, plane, alpha, ["a.*.c"])
    assert bindings(world, agent) == {(agent.client_queue, topic) for topic in ("a.*.c", "*.b.*", "#.c")}
    plane.publish(agent.exchange, "a.b.c", b"again")
    assert collect(agent, plane, alpha, beta, gamma) == [[b"again"], [b"again"], []]
    agent.wait_until(lambda: world.node.list_queues()[agent.client_queue]["messages"] == 0, "everything to be settled")
    assert plane.count(agent.dead_letter_queue) == 0


def test_overlapping_topics_of_both_priorities_give_an_application_one_copy(world):
    agent, plane = world.agent(CLASSIC), world.plane()
    alpha, beta = world.attach(agent, "alpha"), world.attach(agent, "beta")
    apply(agent, plane, alpha, ["a.#", ("a.*", 1), "a.exact", ("*.exact", 2)])
    apply(agent, plane, beta, ["*.exact", ("a.other", 1)])
    for key in ("a.exact", "a.other", "a.b.c", "z.exact"):
        plane.publish(agent.exchange, key, key.encode())
    assert collect(agent, plane, alpha, beta) == [
        [b"a.b.c", b"a.exact", b"a.other", b"z.exact"], [b"a.exact", b"a.other", b"z.exact"]]
    for queue in (agent.client_queue, agent.priority_queue):
        agent.wait_until(lambda: world.node.list_queues()[queue]["messages"] == 0, f"{queue} to be settled")
    assert plane.count(agent.dead_letter_queue) == 0


def test_a_message_of_an_applications_queue_is_not_matched_against_the_topics_of_others(world):
    agent, plane = world.agent(), world.plane()
    alpha, beta = world.attach(agent, "alpha"), world.attach(agent, "beta")
    queue = f"work.{agent.agent_id}"
    apply(agent, plane, alpha, ["#", "work.*"])
    apply(agent, plane, beta, ["betas"], [queue])
    plane.publish("", queue, b"for beta")
    plane.publish(agent.exchange, queue, b"for alpha")
    assert collect(agent, plane, alpha, beta) == [[b"for alpha"], [b"for beta"]]


@pytest.mark.parametrize("kind, name, why", [
    ("queue", "{agent.client_queue}", "belongs to the agent"),
    ("queue", "{agent.priority_queue}", "belongs to the agent"),
    ("queue", "{agent.dead_letter_queue}", "belongs to the agent"),
    ("queue", "{agent.client_queue}.parked.beta", "belongs to the agent"),
    ("queue", "work.{agent.agent_id}", "belongs to beta"),
    ("topic", "{agent.client_queue}", "is the name of a queue of the agent's own"),
    ("topic", "{agent.priority_queue}", "is the name of a queue of the agent's own"),
    ("topic", "{agent.client_queue}.parked.beta", "is the name of a queue of the agent's own"),
])
def test_a_configuration_that_takes_somebody_elses_queue_is_refused(world, kind, name, why):
    agent, plane = world.agent(), world.plane()
    alpha, beta = world.attach(agent, "alpha"), world.attach(agent, "beta")
    work = f"work.{agent.agent_id}"
    apply(agent, plane, beta, ["betas"], [work])
    apply(agent, plane, alpha, ["before"])
    consumers = world.node.list_consumers()

    taken = name.format(agent=agent)
    topics, queues = (["fine", taken], []) if kind == "topic" else (["fine"], [taken])
    plane.configure(agent, "alpha", topics, queues)
    alpha.wait_for_state("FAILED")
    assert agent.log_lines(rf"{taken} {why}; the configuration is refused")
    assert bindings(world, agent) == {(agent.client_queue, "betas")}
    assert world.node.list_consumers() == consumers

    plane.ping(agent)
    plane.publish("", work, b"queue")
    plane.publish(agent.exchange, "betas", b"topic")
    assert collect(agent, plane, alpha, beta) == [[], [b"queue", b"topic"]]
    apply(agent, plane, alpha, ["after"])
