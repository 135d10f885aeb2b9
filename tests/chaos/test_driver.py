"""The driver finds a loss that we bring about, and strikes where it is told to."""

import pathlib
import tempfile

import pytest

from chaos import counted_kills, report
from chaos.proxy import Strike
from chaos.scene import Scene, Violation
from testbed.processes import wait_until


@pytest.fixture
def scene():
    # Short, because the path of a socket has 107 bytes at most.
    with tempfile.TemporaryDirectory(prefix="qel-", dir="/tmp") as folder, \
            Scene(pathlib.Path(folder), counted_kills.INSTANCES) as made:
        counted_kills.populate(made)
        yield made


def test_messages_that_are_purged_from_a_queue_are_reported_as_lost(scene):
    for instance in scene.applications["beta"].instances:
        scene.kill_instance(instance)
    parked = f"{scene.agent.client_queue}.parked.beta"
    wait_until(lambda: scene.node.list_queues().get(parked, {"messages": 0})["messages"] > 100, "messages to be parked")
    scene.node.ctl("purge_queue", parked)
    scene.applications["beta"].start()
    with pytest.raises(Violation, match=r"beta: p\d:\d+ \(confirmed, to "):
        scene.wait_for_deliveries(patience=10)
    scene.pause_load()
    assert any("lost" in problem for problem in report.figures(scene)[1])


def test_a_binding_that_was_taken_away_is_reported(scene):
    scene.plane.configure("alpha", counted_kills.KEPT + ["one.more"])
    scene.wait_for_bindings()
    scene.unbind(scene.agent.client_queue, "one.more")
    with pytest.raises(Violation, match="missing.*one.more"):
        scene.wait_for_bindings(patience=5)


def test_a_strike_lets_pass_what_comes_before_it_and_nothing_else(scene):
    new = counted_kills.topics_of(1)
    strike = Strike("before", 8, scene.kill_agent)
    scene.proxy.arm(strike)
    scene.plane.configure("alpha", counted_kills.KEPT + list(new.items()))
    assert strike.fired.wait(30)
    bound = {topic for _exchange, _queue, topic in scene.node.list_bindings()}
    assert len(bound & set(new)) == 2, "5 topics are unbound, then 5 bound"
    assert not bound & set(counted_kills.topics_of(0))
