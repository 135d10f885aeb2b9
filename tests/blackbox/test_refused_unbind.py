"""A topic that the broker refuses to unbind: the broker's state is unknown, and the agent ends to be started afresh."""

RESTART_LINE = "Restarting the QEL due to unbind error:: "


def refuse_unbinding(world, agent, plane, user, other):
    """Revokes the right to topics of alpha's and makes the agent notice.

    An open channel remembers what its user may do. A bind that is refused closes it, so that the next request is made
    on a new channel, which asks anew.
    """
    world.node.ctl("set_topic_permissions", user, agent.exchange, ".*", r"^nothing$")
    plane.configure(agent, "beta", topics=["refused.topic"])
    other.wait_for_state("FAILED")


def test_ends_the_process_with_status_0_and_both_lines(world):
    url, user = world.broker_user()
    agent, plane = world.agent(urls=url), world.plane()
    alpha, beta = world.attach(agent, "alpha"), world.attach(agent, "beta")
    plane.configure(agent, "alpha", topics=["old.topic"])
    alpha.wait_for_state("APPLIED", ["old.topic"])
    refuse_unbinding(world, agent, plane, user, beta)

    plane.configure(agent, "alpha", topics=["new.topic"])
    assert agent.wait_for_exit() == 0
    lines = [line for line in agent.log().splitlines() if line.endswith(
        (RESTART_LINE, f"Unable to unbind topic (old.topic) from client queue ({agent.client_queue})"))]
    assert len(lines) == 2
    assert lines[0].endswith(RESTART_LINE)


def test_the_successor_starts_and_carries_the_configuration_out(world):
    url, user = world.broker_user()
    agent, plane = world.agent(urls=url), world.plane()
    alpha, beta = world.attach(agent, "alpha"), world.attach(agent, "beta")
    plane.configure(agent, "alpha", topics=["old.topic"])
    alpha.wait_for_state("APPLIED", ["old.topic"])
    refuse_unbinding(world, agent, plane, user, beta)
    plane.configure(agent, "alpha", topics=["new.topic"])
    assert agent.wait_for_exit() == 0

    world.node.ctl("clear_topic_permissions", user, agent.exchange)
    agent.start()
    alpha = world.attach(agent, "alpha")
    # The broker has the unfinished configuration still and delivers it again.
    alpha.wait_for_state("APPLIED", ["new.topic"])

    def topics():
        return {key for exchange, _, key in world.node.list_bindings() if exchange == agent.exchange}

    # Beside beta's, which comes again as well.
    agent.wait_until(lambda: "new.topic" in topics() and "old.topic" not in topics(),
                     "the old binding to be gone and the new one made")
    plane.publish(agent.exchange, "new.topic", b"through")
    assert alpha.take() == [b"through"]


def test_exits_cleanly_with_every_thread_at_work(world):
    url, user = world.broker_user()
    agent, plane = world.agent(urls=url), world.plane()
    alpha, beta = world.attach(agent, "alpha"), world.attach(agent, "beta")
    plane.configure(agent, "alpha", topics=["old.topic"])
    alpha.wait_for_state("APPLIED", ["old.topic"])
    refuse_unbinding(world, agent, plane, user, beta)
    for number in range(300):
        plane.publish("", agent.client_queue, str(number).encode(), app_id="beta")
    plane.configure(agent, "alpha", topics=["new.topic"])
    for number in range(300):
        plane.publish("", agent.client_queue, str(number).encode(), app_id="beta")
    assert agent.wait_for_exit() == 0
