"""How soon the agent answers a ping, one after the other by pika, whose own time is in the figures: while nothing
else happens, and while the agent drains a filled client queue at full speed for an attached application. Then the
pings come by the priority queue: one that is sent to the client queue waits for what lies before it there, however
fast the agent is; how long that takes when no more than 10,000 messages a second come, so that nothing piles up, is
the last row.
"""

import subprocess
import time

from testbed.processes import end, spawn

from qelbench.drain import APPLICATION, TYPE, Drain
from qelbench.pings import Pinger
from qelbench.results import Figure, Results, at_most, percentile

NAME = "ping"
TITLE = "Pings"
ORDER = 45

PAUSE = 0.005
RATE = 10_000


class Situations:
    """An agent on a quorum queue, and pings in each of the situations. Each gives the milliseconds of every ping."""

    def __init__(self, bench):
        self.bench = bench
        self.seconds = bench.pick(10, 3)
        self.drain = Drain(bench, "quorum", bench.pick(300_000, 30_000))
        self.agent = self.drain.agent

    def for_some_seconds(self, queue):
        until = time.monotonic() + self.seconds
        with Pinger(self.bench.node().url(), queue) as pinger:
            return pinger.pings(PAUSE, lambda: time.monotonic() < until)

    def idle(self):
        self.agent.start()
        try:
            return self.for_some_seconds(self.agent.client_queue)
        finally:
            self.agent.stop()

    def full_load(self):
        found = []

        def ping_while(draining):
            with Pinger(self.bench.node().url(), self.agent.priority_queue) as pinger:
                found.extend(pinger.pings(PAUSE, draining))

        self.drain.through_the_agent(ping_while)
        return found

    def steady_load(self):
        """10,000 messages a second come and go."""
        self.agent.start()
        consumer = spawn([self.bench.program("bench/qel_attach_consumer"), self.agent.socket(APPLICATION), 10 ** 9],
                         stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        publisher = spawn([self.bench.program("tools/qelctl/qelctl"), "publish", "--broker", self.bench.node().url(),
                           "--routing-key", self.agent.client_queue, "--app-id", APPLICATION, "--type", TYPE,
                           "--persistent", "--count", 10 ** 9, "--rate", RATE, "--body-file", self.drain.body],
                          stdout=subprocess.DEVNULL)
        try:
            found = self.for_some_seconds(self.agent.client_queue)
            if publisher.poll() is not None or consumer.poll() is not None:
                raise RuntimeError("the load has ended before the pings")
            end(publisher)
            self.drain.expect_left(0)
        finally:
            end(publisher)
            end(consumer)
            self.agent.stop()
        self.bench.wait_for_no_connection(self.bench.node())
        return found


def run(bench):
    situations = Situations(bench)
    turns = bench.interleave({"idle": situations.idle, "full load": situations.full_load,
                              f"{RATE:,} messages/s": situations.steady_load}, full=5)
    results = Results()
    targets = {"idle": at_most(5), "full load": at_most(100)}
    for situation, runs in turns.items():
        for share, target in ((0.5, None), (0.99, targets.get(situation))):
            results.add(Figure(f"ping, {situation}, {100 * share:g} %", "ms", [percentile(one, share) for one in runs],
                               target, f"{sum(map(len, runs))} pings"))
    return results
