"""A configuration that replaces 5 topics by 5 others, struck at each of its broker requests in turn."""

import os
import signal
import time

from .proxy import Strike
from .scene import Violation

RATE = 500
INSTANCES = {"alpha": 1, "beta": 1}
SYNC_REQUESTS = False
KEPT = ["alpha.kept", ("alpha.urgent", 1), "shared"]
REPLACED = 5
STEPS = 2 * REPLACED
STRIKE_PATIENCE = 60.0


def topics_of(generation):
    """The changing topics of a generation, by name their priority."""
    return {f"alpha.{generation}.{number}": number % 2 for number in range(REPLACED)}


def instants(thorough):
    """When to strike: (how, step).

    Before the first request and after each of them, the answer known to the broker alone; when thorough also before the
    next request is forwarded. The agent knows the answer then if it was to an unbind; binds are asked for together.
    """
    unknown = [("before", 1)] + [("withheld", step) for step in range(1, STEPS + 1)]
    known = [("before", step) for step in range(2, STEPS + 1)] + [("answered", STEPS)]
    return unknown + known if thorough else unknown


def populate(scene):
    """Configures the applications with the first generation and starts the load on the topics that stay."""
    client, priority = scene.agent.client_queue, scene.agent.priority_queue
    scene.plane.configure("alpha", KEPT + list(topics_of(0).items()))
    scene.plane.configure("beta", ["beta.normal", "shared"])
    scene.wait_for_bindings()
    scene.load([
        scene.destination("alpha.kept", {"alpha": client}),
        scene.destination("alpha.urgent", {"alpha": priority}),
        scene.destination("beta.normal", {"beta": client}),
        scene.destination("shared", {"alpha": client, "beta": client}),
    ], RATE)
    scene.wait_for_flow()


class CountedKills:
    """Strikes once at each instant and checks that the new configuration is in force afterwards, and only that."""

    def __init__(self, scene, say):
        self._scene = scene
        self._say = say
        self._generation = 0

    def run(self, victim, moments):
        for how, step in moments:
            began = time.monotonic()
            self._strike(victim, Strike(how, step, self._killer(victim)))
            self._say(f"{victim} killed at {how} {step}: all well after {time.monotonic() - began:.1f} s")

    def _killer(self, victim):
        pid = self._scene.agent.pid if victim == "agent" else self._scene.node.pid
        return lambda: os.kill(pid, signal.SIGKILL)

    def _strike(self, victim, strike):
        scene, old = self._scene, topics_of(self._generation)
        self._generation += 1
        new = topics_of(self._generation)
        scene.proxy.arm(strike)
        scene.plane.configure("alpha", KEPT + list(new.items()))
        if not strike.fired.wait(STRIKE_PATIENCE):
            scene.proxy.disarm()
            raise Violation(f"the configuration did not come to {strike}: {strike.requests} requests and "
                            f"{strike.answers} answers were seen\n{scene.agent.log_tail()}")
        if victim == "agent":
            scene.kill_agent()
            scene.agent.start()
        else:
            scene.kill_broker()
            scene.node.start()
        scene.wait_for_bindings()
        scene.probe(new, ["alpha"])
        scene.probe_unbound(old)
        scene.wait_for_flow()
        scene.wait_for_deliveries()
