"""An agent's client queue that is drained by several applications at once, among others that only are there."""

import contextlib
import json

import pika

from support.admin import Admin
from support.plane import ManagementPlane
from testbed.processes import end, spawn, tail

from .agents import wait_until_live
from .context import resident_mib
from .drain import PREFETCH, Drain

PATIENCE = 600


class Crowd(Drain):
    """So many applications with a drop-in, a socket and a configuration of one topic; the first ones are attached.

    A run gives {"rate": messages/s, "cpu": us, "before": MiB of the agent when nobody is attached}.
    """

    def __init__(self, bench, known, attached, messages):
        super().__init__(bench, "classic", messages - messages % attached)
        names = [f"app-{number}" for number in range(known)]
        self._attached = names[:attached]
        for name in names:
            self.agent.add_application(name, window=2 * PREFETCH)
        self.agent.start()
        with ManagementPlane(self.node.url()) as plane:
            for name in names:
                plane.configure(self.agent, name, [self._topic_of(name)])
        status = Admin(self.agent).status
        self.agent.wait_until(lambda: all(one["configuration"]["state"] == "applied" for one in status()["applications"]
                                          if one["name"] in names), "all configurations to be applied", PATIENCE)
        self.agent.stop()

    def through_the_agent(self):
        self.agent.start()
        before = resident_mib(self.agent.pid)
        with contextlib.ExitStack() as ends:
            ends.callback(self.agent.stop)
            consumers = [self._attach(name, ends) for name in self._attached]
            self._wait(lambda: all("welcome" in self._said(name) for name in self._attached),
                       "the applications to be attached")
            for name in self._attached:
                wait_until_live(self.bench, self.agent, name)
            with self._halted(self.agent.pid) as used:
                statuses = [consumer.wait(PATIENCE) for consumer in consumers]
                self.expect_left(0)
            if any(statuses):
                raise RuntimeError(f"a consumer failed: {[self._said(name) for name in self._attached]}")
        self.bench.wait_for_no_connection(self.node)
        # From its first delivery to its last verdict, of the one that took longest: not how long processes take to end.
        seconds = max(json.loads(self._said(name).splitlines()[-1])["seconds"] for name in self._attached)
        return {**self._figures(seconds, used[0]), "before": before}

    def _attach(self, name, ends):
        """A consumer that ends when it has answered its share of the messages."""
        share = self.messages // len(self._attached)
        with open(self.folder / f"{name}.out", "wb") as out:
            consumer = spawn([self.bench.program("bench/qel_attach_consumer"), self.agent.socket(name), share],
                             stdout=out, stderr=out)
        ends.callback(end, consumer)
        return consumer

    def _said(self, name):
        return tail(self.folder / f"{name}.out")

    def _publish(self, count, kind):
        """For the attached applications in turns."""
        connection = pika.BlockingConnection(pika.URLParameters(self.node.url()))
        channel, body = connection.channel(), self.body.read_bytes()
        for number in range(count):
            topic = self._topic_of(self._attached[number % len(self._attached)])
            channel.basic_publish(self.agent.exchange, topic, body,
                                  pika.BasicProperties(type=kind, delivery_mode=2))
        connection.close()

    @staticmethod
    def _topic_of(name):
        return f"bench.{name}.topic"
