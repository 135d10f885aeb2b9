"""Fixtures of the black-box tests: one RabbitMQ node a run, and a world of its own for each test.

Whatever a world has started is ended after its test; what the agents have logged is printed then and shown by pytest
when the test has failed.
"""

import contextlib
import pathlib
import sys
import tempfile
import uuid

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path[:0] = [str(ROOT / "tools"), str(ROOT / "tests")]

from support.agent import AgentProcess  # noqa: E402
from support.application import AttachedApp, GrpcApplication  # noqa: E402
from support.plane import ManagementPlane  # noqa: E402
from testbed.rabbitnode import RabbitNode  # noqa: E402


class World:
    """A test's own agents, planes and applications, under names that no other test uses."""

    def __init__(self, folder, node):
        self.node = node
        self.folder = pathlib.Path(folder)
        self._ends = contextlib.ExitStack()
        self._agents = []

    def agent(self, options=None, applications=("alpha", "beta"), urls=None, start=True):
        """An agent with these applications' drop-ins (names, or a dictionary of their keys); started and ready."""
        drop_ins = applications if isinstance(applications, dict) else {name: {} for name in applications}
        agent_id = "t" + uuid.uuid4().hex[:8]
        agent = AgentProcess(self.folder / agent_id, agent_id, urls or self.node.url(), options, drop_ins)
        self._ends.callback(agent.stop)
        self._agents.append(agent)
        if start:
            agent.start()
        return agent

    def plane(self, url=None):
        return self._ends.enter_context(ManagementPlane(url or self.node.url()))

    def attach(self, agent, name, **options):
        """An application attached through gRPC and welcomed."""
        return self._ends.enter_context(GrpcApplication(agent, name, **options)).wait_for_welcome()

    def attach_qelctl(self, agent, name, *options):
        return self._ends.enter_context(AttachedApp(agent, name, *options))

    def broker_user(self):
        """A fresh broker user who may do everything; the AMQP URL and the name."""
        name = "u" + uuid.uuid4().hex[:8]
        self.node.ctl("add_user", name, "secret")
        self.node.ctl("set_permissions", name, ".*", ".*", ".*")
        return self.node.url(user=name, password="secret"), name

    def own_node(self, **options):
        """A RabbitMQ node for this test alone, to be stopped and killed at will."""
        self.node = self._ends.enter_context(RabbitNode(self.folder / "rabbit", **options))
        return self.node

    def close(self):
        self._ends.close()
        for agent in self._agents:
            print(agent.log_tail(200))


@pytest.fixture(scope="session")
def session_folder():
    # Short, because the path of a socket has 107 bytes at most.
    with tempfile.TemporaryDirectory(prefix="qel-", dir="/tmp") as folder:
        yield pathlib.Path(folder)


@pytest.fixture(scope="session")
def node(session_folder):
    """The run's node, for tests that do it no harm."""
    with RabbitNode(session_folder / "rabbit") as started:
        yield started


@pytest.fixture
def world(session_folder, node):
    """A world on the run's node."""
    yield from _world(session_folder, node)


@pytest.fixture
def lonely_world(session_folder):
    """A world without a node: the test starts its own, or none."""
    yield from _world(session_folder, None)


def _world(session_folder, node):
    with tempfile.TemporaryDirectory(prefix="w", dir=session_folder) as folder:
        made = World(folder, node)
        try:
            yield made
        finally:
            made.close()
