"""A private RabbitMQ cluster, each node on a host of its own in a private network."""

import os

from .rabbitnode import RabbitNode

EPMD_PORT, DIST_PORT, CTL_PORT, TLS_PORT, AMQP_PORT = 4369, 25672, 35672, 5671, 5672
CONFIGURATION = """
cluster_formation.peer_discovery_backend = classic_config
cluster_formation.classic_config.nodes.1 = rabbit@broker-1
cluster_formation.classic_config.nodes.2 = rabbit@broker-2
cluster_formation.classic_config.nodes.3 = rabbit@broker-3
cluster_partition_handling = pause_minority
net_ticktime = 10
queue_leader_locator = balanced
"""


class ClusterNode(RabbitNode):
    """A node of a RabbitCluster: a RabbitNode with the ports that RabbitMQ has everywhere, on its own host."""

    def __init__(self, folder, host, cookie, config_lines):
        super().__init__(folder, config_lines=config_lines)
        self.host = host
        self.address = host.address
        self.name = f"rabbit@{host.address}"
        self._cookie = cookie
        self._choose_ports()

    def _placed(self, command):
        return self.host.command(command)

    def _choose_ports(self):
        super()._choose_ports()
        self._environment["RABBITMQ_USE_LONGNAME"] = "true"

    def _free_ports(self, count):
        # Nobody else is on this host.
        assert count == 5
        return [EPMD_PORT, DIST_PORT, CTL_PORT, TLS_PORT, AMQP_PORT]


class RabbitCluster:
    """Three RabbitMQ nodes, each on a host of its own in a private network, which form a cluster.

    with PrivateNetwork() as network, RabbitCluster("/tmp/x", network) as cluster:
        pika.BlockingConnection(pika.URLParameters(cluster.nodes[0].url()))

    configuration  lines for rabbitmq.conf, in which the hosts are called broker-1, broker-2 and broker-3
    For the nodes everything holds that RabbitNode says.
    """

    def __init__(self, folder, network, configuration=CONFIGURATION):
        self.hosts = {f"broker-{number}": network.add_host() for number in (1, 2, 3)}
        lines = ["loopback_users = none", *self.with_addresses(configuration).splitlines()]
        cookie = os.urandom(16).hex()
        self.nodes = [ClusterNode(f"{folder}/{number}", host, cookie, lines)
                      for number, host in enumerate(self.hosts.values(), 1)]

    def with_addresses(self, text):
        """The text with the hosts' names replaced by their addresses."""
        for name, host in self.hosts.items():
            text = text.replace(name, host.address)
        return text

    def __enter__(self):
        try:
            self.start()
        except BaseException:
            self.stop()
            raise
        return self

    def __exit__(self, *_):
        self.stop()

    def start(self, patience=120.0):
        """Starts the nodes that are down, side by side: after a crash of all each waits for the others."""
        down = [node for node in self.nodes if node.pid is None]
        for node in down:
            node.launch()
        for node in down:
            node.wait_until_up(patience)

    def stop(self):
        """Ends every node. What they know is for the bin, so they are killed."""
        for node in self.nodes:
            node.kill()

    def urls(self):
        return [node.url() for node in self.nodes]
