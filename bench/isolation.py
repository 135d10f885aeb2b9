#!/usr/bin/python3
"""What one application's trouble costs another, and what a configuration costs everybody.

Latency is the time from publishing to the application's hands, at a steady rate, in three situations that take turns so
that a slow minute of the machine meets all of them:

  alone        one application, messages for it only
  neighbours   as many messages again for an application that never answers and for one that is not there
  configuring  another application gets a configuration of many topics meanwhile

and in each of them pings are sent and timed. Expect the application's p99 among neighbours within twice its p99 alone,
and every ping within 100 ms; in "configuring" the broker itself is busy with one bind after the other.

Nothing is written but the table on the standard output.
"""

import argparse
import os
import pathlib
import statistics
import struct
import sys
import tempfile
import threading
import time

ROOT = pathlib.Path(__file__).resolve().parents[1]
sys.path[:0] = [str(ROOT / "tools"), str(ROOT / "tests")]
sys.dont_write_bytecode = True

import pika  # noqa: E402

from support.agent import AgentProcess  # noqa: E402
from support.application import GrpcApplication  # noqa: E402
from support.plane import ManagementPlane  # noqa: E402
from testbed.rabbitnode import RabbitNode  # noqa: E402

PATIENCE = 120


def percentile(values, share):
    """The value below which this share of them lies."""
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(share * len(ordered)))]


class Publisher(threading.Thread):
    """Sends messages that carry their time of sending, at a rate, to several routing keys in turn."""

    def __init__(self, url, exchange, keys, rate, seconds):
        super().__init__()
        self.url, self.exchange, self.keys = url, exchange, keys
        self.rate, self.seconds = rate, seconds

    def run(self):
        connection = pika.BlockingConnection(pika.URLParameters(self.url))
        channel = connection.channel()
        begin = time.monotonic()
        for number in range(self.rate * self.seconds):
            pause = begin + number / self.rate - time.monotonic()
            if pause > 0:
                time.sleep(pause)
            for key in self.keys:
                channel.basic_publish(self.exchange, key, struct.pack("d", time.monotonic()))
        connection.close()


class Receiver(threading.Thread):
    """An application that answers at once and keeps each message's latency in milliseconds."""

    def __init__(self, application, expected):
        super().__init__()
        self.application, self.expected = application, expected
        self.latencies = []

    def run(self):
        for _ in range(self.expected):
            delivery = self.application.next(PATIENCE)
            self.latencies.append(1000 * (time.monotonic() - struct.unpack("d", delivery.body)[0]))
            self.application.verdict(delivery, "done")


class Pinger(threading.Thread):
    """Pings the agent until it is told to stop."""

    def __init__(self, url, agent):
        super().__init__()
        self.url, self.agent = url, agent
        self.stop = threading.Event()
        self.round_trips = []

    def run(self):
        with ManagementPlane(self.url) as plane:
            while not self.stop.wait(0.1):
                self.round_trips.append(1000 * plane.ping(self.agent)[2])


class Bench:
    """An agent with three applications: one that works, one that is stuck, one that is absent."""

    def __init__(self, options, node, folder):
        self.options, self.node = options, node
        os.environ["QEL_AGENT"] = str(options.build / "src/agent/qel-agent")
        os.environ["QELCTL"] = str(options.build / "tools/qelctl/qelctl")
        self.agent = AgentProcess(folder, "bench", node.url(), {"broker": {"queue_type": options.queue_type}},
                                  {name: {"ack_timeout_seconds": 900} for name in ("works", "stuck", "absent", "big")})
        self.configured = 0

    def measure(self, situation):
        """(latencies, round trips of pings) in milliseconds."""
        keys = {"neighbours": ["works", "stuck", "absent"]}.get(situation, ["works"])
        receiver = Receiver(self.works, self.options.rate * self.options.seconds)
        pinger = Pinger(self.node.url(), self.agent)
        publisher = Publisher(self.node.url(), self.agent.exchange, keys, self.options.rate, self.options.seconds)
        if situation == "configuring":
            self.configured += 1
            topics = [f"big.{self.configured}.{number}" for number in range(self.options.topics)]
            with ManagementPlane(self.node.url()) as plane:
                plane.configure(self.agent, "big", topics)
        for thread in (receiver, pinger, publisher):
            thread.start()
        publisher.join()
        receiver.join()
        pinger.stop.set()
        pinger.join()
        if situation == "configuring":
            self.agent_has_configured()
        return receiver.latencies, pinger.round_trips

    def agent_has_configured(self):
        """Waits for the end of the configuration, so that the next situation is undisturbed."""
        with GrpcApplication(self.agent, "big") as big:
            big.wait_for_welcome()
            big.wait_for_state("APPLIED", patience=600)

    def run(self):
        self.agent.start()
        with ManagementPlane(self.node.url()) as plane:
            for name in ("works", "stuck", "absent"):
                plane.configure(self.agent, name, [name])
        with GrpcApplication(self.agent, "works") as self.works, GrpcApplication(self.agent, "stuck", 100) as stuck:
            for application in (self.works, stuck):
                application.wait_for_welcome()
                application.wait_for_state("APPLIED")
            results = {}
            for _ in range(self.options.runs):
                for situation in ("alone", "neighbours", "configuring"):
                    results.setdefault(situation, []).append(self.measure(situation))
        self.agent.stop()
        return results


def report(results):
    print(f"{'situation':<12} {'p50 ms':>8} {'p99 ms':>8} {'ratio p99':>10} {'ping p50':>9} {'ping most':>10} {'pings':>6}")
    alone = None
    for situation, runs in results.items():
        p50 = statistics.median(percentile(latencies, 0.5) for latencies, _ in runs)
        p99 = statistics.median(percentile(latencies, 0.99) for latencies, _ in runs)
        pings = [round_trip for _, round_trips in runs for round_trip in round_trips]
        alone = alone or p99
        print(f"{situation:<12} {p50:>8.2f} {p99:>8.2f} {p99 / alone:>10.2f} {percentile(pings, 0.5):>9.2f} "
              f"{max(pings):>10.2f} {len(pings):>6}")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", type=pathlib.Path, default=ROOT / "build/release", help="folder of the build")
    parser.add_argument("--queue-type", choices=("quorum", "classic"), default="quorum")
    parser.add_argument("--rate", type=int, default=300, help="messages a second for each application")
    parser.add_argument("--seconds", type=int, default=10, help="length of one measurement")
    parser.add_argument("--runs", type=int, default=3)
    parser.add_argument("--topics", type=int, default=20000, help="topics of the configuration")
    options = parser.parse_args()
    with tempfile.TemporaryDirectory(prefix="qel-", dir="/tmp") as folder, RabbitNode(folder + "/rabbit") as node:
        report(Bench(options, node, pathlib.Path(folder) / "agent").run())


if __name__ == "__main__":
    main()
