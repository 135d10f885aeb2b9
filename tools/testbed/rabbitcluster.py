"""A private RabbitMQ cluster, each node on a host of its own in a private network."""

import os

from .rabbitnode import RabbitNode

EPMD_PORT, DIST_PORT, CTL_PORT, TLS_PORT, AMQP_PORT = 4369, 25672, 35672, 5671, 5672


class ClusterNode(RabbitNode):
    """A node of a RabbitCluster: a RabbitNode with the ports that RabbitMQ has everywhere, on its own host."""

    def __init__(self, folder, host, cookie, config_lines, net_ticktime):
        super().__init__(folder, config_lines=config_lines)
        self.host = host
        self.address = host.address
        self.name = f"rabbit@{host.address}"
        self._cookie = cookie
        self._net_ticktime = net_ticktime
        self._choose_ports()

    def _placed(self, command):
        return self.host.command(command)

    def _choose_ports(self):
        super()._choose_ports()
        self._environment["RABBITMQ_USE_LONGNAME"] = "true"
        self._environment["RABBITMQ_SERVER_ADDITIONAL_ERL_ARGS"] += f" -kernel net_ticktime {self._net_ticktime}"

    def _free_ports(self, count):
        # Nobody else is on this host.
        assert count == 5
        return [EPMD_PORT, DIST_PORT, CTL_PORT, TLS_PORT, AMQP_PORT]


class RabbitCluster:
    """RabbitMQ nodes that form a cluster, on hosts of a private network.

    with PrivateNetwork() as network, RabbitCluster("/tmp/x", network) as cluster:
        pika.BlockingConnection(pika.URLParameters(cluster.nodes[0].url()))

    For the nodes everything holds that RabbitNode says. Nodes that lose sight of the majority pause.
    """

    def __init__(self, folder, network, size=3, net_ticktime=10):
        hosts = [network.add_host() for _ in range(size)]
        lines = ["cluster_formation.peer_discovery_backend = classic_config",
                 *(f"cluster_formation.classic_config.nodes.{number} = rabbit@{host.address}"
                   for number, host in enumerate(hosts, 1)),
                 "cluster_partition_handling = pause_minority",
                 "loopback_users = none"]
        cookie = os.urandom(16).hex()
        self.nodes = [ClusterNode(f"{folder}/{number}", host, cookie, lines, net_ticktime)
                      for number, host in enumerate(hosts, 1)]

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
