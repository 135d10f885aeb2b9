"""What one application's trouble costs another, and what a configuration costs everybody: the time from publishing to
an application's hands (both in Python) at 300 messages a second, in situations that take turns, while pings are sent
and timed.

- alone: one application, messages for it only
- neighbours: as many again for an application that never answers, and for one that is not there
- configuring: another application gets a configuration of many topics meanwhile; the broker itself is busy with the
binds
"""

import struct
import threading
import time

import pika

from support.application import GrpcApplication
from support.plane import ManagementPlane

from qelbench.agents import new_agent
from qelbench.pings import Pinger
from qelbench.results import Figure, Results, percentile

NAME = "isolation"
TITLE = "Isolation"
ORDER = 49

PATIENCE = 120
RATE = 300
PAUSE = 0.1


class Publisher(threading.Thread):
    """Sends messages that carry their time of sending, at a rate, to several routing keys in turn."""

    def __init__(self, url, exchange, keys, seconds):
        super().__init__(daemon=True)
        self.url, self.exchange, self.keys, self.seconds = url, exchange, keys, seconds

    def run(self):
        connection = pika.BlockingConnection(pika.URLParameters(self.url))
        channel = connection.channel()
        begin = time.monotonic()
        for number in range(RATE * self.seconds):
            pause = begin + number / RATE - time.monotonic()
            if pause > 0:
                time.sleep(pause)
            for key in self.keys:
                channel.basic_publish(self.exchange, key, struct.pack("d", time.monotonic()))
        connection.close()


class Receiver(threading.Thread):
    """An application that answers at once and keeps each message's latency in milliseconds."""

    def __init__(self, application, expected):
        super().__init__(daemon=True)
        self.application, self.expected = application, expected
        self.latencies = []

    def run(self):
        for _ in range(self.expected):
            delivery = self.application.next(PATIENCE)
            self.latencies.append(1000 * (time.monotonic() - struct.unpack("d", delivery.body)[0]))
            self.application.verdict(delivery, "done")


class Situations:
    """An agent with four applications: one works, one is stuck, one is absent, one is being configured."""

    def __init__(self, bench):
        self.bench, self.url = bench, bench.node().url()
        self.seconds = bench.pick(10, 3)
        self.topics = bench.pick(20_000, 1_000)
        self.agent = new_agent(bench, bench.scratch("isolation"), "quorum",
                               {name: {"ack_timeout_seconds": 900} for name in ("works", "stuck", "absent", "big")})
        self.configured = 0
        self.works = None

    def measure(self, *keys):
        """One run: (latencies, pings), all in milliseconds."""
        receiver = Receiver(self.works, RATE * self.seconds)
        publisher = Publisher(self.url, self.agent.exchange, keys, self.seconds)
        with Pinger(self.url, self.agent.client_queue) as pinger:
            receiver.start()
            publisher.start()
            pings = pinger.pings(PAUSE, receiver.is_alive)
        publisher.join()
        if len(receiver.latencies) != RATE * self.seconds:
            raise RuntimeError(f"only {len(receiver.latencies)} messages have arrived{self.agent.log_tail()}")
        return receiver.latencies, pings

    def configuring(self):
        self.configured += 1
        with ManagementPlane(self.url) as plane:
            plane.configure(self.agent, "big", [f"big.{self.configured}.{number}" for number in range(self.topics)])
        found = self.measure("works")
        # The next situation shall be undisturbed.
        with GrpcApplication(self.agent, "big") as big:
            big.wait_for_welcome()
            big.wait_for_state("APPLIED", patience=600)
        return found

    def run(self):
        self.agent.start()
        with ManagementPlane(self.url) as plane:
            for name in ("works", "stuck", "absent"):
                plane.configure(self.agent, name, [name])
        with GrpcApplication(self.agent, "works") as self.works, GrpcApplication(self.agent, "stuck", 100) as stuck:
            for application in (self.works, stuck):
                application.wait_for_welcome()
                application.wait_for_state("APPLIED")
            turns = self.bench.interleave({"alone": lambda: self.measure("works"),
                                           "neighbours": lambda: self.measure("works", "stuck", "absent"),
                                           "configuring": self.configuring}, full=3)
        self.agent.stop()
        return turns


def run(bench):
    turns = Situations(bench).run()
    results = Results()
    by_share = {(situation, share): results.add(Figure(f"{situation}: {100 * share:g} %", "ms",
                                                       [percentile(latencies, share) for latencies, _ in runs]))
                for share in (0.5, 0.99) for situation, runs in turns.items()}
    for (situation, share), figure in by_share.items():
        if situation != "alone":
            figure.beside(by_share["alone", share])
    for situation, runs in turns.items():
        results.add(Figure(f"{situation}: slowest ping", "ms", [max(pings) for _, pings in runs]))
    return results
