"""Applications that are killed, stalled, or both under load, with agent and broker left alone: order has to hold."""

import time

from .scene import Violation

RATE = 450
INSTANCES = {"alpha": 1, "beta": 1}
SYNC_REQUESTS = True
TIMES = 40
FATES = ("killed", "stalled", "stalled, then killed")
LONGEST = 4.0
SHORT = 0.4


def populate(scene):
    """The load: beta, which is struck, by both client queues; alpha, which may not notice."""
    client, priority = scene.agent.client_queue, scene.agent.priority_queue
    scene.plane.configure("beta", ["beta.normal", ("beta.urgent", 1)])
    scene.plane.configure("alpha", ["alpha.normal"])
    scene.wait_for_bindings()
    scene.load([
        scene.destination("beta.normal", {"beta": client}),
        scene.destination("beta.urgent", {"beta": priority}),
        scene.destination("alpha.normal", {"alpha": client}),
    ], RATE)
    scene.wait_for_flow()


class Absence:
    """Strikes beta's instance again and again; each first delivery has to come in order all the same."""

    def __init__(self, scene, random, say):
        self._scene = scene
        self._random = random
        self._say = say
        self._instance = scene.applications["beta"].instances[0]

    def run(self):
        swapped = 0
        for _ in range(TIMES):
            before = self._scene.ledger.swaps["beta"]
            fate = self._random.choice(FATES)
            self._strike(fate)
            self._scene.wait_for_deliveries()
            swaps = self._scene.ledger.swaps["beta"] - before
            swapped += swaps > 0
            self._say(f"{fate}: {swaps} first deliveries out of order")
        if swapped or self._scene.ledger.swaps["alpha"] or self._scene.ledger.duplicates["alpha"]:
            raise Violation(f"out of order after {swapped} of {TIMES} strikes at beta; swaps "
                            f"{self._scene.ledger.swaps}, duplicates {self._scene.ledger.duplicates}")

    def _strike(self, fate):
        # Short and long in turn: within what the agent takes in hand, and beyond it.
        longest = self._random.choice((SHORT, LONGEST))
        time.sleep(self._random.uniform(0.0, SHORT))
        if fate == "stalled":
            self._instance.stall()
            time.sleep(self._random.uniform(0.0, longest))
            self._instance.go_on()
            return
        if fate != "killed":
            self._instance.stall()
            time.sleep(self._random.uniform(0.0, longest))
        self._scene.kill_instance(self._instance)
        time.sleep(self._random.uniform(0.0, longest if fate == "killed" else SHORT))
        self._instance.start()
