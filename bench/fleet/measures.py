"""The measurements on one node with one fleet."""

import bisect
import statistics
import time
import uuid

import pika

from gauge import BrokerGauge, Stopwatch, status_field
from support.plane import PING, REASSIGN
from testbed.processes import ProcessFailed, wait_until

REPLIES = 1000
READ_EVERY = 20


def most_in_a_second(moments):
    """The most of these moments that any one second has."""
    ordered = sorted(moments)
    return max(bisect.bisect_left(ordered, first + 1.0) - index for index, first in enumerate(ordered))


def spread(values):
    """The middle and the end of a distribution."""
    ordered = sorted(values)
    return {"median": round(statistics.median(ordered), 4),
            "p99": round(ordered[min(len(ordered) - 1, int(len(ordered) * 0.99))], 4),
            "max": round(ordered[-1], 4)}


class Measures:
    """One fleet on one node. Every result is a dictionary of plain numbers.

    progress  called with what is waited for, how many agents are there, and of how many
    patience  seconds after which an agent that is not where it should be is a failure
    """

    def __init__(self, node, fleet, progress, patience):
        self.node = node
        self.fleet = fleet
        self.gauge = BrokerGauge(node)
        self._progress = progress
        self._patience = patience
        self._opened = self.gauge.opened()

    def start(self, within=0.0):
        """All agents start, evenly over the time: until every one consumes with its bindings in place."""
        clock = Stopwatch(broker=self.node.pid)
        self.fleet.start(within)
        figures = self._wait(lambda one: one["serving"], "consuming")
        done = clock.read()
        return {**done, "within": within,
                "agent_seconds": spread(one["last_restored"] - clock.began for one in figures),
                "most_in_a_second": most_in_a_second(one["last_restored"] for one in figures)}

    def settle(self):
        """What the node lists in the end is what so many agents have, and how many connections it took to get there.
        @raises ProcessFailed when the node lists anything else
        """
        agents = self.fleet.agents
        wanted = {"connections": 2 * agents, "consumers": 2 * agents, "queues": 3 * agents,
                  "bindings": agents * self.fleet.topics}
        found = {}

        def as_wanted():
            found.update(self.gauge.holdings())
            self._progress("the broker's own counts", found["connections"], wanted["connections"])
            return all(found[name] == count for name, count in wanted.items())

        # The publishing connections come with the first loop probes, a moment after the consumers.
        wait_until(as_wanted, f"the broker to list {wanted}", self._patience, lambda: f"it lists {found}")
        return {**found, "opened": self.gauge.opened() - self._opened}

    def idle(self, seconds):
        """Nothing happens but heartbeats and loop probes."""
        clock = Stopwatch(broker=self.node.pid, fleet=self.fleet.pid)
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            self._progress("idle", int(seconds - (end - time.monotonic())), int(seconds))
            time.sleep(min(1.0, max(0.0, end - time.monotonic())))
        return {**clock.read(), **self.gauge.memory(), "fleet_rss": status_field(self.fleet.pid, "VmRSS"),
                "fleet_threads": status_field(self.fleet.pid, "Threads")}

    def ping_all(self):
        """One ping to each agent as fast as one publisher can; until every reply is there."""
        with Plane(self.node.url()) as plane:
            clock = Stopwatch(broker=self.node.pid)
            sent_at = {}
            for number, name in enumerate(self.fleet.names):
                sent_at[name] = time.monotonic()
                plane.publish(name, type=PING, reply_to=plane.queue, correlation_id=name)
                if number % READ_EVERY == 0:
                    plane.read(0)
            published = time.monotonic() - clock.began
            while len(plane.replies) < self.fleet.agents and time.monotonic() < clock.began + self._patience:
                plane.read(0.1)
                self._progress("replies to pings", len(plane.replies), self.fleet.agents)
            done = clock.read()
            replies = plane.replies
        if set(replies) != set(sent_at):
            raise ProcessFailed(f"{len(set(sent_at) - set(replies))} agents have not answered their pings")
        return {**done, "publish_seconds": round(published, 3),
                "reply_seconds": spread(replies[name] - sent_at[name] for name in sent_at)}

    def restart(self):
        """The broker stops in order and starts again: until every agent consumes again."""
        before = self.fleet.figures()
        self.node.stop(patience=self._patience)
        # It begins to count anew.
        self._opened = 0
        launched = time.monotonic()
        self.node.launch()
        self.node.wait_until_up(self._patience)
        up = time.monotonic()
        clock = Stopwatch(broker=self.node.pid)
        figures = self._wait(lambda one: one["serving"] and one["last_restored"] > launched, "back after the restart")
        done = clock.read()
        last = max(one["last_restored"] for one in figures)
        return {"boot_seconds": round(up - launched, 2), "back_after_boot_seconds": round(last - up, 2), **done,
                "down_seconds": spread(one["last_restored"] - one["last_disconnected"] for one in figures),
                "most_in_a_second": most_in_a_second(one["last_restored"] for one in figures),
                "restorations": sum(one["restorations"] - other["restorations"] for one, other in zip(figures, before))}

    def reassign(self, port):
        """A reassign hint to each agent: until all of them consume by the node's other port."""
        before = self.fleet.figures()
        with Plane(self.node.url(port=port)) as plane:
            self._opened = self.gauge.opened()
            clock = Stopwatch(broker=self.node.pid)
            for name in self.fleet.names:
                plane.publish(name, type=REASSIGN)
            hinted = time.monotonic()
            figures = self._moved(before, hinted)
        done = clock.read()
        grown = {name: sum(one[name] - other[name] for one, other in zip(figures, before))
                 for name in ("moves", "failed_moves", "disconnections")}
        return {**done, "moved_seconds": round(max(one["last_restored"] for one in figures) - hinted, 2),
                "most_in_a_second": most_in_a_second(one["last_restored"] for one in figures), **grown}

    def _moved(self, before, hinted):
        deadline = time.monotonic() + self._patience
        while True:
            figures = self.fleet.figures()
            # An agent whose move has failed stays where it is, and does not try again.
            done = sum(one["serving"] and (one["failed_moves"] > other["failed_moves"]
                                           or one["moves"] > other["moves"] and one["last_restored"] > hinted)
                       for one, other in zip(figures, before))
            self._progress("moved", done, self.fleet.agents)
            if done == self.fleet.agents:
                return figures
            if time.monotonic() > deadline:
                raise ProcessFailed(f"{done} of {self.fleet.agents} agents have moved after {self._patience:.0f} s")
            time.sleep(0.25)

    def _wait(self, condition, what):
        return self.fleet.wait(condition, what, self._progress, self._patience)


class Plane:
    """A management plane: one connection that publishes to client queues and collects replies."""

    def __init__(self, url):
        self._connection = pika.BlockingConnection(pika.URLParameters(url))
        self._channel = self._connection.channel()
        # Not the one that publishes: the broker would hold the replies back until it is through with all the pings.
        reading = self._connection.channel()
        reading.basic_qos(prefetch_count=REPLIES)
        self.queue = reading.queue_declare(f"fleet.replies.{uuid.uuid4()}", exclusive=True).method.queue
        #: By correlation id the moment at which a reply came.
        self.replies = {}
        reading.basic_consume(self.queue, self._on_reply)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._connection.close()

    def publish(self, agent, **properties):
        self._channel.basic_publish("", f"qel.client.{agent}", b"", pika.BasicProperties(**properties))

    def read(self, seconds):
        """Takes the replies that have come, waiting for the first at most so long."""
        self._connection.process_data_events(time_limit=seconds)

    def _on_reply(self, channel, method, properties, _body):
        self.replies[properties.correlation_id] = time.monotonic()
        channel.basic_ack(method.delivery_tag)
