"""A steady load for one application while something else goes wrong, and the judgement of what became of it."""

import contextlib
import threading
import time

import grpc

from chaos.ledger import Destination, Ledger
from chaos.publisher import Publisher
from testbed.processes import ProcessFailed

from .application import GrpcApplication
from .plane import ManagementPlane

TOPIC = "load.topic"


class Recipient(GrpcApplication):
    """Takes every delivery at once and tells of it."""

    def __init__(self, agent, name, note):
        self._note = note
        super().__init__(agent, name)

    def received(self, delivery):
        self._note(delivery)
        self.verdict(delivery, "done")


class Upstream(threading.Thread):
    """Publishes numbered messages through the agent, one after the other, and notes which of them it was told are safe.

    The answers of an agent that has no broker, or goes away, are fine; any other error is not.
    """

    PAUSE = 0.05
    EXCUSED = (grpc.StatusCode.UNAVAILABLE, grpc.StatusCode.DEADLINE_EXCEEDED, grpc.StatusCode.CANCELLED)

    def __init__(self, queue):
        super().__init__(name="upstream", daemon=True)
        self.application = None
        self.published = 0
        self.confirmed = []
        self.wrong_answers = []
        self._queue = queue
        self._stopping = threading.Event()

    def run(self):
        while not self._stopping.wait(self.PAUSE):
            message_id = str(self.published).encode()
            self.published += 1
            try:
                self.application.publish("", self._queue, b"upstream", patience=60.0, message_id=message_id,
                                         delivery_mode=2)
                self.confirmed.append(message_id.decode())
            except grpc.RpcError as error:
                if error.code() not in self.EXCUSED:
                    self.wrong_answers.append(f"{error.code()}: {error.details()}")

    def stop(self):
        self._stopping.set()
        self.join(90)
        assert not self.is_alive()


class Load:
    """Numbered messages at a steady rate for an attached application that takes them all, and publishes itself.

    with Load(world, agent, "alpha") as load:
        ...                                # whatever goes wrong
        load.wait_for_flow()               # it is over
        load.finish()                      # and nothing is lost, nothing left, nothing dead-lettered

    They are published straight to the node, so every confirmed one is owed to the application. What the application
    publishes goes through the agent; what the agent has confirmed has to be in its queue.
    """

    def __init__(self, world, agent, application, rate=100):
        self._world = world
        self._agent = agent
        self._application = application
        self._ledger = Ledger(agent.folder / "ledger", [application])
        self._destination = Destination(TOPIC, agent.exchange, TOPIC, {application: agent.client_queue})
        self._ends = contextlib.ExitStack()
        self._ends.callback(self._ledger.close)
        self._last_arrival = None
        self._longest_gap = 0.0
        self._publisher = Publisher(world.node.url(), "p", rate, [self._destination], self._ledger)
        self._upstream_queue = f"load.{agent.agent_id}"
        self._upstream = Upstream(self._upstream_queue)

    def __enter__(self):
        try:
            self._start()
        except BaseException:
            self._ends.close()
            raise
        return self

    def __exit__(self, *_):
        self._ends.close()

    def _start(self):
        recipient = self.attach()
        with ManagementPlane(self._world.node.url()) as plane:
            plane.declare_queue(self._upstream_queue)
            plane.configure(self._agent, self._application, topics=[TOPIC])
        recipient.wait_for_state("APPLIED", [TOPIC])
        for thread in (self._publisher, self._upstream):
            self._ends.callback(thread.stop)
            thread.start()
        self.wait_for_flow()

    def attach(self):
        """Makes an instance of the application; needed again when the agent has ended and another was started."""
        recipient = Recipient(self._agent, self._application, self._arrived)
        self._ends.callback(recipient.close)
        self._upstream.application = recipient.wait_for_welcome()
        return recipient

    def _arrived(self, delivery):
        """Called by the instance's reader; there is one at a time."""
        self._ledger.arrive(self._application, "test", delivery.properties.message_id.decode(),
                            delivery.body.decode(), delivery.redelivered)
        now = time.monotonic()
        if self._last_arrival is not None:
            self._longest_gap = max(self._longest_gap, now - self._last_arrival)
        self._last_arrival = now

    def wait_for_flow(self, count=20, patience=90.0):
        """Waits until something published from now on has been confirmed and has arrived."""
        marks = {name: end + count for name, end in self._ledger.marks().items()}
        upstream = len(self._upstream.confirmed)
        self._wait(lambda: self._ledger.marks()["p"] >= marks["p"] and not self._ledger.outstanding(marks),
                   "messages to arrive", patience)
        self._wait(lambda: len(self._upstream.confirmed) > upstream, "the application to publish", patience)

    def finish(self, patience=90.0):
        """Ends the load; everything confirmed has to arrive, and no message to be left. @return the figures"""
        self._publisher.pause()
        self._upstream.stop()
        marks = self._ledger.marks()
        self._wait(lambda: not self._ledger.outstanding(marks), "everything to arrive", patience)
        self._wait(lambda: not self._left_over(), "every message to be settled", patience)
        assert not self._ledger.strays, self._ledger.strays
        return (f"confirmed {self._ledger.confirmed()}, lost 0, "
                f"duplicates {self._ledger.duplicates[self._application]}, longest gap {self._longest_gap:.1f} s; "
                f"{self._check_upstream()}")

    def _check_upstream(self):
        """What the application was told is safe has to be in its queue."""
        assert not self._upstream.wrong_answers, self._upstream.wrong_answers
        arrived = []
        with ManagementPlane(self._world.node.url()) as plane:
            while message := plane.take(self._upstream_queue):
                arrived.append(message[0].message_id)
        lost = set(self._upstream.confirmed) - set(arrived)
        assert not lost, f"the agent has confirmed {len(lost)} messages that are not in the queue: {sorted(lost)[:20]}"
        return (f"upstream {len(self._upstream.confirmed)} of {self._upstream.published} confirmed, lost 0, "
                f"duplicates {len(arrived) - len(set(arrived))}")

    def _left_over(self):
        """The agent's queues that are not empty: what is ready there, or unsettled, or parked, or dead."""
        client, priority = self._agent.client_queue, self._agent.priority_queue
        return {name: row for name, row in self._world.node.list_queues().items()
                if row["messages"] and (name in (client, priority) or name.startswith(client + "."))}

    def _wait(self, condition, what, patience):
        try:
            self._agent.wait_until(condition, what, patience)
        except ProcessFailed as failure:
            missing = self._ledger.outstanding(self._ledger.marks())
            shown = [self._ledger.describe(message_id) for _, message_id in missing[:10]]
            raise ProcessFailed(f"{len(missing)} messages are outstanding: {shown}\n"
                                f"queues: {self._left_over()}\n{failure}") from None
