"""Configurations replaced under load: nothing that is kept may notice, and only what changes may cost a request."""

from testbed.processes import wait_until

from .scene import Violation

RATE = 1000
INSTANCES = {"alpha": 1}
SYNC_REQUESTS = True
KEPT_NAMES = ["alpha.kept", "alpha.urgent", "wild.#"]
KEPT = [("alpha.kept", 0), ("alpha.urgent", 1), ("wild.#", 0)]
WORK = "work.replace"
CHANGING = 10
MANY = 10000
CHANGED = 10
APPLY_PATIENCE = 300.0


def populate(scene):
    client, priority = scene.agent.client_queue, scene.agent.priority_queue
    scene.plane.configure("alpha", KEPT, [WORK])
    scene.wait_for_bindings()
    scene.wait_for_queue(WORK)
    scene.load([
        scene.destination("alpha.kept", {"alpha": client}),
        scene.destination("alpha.urgent", {"alpha": priority}),
        scene.destination("wild.one.two", {"alpha": client}),
        scene.destination("work queue", {"alpha": WORK}, routing_key=WORK, exchange=""),
    ], RATE)
    scene.wait_for_flow()


class Replace:
    """Replaces alpha's configuration and waits for it, each time."""

    def __init__(self, scene, say):
        self._scene = scene
        self._say = say

    def run(self, times):
        """Replaces the changing topics again and again under load."""
        before = self._scene.ledger.confirmed()
        for turn in range(times):
            self._apply([f"changing.{turn % 2}.{number}" for number in range(CHANGING)])
        during = self._scene.ledger.confirmed() - before
        self._scene.wait_for_bindings()
        self._scene.wait_for_deliveries()
        self._say(f"{times} replaces, {during} messages confirmed meanwhile")
        if any(self._scene.ledger.duplicates.values()) or any(self._scene.ledger.swaps.values()):
            raise Violation(f"duplicates {self._scene.ledger.duplicates} or swaps {self._scene.ledger.swaps} "
                            "although nothing was killed")

    def count_requests(self):
        """What a configuration of many topics costs in broker requests: new, again, changed a little."""
        many = [f"many.{number}" for number in range(MANY)]
        changed = [f"other.{number}" for number in range(CHANGED)] + many[CHANGED:]
        self._expect("new topics", many, {"queue.bind": MANY, "queue.unbind": CHANGING})
        self._expect("the same again", many, {})
        self._expect(f"{CHANGED} changed", changed, {"queue.bind": CHANGED, "queue.unbind": CHANGED})
        self._expect("nothing but the kept", [], {"queue.unbind": MANY})
        self._scene.wait_for_deliveries()

    def _expect(self, what, topics, wanted):
        self._scene.proxy.requests.clear()
        self._apply(topics)
        counted = dict(self._scene.proxy.requests)
        self._say(f"{what}: {counted or 'no topology request'}")
        if counted != wanted:
            raise Violation(f"{what}: the configuration made {counted}, expected {wanted}")
        self._scene.wait_for_bindings()

    def _apply(self, topics):
        alpha = self._scene.applications["alpha"]
        before, wanted = alpha.times_applied, sorted(KEPT_NAMES + topics)
        self._scene.plane.configure("alpha", KEPT + topics, [WORK])
        wait_until(lambda: alpha.times_applied > before and sorted(alpha.configuration["topics"]) == wanted,
                   "the configuration to be carried out", APPLY_PATIENCE, self._scene.agent.log_tail)
