"""Numbered messages on every kind of road while the agent, its applications and its broker are killed at random."""

import time

from .scene import Violation

RATE = 500
QUIET_SECONDS = 10
INSTANCES = {"alpha": 1, "beta": 1, "gamma": 2, "delta": 1}
SYNC_REQUESTS = True
IN_ORDER = [name for name, count in INSTANCES.items() if count == 1]
KEPT = ["delta.kept", ("delta.urgent", 1)]
CHURN_POOL = 30
CHURN_SIZE = 10
ACTIONS = {"agent": 30, "agent stopped": 10, "application": 20, "stalled application": 17, "broker": 8,
           "agent and broker": 7, "all": 8}
AGAIN = 0.35


def populate(scene):
    """Configures the applications and starts the load: every kind of road, and topics that applications share."""
    client, priority = scene.agent.client_queue, scene.agent.priority_queue
    work = "work.chaos"
    scene.plane.configure("alpha", ["alpha.normal", ("alpha.priority", 1), "shared.same", "shared.mixed"])
    scene.plane.configure("beta", ["beta.normal", "shared.same", ("shared.mixed", 1), "wild.one.*"])
    scene.plane.configure("gamma", ["gamma.normal", "wild.#"], [work])
    scene.plane.configure("delta", KEPT)
    scene.wait_for_bindings()
    scene.wait_for_queue(work)
    scene.load([
        scene.destination("alpha.normal", {"alpha": client}),
        scene.destination("alpha.priority", {"alpha": priority}),
        scene.destination("beta.normal", {"beta": client}),
        scene.destination("gamma.normal", {"gamma": client}),
        scene.destination("shared.same", {"alpha": client, "beta": client}),
        scene.destination("shared.mixed", {"alpha": client, "beta": priority}),
        scene.destination("wild.one.two", {"beta": client, "gamma": client}),
        scene.destination("wild.deep.er.still", {"gamma": client}),
        scene.destination("work queue", {"gamma": work}, routing_key=work, exchange=""),
        scene.destination("by app-id", {"delta": client}, routing_key=client, exchange="", app_id="delta"),
        scene.destination("delta.kept", {"delta": client}),
        scene.destination("delta.urgent", {"delta": priority}),
    ], RATE)


def check_undisturbed(scene):
    """Without a fault every message comes once, and in order for each application, publisher and queue."""
    scene.wait_for_flow()
    time.sleep(QUIET_SECONDS)
    scene.wait_for_deliveries()
    if any(scene.ledger.duplicates.values()):
        raise Violation(f"duplicates although nothing was disturbed: {scene.ledger.duplicates}")
    swapped = {name: scene.ledger.swaps[name] for name in IN_ORDER if scene.ledger.swaps[name]}
    if swapped:
        raise Violation(f"messages out of order although nothing was disturbed: {swapped}")


class RandomKills:
    """Kills at random moments, puts back what was killed and checks, again and again."""

    def __init__(self, scene, random, say):
        self._scene = scene
        self._random = random
        self._say = say

    def run(self, seconds):
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            self._pause(3.0)
            if self._random.random() < 0.7:
                self._reconfigure()
                self._pause(0.15)
            began = time.monotonic()
            kinds = [self._strike()]
            while self._random.random() < AGAIN:
                # Into whatever the last one has left to be put in order.
                self._pause(1.5)
                kinds.append(self._strike())
            self._scene.check_recovered()
            self._say(f"{', '.join(kinds)}: all well after {time.monotonic() - began:.1f} s")

    def _pause(self, longest):
        time.sleep(self._random.uniform(0.0, longest))

    def _reconfigure(self):
        names = self._random.sample(range(CHURN_POOL), CHURN_SIZE)
        self._scene.plane.configure(
            "delta", KEPT + [(f"delta.churn.{number}", self._random.randrange(2)) for number in names])

    def _strike(self):
        kind = self._random.choices(list(ACTIONS), list(ACTIONS.values()))[0]
        if kind == "agent":
            self._kill_agent()
        elif kind == "agent stopped":
            self._scene.stop_agent()
            self._pause(2.0)
            self._scene.agent.start()
        elif kind == "application":
            self._restart_instances(self._random.sample(self._all_instances(), self._random.randint(1, 2)))
        elif kind == "stalled application":
            self._stall_instances(self._random.sample(self._all_instances(), self._random.randint(1, 2)))
        elif kind == "broker":
            self._scene.kill_broker()
            self._pause(1.0)
            self._scene.node.start()
        elif kind == "agent and broker":
            self._kill_agent_and_broker()
        else:
            self._kill_agent_and_broker()
            self._restart_instances(self._all_instances())
        return kind

    def _kill_agent(self):
        self._scene.kill_agent()
        self._pause(2.0)
        while self._random.random() < 0.3:
            self._scene.agent.launch()
            self._pause(1.0)
            self._scene.kill_agent()
        self._scene.agent.start()

    def _kill_agent_and_broker(self):
        self._scene.kill_broker()
        self._pause(0.5)
        self._scene.kill_agent()
        self._pause(1.0)
        self._scene.agent.launch()
        self._pause(1.0)
        self._scene.node.start()
        self._scene.agent.wait_until_ready()

    def _restart_instances(self, instances):
        for instance in instances:
            self._scene.kill_instance(instance)
        self._pause(4.0)
        for instance in instances:
            instance.start()

    def _stall_instances(self, instances):
        """Leaves instances without an answer until their windows are full, perhaps with a kill on top of that."""
        for instance in instances:
            instance.stall()
        self._pause(4.0)
        if self._random.random() < 0.5:
            self._kill_agent()
        elif self._random.random() < 0.3:
            for instance in instances:
                self._scene.kill_instance(instance)
                instance.start()
            return
        for instance in instances:
            instance.go_on()

    def _all_instances(self):
        return [instance for application in self._scene.applications.values() for instance in application.instances]
