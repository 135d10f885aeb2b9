"""A scene whose broker is a cluster of three nodes with quorum queues."""

import re
import subprocess

from testbed.network import PrivateNetwork
from testbed.processes import ProcessFailed, wait_until
from testbed.rabbitcluster import RabbitCluster

from .scene import PREFETCH, WINDOW, Scene
from .upstream import Upstream

# A publisher or a management plane notices a node that has gone silent in this time.
OUTSIDERS = "?heartbeat=5&socket_timeout=3&stack_timeout=5"
AGENT_HEARTBEAT_SECONDS = 5
# Published by the agent and not confirmed when a silent node is given up: sent again.
ON_THE_WAY_SECONDS = 20


class ClusterScene(Scene):
    """A Scene in a private network. The agent knows all three nodes; each publisher has one of its own.

    Faults are counted by kind in `kills`; their number in all is `faults`; `repairs` are those
    after which an operator had to help.
    """

    def __init__(self, *arguments, **options):
        super().__init__(*arguments, **options)
        self.cluster = None
        self.upstream = None
        self.faults = 0
        self.repairs = 0

    def _start_broker(self, ends):
        network = ends.enter_context(PrivateNetwork())
        self.cluster = ends.enter_context(RabbitCluster(self.folder / "cluster", network))
        self.node = self.cluster.nodes[0]
        return self.cluster.urls(), {"heartbeat_seconds": AGENT_HEARTBEAT_SECONDS}

    def _outsiders_urls(self):
        return [url + OUTSIDERS for url in self.cluster.urls()]

    def publish_upstream(self, application, rate, destinations):
        """Lets an application publish through the agent, too, at `rate` messages a second."""
        self.upstream = Upstream(self.agent, application, "up", rate, destinations, self.ledger)
        self._upstream_rate = rate
        self._start_publisher(self.upstream)

    def duplicate_bound(self):
        """Each fault may end the agent's connection, and then also the one to the node that it has moved to."""
        of_each = 2 * (3 * PREFETCH + WINDOW) + self._upstream_rate * ON_THE_WAY_SECONDS
        return (self.faults + self.repairs) * of_each

    def leader_of(self, queue):
        """The node on which a quorum queue has its leader, as a node that is well sees it."""
        name = self.node.ctl("eval", f"ra_leaderboard:lookup_leader('%2F_{queue}').")
        return next((node for node in self.cluster.nodes if f"'{node.name}'" in name), None)

    def node_of_agent(self):
        """A node that the agent is connected to, by what the kernel knows of its sockets."""
        sockets = subprocess.run(["ss", "-Htnp", "state", "established"], capture_output=True, text=True,
                                 check=True).stdout
        for line in sockets.splitlines():
            if f"pid={self.agent.pid}," in line:
                found = [node for node in self.cluster.nodes if re.search(rf"\b{re.escape(node.address)}:", line)]
                if found:
                    return found[0]
        return None

    def wait_for_cluster(self, patience):
        """Waits until every node sees all of them, and every quorum queue has all its members.

        @return empty, or what keeps the cluster from it although the nodes reach one another
        """
        whole = {(len(self.cluster.nodes), "[]")}
        try:
            seen = wait_until(lambda: self._settled_views(whole), "the nodes to agree on who runs", patience)
        except ProcessFailed:
            return "stuck"
        if seen != whole:
            return "partitioned"
        try:
            wait_until(self._has_all_members, "the quorum queues to have all their members", patience)
        except ProcessFailed:
            return "without some members of its quorum queues"
        return ""

    def _settled_views(self, whole):
        """What the nodes see, once that is all of them, or a partition, twice in a row."""
        views = [self._views() for _ in range(2)]
        settled = views[0] == views[1] and (views[0] == whole or any(view[1] not in ("[]", "") for view in views[0]))
        return views[0] if settled else None

    def _views(self):
        """For every node the number of nodes that run for it, and those that it is partitioned from."""
        return {self._view_of(node) for node in self.cluster.nodes}

    def _view_of(self, node):
        try:
            answer = node.ctl("eval", "io:format(\"~b ~p\", [length(rabbit_nodes:all_running()), "
                                      "rabbit_node_monitor:partitions()]).").partition("\n")[0]
        except ProcessFailed:
            return 0, ""
        count, _, partitions = answer.partition(" ")
        return int(count) if count.isdigit() else 0, partitions.removesuffix("ok")

    def _has_all_members(self):
        try:
            queues = self.node.list_queues(columns=["type", "members", "online"])
        except ProcessFailed:
            return False
        return all(len(row["online"]) == len(row["members"]) for row in queues.values() if row["type"] == "quorum")
