"""A cluster made, changed and upgraded by the commands of docs/cluster.md, and an agent in it.

The cluster is made once, in a private network, and every test leaves it whole.
"""

import re
import shlex
import time
import tomllib

import pika
import pytest

from support.figures import note
from support.paths import ROOT
from testbed.network import PrivateNetwork
from testbed.processes import wait_until
from testbed.rabbitcluster import RabbitCluster

DOCUMENT = (ROOT / "docs" / "cluster.md").read_text(encoding="utf-8")
EARLIER_QUEUE = "declared.earlier"
SERVICE = {"start": lambda node: node.start(), "stop": lambda node: node.stop(), "restart": lambda node: node.restart()}


def section(title):
    """The text below a heading of the document."""
    return re.search(rf"^## {re.escape(title)}\n(.*?)(?=^## |\Z)", DOCUMENT, re.MULTILINE | re.DOTALL)[1]


def block(language, text):
    """The first block of code in this language."""
    return re.search(rf"^```{language}\n(.*?)^```", text, re.MULTILINE | re.DOTALL)[1]


def follow(cluster, text):
    """Carries out the commands that the text shows, each on the node that the prompt names."""
    commands = re.findall(r"^broker-([123])\$ (.*)$", text, re.MULTILINE)
    assert commands
    for number, command in commands:
        node = cluster.nodes[int(number) - 1]
        program, *arguments = shlex.split(cluster.with_addresses(command))
        if program == "systemctl":
            SERVICE[arguments[0]](node)
        elif program != "apt-get":
            done = node.tool(program, *arguments)
            assert done.returncode == 0, f"{command}: {done.stdout}{done.stderr}"


def queues_not_spread(node):
    """The quorum queues that have not three members online."""
    rows = node.list_queues(columns=["type", "members", "online"])
    return [name for name, row in rows.items() if row["type"] != "quorum" or len(row["online"]) < 3]


def wait_until_spread(cluster):
    wait_until(lambda: not queues_not_spread(cluster.nodes[0]), "three members of each queue", 60)


@pytest.fixture(scope="module")
def cluster(session_folder):
    """Three nodes that became a cluster as the document says, the first of them with a queue that was there before."""
    text = section("From one node to three")
    with PrivateNetwork() as network, \
            RabbitCluster(session_folder / "cluster", network, block("ini", text)) as made:
        with pika.BlockingConnection(pika.URLParameters(made.nodes[0].url())) as connection:
            connection.channel().queue_declare(EARLIER_QUEUE, durable=True, arguments={"x-queue-type": "quorum"})
        follow(made, text)
        yield made


@pytest.fixture
def agent(lonely_world, cluster):
    """An agent in the cluster, configured as the document says, connected to the second node first."""
    keys = tomllib.loads(block("toml", section("The agent's configuration")))["broker"]
    assert len(keys.pop("urls")) == 3
    first, second, third = cluster.urls()
    return lonely_world.agent(urls=[second, third, first], options={"broker": keys})


def test_a_queue_that_was_there_before_gets_members_on_the_new_nodes(cluster):
    assert EARLIER_QUEUE not in queues_not_spread(cluster.nodes[0])


def test_an_upgrade_of_a_node_costs_no_message(lonely_world, cluster, agent):
    alpha = lonely_world.attach(agent, "alpha")
    with lonely_world.plane(cluster.nodes[2].url()) as plane:
        plane.configure(agent, "alpha", topics=["a.topic"])
        alpha.wait_for_state("APPLIED", ["a.topic"])
        plane.publish(agent.exchange, "a.topic", b"before")
    follow(cluster, section("Upgrading"))
    with lonely_world.plane(cluster.nodes[2].url()) as plane:
        plane.publish(agent.exchange, "a.topic", b"after")
    assert set(alpha.take(2, patience=60)) == {b"before", b"after"}
    wait_until_spread(cluster)


def test_the_commands_for_trouble_work(cluster, agent):
    follow(cluster, section("What to watch"))
    for command in re.findall(r"`(rabbitmq[a-z-]* [a-z_ ]+)`", section("What to watch")):
        assert cluster.nodes[0].tool(*shlex.split(command)).returncode == 0, command
    wait_until_spread(cluster)


def test_a_queue_whose_leader_was_killed_this_moment_takes_messages_while_its_node_is_down(
        lonely_world, cluster, agent):
    """The channel's first message for the queue meets it without a leader: such a channel would nack until the end."""
    alpha, victim = lonely_world.attach(agent, "alpha"), cluster.nodes[0]
    with lonely_world.plane(victim.url()) as plane:
        plane.declare_queue("leader.elsewhere", **{"x-queue-type": "quorum", "x-queue-leader-locator": "client-local"})
        plane.declare_queue("another", **{"x-queue-type": "quorum"})
    alpha.publish("", "another", b"opens the connection for publishing")
    victim.kill()
    began = time.monotonic()
    alpha.publish("", "leader.elsewhere", b"now", patience=60.0)
    note("a queue whose leader was just killed", f"confirmed after {time.monotonic() - began:.1f} s, "
         f"{len(agent.log_lines('trying a new channel'))} new channels")
    victim.start()
    wait_until_spread(cluster)
