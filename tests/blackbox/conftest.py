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
from support import figures  # noqa: E402
from support.network import DistantHost  # noqa: E402
from support.mad_broker import MadBroker  # noqa: E402
from support.plane import ManagementPlane  # noqa: E402
from support.qelctl import QelctlProcess  # noqa: E402
from testbed.network import OURS, PrivateNetwork  # noqa: E402
from testbed.rabbitnode import RabbitNode  # noqa: E402

DISTANT_PORT = 5672


class World:
    """A test's own agents, planes and applications, under names that no other test uses.

    url   of the node as the agents see it
    side  where the agents run, when not here
    """

    def __init__(self, folder, node, url=None, side=None):
        self.node = node
        self.url = url or (node.url() if node else None)
        self._side = side
        self.folder = pathlib.Path(folder)
        self._ends = contextlib.ExitStack()
        self._agents = []

    def agent(self, options=None, applications=("alpha", "beta"), urls=None, start=True, side=None):
        """An agent with these applications' drop-ins (names, or a dictionary of their keys); started and ready."""
        drop_ins = applications if isinstance(applications, dict) else {name: {} for name in applications}
        agent_id = "t" + uuid.uuid4().hex[:8]
        agent = AgentProcess(self.folder / agent_id, agent_id, urls or self.url, options, drop_ins,
                             side or self._side)
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

    def qelctl_plane(self, folder, *options, url=None):
        """`qelctl plane` on the folder, taking requests."""
        plane = self._ends.enter_context(
            QelctlProcess(self.folder, "plane", folder, "--broker", url or self.node.url(), *options))
        plane.wait_for(lambda line: line["event"] == "ready", "the plane to be ready")
        return plane

    def broker_user(self):
        """A fresh broker user who may do everything; the AMQP URL and the name."""
        name = "u" + uuid.uuid4().hex[:8]
        self.node.ctl("add_user", name, "secret")
        self.node.ctl("set_permissions", name, ".*", ".*", ".*")
        return self.node.url(user=name, password="secret"), name

    def own_node(self, **options):
        """A RabbitMQ node for this test alone, to be stopped and killed at will."""
        self.node = self._ends.enter_context(RabbitNode(self.folder / "rabbit", **options))
        self.url = self.node.url()
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
def node(request, session_folder):
    """The run's node, for tests that do it no harm; what it says is printed when one has failed."""
    with RabbitNode(session_folder / "rabbit") as started:
        yield started
        if request.session.testsfailed:
            print(started.log_tail(200))


@pytest.fixture
def world(session_folder, node):
    """A world on the run's node."""
    yield from _world(session_folder, node)


@pytest.fixture(scope="module")
def battered_node(session_folder):
    """A node for the tests of a file, which do it harm and leave it running and in order."""
    with RabbitNode(session_folder / "battered") as started:
        yield started


@pytest.fixture
def battered_world(session_folder, battered_node):
    """A world on such a node."""
    yield from _world(session_folder, battered_node)


@pytest.fixture(scope="module")
def network():
    """Moves the tests of a file into a private network."""
    with PrivateNetwork() as made:
        yield made


@pytest.fixture(scope="module")
def distant_node(session_folder, network):
    """A node that listens to the private network, too."""
    lines = [f"listeners.tcp.network = {OURS}:{DISTANT_PORT}", "loopback_users = none"]
    with RabbitNode(session_folder / "distant", config_lines=lines) as started:
        yield started


@pytest.fixture(scope="module")
def the_host(network):
    return network.add_host(DistantHost)


@pytest.fixture
def distant_host(the_host):
    """The agents' host in a distant_world: its faults, which end with the test."""
    try:
        yield the_host
    finally:
        the_host.mend()


@pytest.fixture
def distant_world(session_folder, distant_node, distant_host):
    """A world whose agents run on a host of their own."""
    url = f"amqp://guest:guest@{OURS}:{DISTANT_PORT}"
    yield from _world(session_folder, distant_node, url, distant_host)


@pytest.fixture
def mad_broker():
    """A broker of our own, sane until it is told otherwise."""
    with MadBroker() as started:
        yield started


@pytest.fixture
def lonely_world(session_folder):
    """A world without a node: the test starts its own, or none."""
    yield from _world(session_folder, None)


def _world(session_folder, node, url=None, side=None):
    with tempfile.TemporaryDirectory(prefix="w", dir=session_folder) as folder:
        made = World(folder, node, url, side)
        try:
            yield made
        finally:
            made.close()


def pytest_terminal_summary(terminalreporter):
    """What the tests have measured; they assert what has to hold, not how quickly it came."""
    for line in figures.noted():
        terminalreporter.write_line(line)
