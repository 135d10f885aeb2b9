"""Nodes of a cluster that are killed, cut off, hung and stopped under load, at random or each in turn."""

import collections
import os
import signal
import time

from testbed.processes import ProcessFailed, wait_until

from .scene import RECOVERY_PATIENCE, Violation

RATE = 300
UPSTREAM_RATE = 100
INSTANCES = {"alpha": 1, "beta": 1}
SYNC_REQUESTS = True
KEPT = ["beta.normal", "shared", "from.alpha"]
CHURN_POOL = 20
CHURN_SIZE = 5
# How often each is chosen at random.
FAULTS = {"killed": 4, "bounced": 3, "upgraded": 2, "isolated": 4, "cut off from the other nodes": 4, "hung": 4,
          "two killed": 1, "all killed": 1}
# Those that the cluster survives by itself; with the longest gap that users are told to expect, in seconds.
EXPECTED = {"killed": 2.0, "bounced": 2.0, "upgraded": 2.0, "isolated": 15.0,
            "cut off from the other nodes": 15.0, "hung": 15.0}
REPAIR_PATIENCE = 60.0
# A node that starts waits so long for the tables of the others, by its default: ten times 30 s.
START_PATIENCE = 300.0
SILENT = ("isolated", "cut off from the other nodes", "hung")
# How long faults last that are noticed at once, and silent ones; the short ones outlast the heartbeats all the same.
Lengths = collections.namedtuple("Lengths", "noticed silent")
USUAL = Lengths((2.0, 8.0), (3.0, 25.0))
SHORT = Lengths((1.0, 2.0), (11.0, 13.0))


def populate(scene):
    """Configures the applications and starts the load: from outside, and by alpha through the agent."""
    client, priority = scene.agent.client_queue, scene.agent.priority_queue
    work = "work.chaos"
    scene.plane.configure("alpha", ["alpha.normal", ("alpha.urgent", 1), "shared"])
    scene.plane.configure("beta", KEPT, [work])
    scene.wait_for_bindings()
    scene.wait_for_queue(work)
    to_work = scene.destination("work queue", {"beta": work}, routing_key=work, exchange="")
    scene.load([
        scene.destination("alpha.normal", {"alpha": client}),
        scene.destination("alpha.urgent", {"alpha": priority}),
        scene.destination("beta.normal", {"beta": client}),
        scene.destination("shared", {"alpha": client, "beta": client}),
        to_work,
    ], RATE, publishers=len(scene.cluster.nodes))
    scene.publish_upstream("alpha", UPSTREAM_RATE, [scene.destination("from.alpha", {"beta": client}), to_work])
    scene.wait_for_cluster(RECOVERY_PATIENCE)
    scene.wait_for_flow()


class ClusterFaults:
    """Strikes the node with the client queue's leader, the agent's node, or any, and puts right what was done."""

    def __init__(self, scene, random, say):
        self._scene = scene
        self._random = random
        self._say = say
        self._lengths = USUAL
        self._gaps = collections.defaultdict(list)

    def each_once(self):
        """Every fault that a cluster survives, at the node with the leader, with a change of configuration."""
        self._lengths = SHORT
        for kind in EXPECTED:
            self._strike(kind, self._leader())
        self._say_figures()

    def run(self, seconds):
        """Faults at random."""
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            time.sleep(self._random.uniform(0.0, 3.0))
            kind = self._random.choices(list(FAULTS), list(FAULTS.values()))[0]
            self._strike(kind, self._random.choice((self._leader, self._leader, self._agents_node, self._any))())
        self._say_figures()

    def _leader(self):
        return wait_until(lambda: self._scene.leader_of(self._scene.agent.client_queue), "the client queue's leader",
                          RECOVERY_PATIENCE, self._scene.node.log_tail)

    def _agents_node(self):
        return wait_until(self._scene.node_of_agent, "the agent to be connected", RECOVERY_PATIENCE,
                          self._scene.agent.log_tail)

    def _any(self):
        return self._random.choice(self._scene.cluster.nodes)

    def _strike(self, kind, victim):
        scene = self._scene
        role = self._role(victim)
        scene.node = next(node for node in scene.cluster.nodes if node is not victim)
        scene.kills[kind] += 1
        scene.faults += 1
        for gaps in self._streams():
            gaps.take()
        began = time.monotonic()
        if self._random.random() < 0.5:
            self._reconfigure()
        what = f"{victim.address} {kind} ({role})"
        try:
            getattr(self, "_" + kind.replace(" ", "_"))(victim)
            undone = time.monotonic()
            repaired = self._wait_for_cluster(victim)
            scene.check_recovered()
        except Exception:
            self._say(f"{what}: did not end well")
            raise
        delivered, confirmed = [gaps.take() for gaps in self._streams()]
        self._gaps[kind].append((delivered, confirmed))
        self._say(f"{what} for {undone - began:.1f} s, all well {time.monotonic() - undone:.1f} s later{repaired}; "
                  f"longest gap of deliveries {delivered:.1f} s, of confirms through the agent {confirmed:.1f} s")
        if not scene.agent.running():
            raise Violation(f"the agent has ended\n{scene.agent.log_tail()}")

    def _wait_for_cluster(self, victim):
        """Waits until the cluster is whole again, and helps it as an operator has to.

        A node that was stopped for longer than the others believe in it goes on without having noticed, and the cluster
        stays partitioned. One that has paused may get stuck on its way back. Both need a restart; never of all nodes,
        which might bring bindings back that were taken away while the cluster was partitioned.
        """
        trouble = self._scene.wait_for_cluster(REPAIR_PATIENCE)
        if not trouble:
            return ""
        self._repair(victim)
        left = self._scene.wait_for_cluster(RECOVERY_PATIENCE)
        if left:
            raise Violation(f"the cluster stays {left}\n{victim.log_tail()}")
        return f", restarted because the cluster was {trouble}"

    def _or_repair(self, victim, start):
        """A node that loses sight of another while it starts may get stuck: that is the broker's affair, not ours."""
        try:
            start()
        except ProcessFailed as failure:
            self._say(f"{victim.address} is stuck in its start and is started again: {failure}")
            self._repair(victim)

    def _repair(self, victim):
        self._scene.repairs += 1
        victim.kill()
        victim.start(START_PATIENCE)

    def _streams(self):
        return self._scene.applications["beta"].gaps, self._scene.upstream.gaps

    def _role(self, victim):
        roles = [name for name, node in (("leader", self._leader()), ("agent's node", self._agents_node()))
                 if node is victim]
        return " and ".join(roles) or "neither leader nor agent's node"

    def _reconfigure(self):
        names = self._random.sample(range(CHURN_POOL), CHURN_SIZE)
        self._scene.plane.configure("beta", KEPT + [f"beta.churn.{number}" for number in names], ["work.chaos"])

    def _hold(self, kind):
        time.sleep(self._random.uniform(*(self._lengths.silent if kind in SILENT else self._lengths.noticed)))

    def _killed(self, victim):
        victim.kill()
        self._hold("killed")
        self._or_repair(victim, victim.start)

    def _bounced(self, victim):
        victim.ctl("stop_app")
        self._hold("bounced")
        self._or_repair(victim, lambda: victim.ctl("start_app"))

    def _upgraded(self, victim):
        """As an upgrade goes: the node hands over what it leads, sends its clients away, stops, and starts again."""
        drained = victim.tool("rabbitmq-upgrade", "drain")
        if drained.returncode != 0:
            raise Violation(f"{victim.name} could not be drained: {drained.stdout}{drained.stderr}")
        victim.stop()
        self._hold("upgraded")
        self._or_repair(victim, victim.start)

    def _isolated(self, victim):
        victim.host.isolate()
        self._hold("isolated")
        victim.host.heal()

    def _cut_off_from_the_other_nodes(self, victim):
        victim.host.drop(*(node.address for node in self._scene.cluster.nodes if node is not victim))
        self._hold("cut off from the other nodes")
        victim.host.heal()

    def _hung(self, victim):
        os.kill(victim.pid, signal.SIGSTOP)
        self._hold("hung")
        os.kill(victim.pid, signal.SIGCONT)

    def _two_killed(self, victim):
        """The majority is gone: nothing works until it is back."""
        self._kill_and_start([victim, self._scene.node])

    def _all_killed(self, _victim):
        self._kill_and_start(self._scene.cluster.nodes)

    def _kill_and_start(self, victims):
        for node in victims:
            node.kill()
        self._hold("killed")
        self._scene.cluster.start(RECOVERY_PATIENCE)

    def _say_figures(self):
        self._say("fault  times  longest gap of deliveries, of confirms through the agent  over what to expect")
        for kind, gaps in self._gaps.items():
            limit = EXPECTED.get(kind)
            over = sum(1 for pair in gaps if limit and max(pair) > limit)
            self._say(f"{kind:<28}  {len(gaps):>3}  {max(pair[0] for pair in gaps):>5.1f} s  "
                      f"{max(pair[1] for pair in gaps):>5.1f} s  "
                      + (f"{over} over {limit:.0f} s" if limit else "no bound: the majority is gone"))
