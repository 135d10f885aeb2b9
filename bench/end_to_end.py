#!/usr/bin/python3
"""How fast messages get from a filled client queue through the agent to an attached application's verdict, beside a bare
consumer of the same queue that only acknowledges.

Both drain the same queue on the same broker in turns, so that a slow minute of the machine meets both; medians of the
runs and their ratio count, single figures do not. The bare consumer is run acknowledging each message and acknowledging
them by the hundred: the agent batches, too. Expect a ratio of at least 0.8.

Who drains is connected and halted while the queue is filled, then goes on: the broker keeps a queue that has a consumer
in another state than one that has none. The agent's processor time is that of the whole process, to the last verdict.

Nothing is written but the table on the standard output.
"""

import argparse
import datetime
import json
import os
import pathlib
import platform
import re
import signal
import statistics
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parents[1]
sys.path[:0] = [str(ROOT / "tools"), str(ROOT / "tests")]
sys.dont_write_bytecode = True

from support.agent import AgentProcess  # noqa: E402
from testbed.processes import end, spawn, tail, wait_until  # noqa: E402
from testbed.rabbitnode import RabbitNode  # noqa: E402

APPLICATION = "bench"
PREFETCH = 1000
BARE_BATCH = 100
TICKS = os.sysconf("SC_CLK_TCK")


def cpu_seconds(pid):
    """The processor time that a process and its threads have used."""
    fields = pathlib.Path(f"/proc/{pid}/stat").read_text(encoding="ascii").rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / TICKS


class Bench:
    """One queue type: an agent with its client queue on the node, and the measurements on it."""

    def __init__(self, options, node, folder, queue_type):
        self.options = options
        self.node = node
        self.folder = folder
        self.build = options.build
        os.environ["QEL_AGENT"] = str(self.build / "src/agent/qel-agent")
        self.agent = AgentProcess(folder / queue_type, f"bench-{queue_type}", node.url(), {
            # It is halted for as long as filling takes, and the broker shall not mind.
            "broker": {"queue_type": queue_type, "prefetch": PREFETCH, "heartbeat_seconds": 300},
            "log": {"level": 4}}, {APPLICATION: {"window": 2 * PREFETCH}})
        self.body = folder / "body"
        self.body.write_bytes(b"x" * options.bytes)

    def fill(self):
        """Puts the messages into the client queue."""
        subprocess.run([self.build / "tools/qelctl/qelctl", "publish", "--broker", self.node.url(), "--routing-key",
                        self.agent.client_queue, "--app-id", APPLICATION, "--persistent", "--mandatory", "--count",
                        str(self.options.messages), "--body-file", self.body],
                       check=True, stdout=subprocess.DEVNULL, timeout=600)
        self.expect_left(self.options.messages)

    def through_the_agent(self):
        """One run: (messages a second, the agent's microseconds a message)."""
        self.agent.start()
        output = self.folder / "consumer.out"
        with open(output, "wb") as out:
            consumer = spawn([self.build / "bench/qel_attach_consumer", self.agent.socket(APPLICATION),
                              self.options.messages], stdout=out, stderr=out)
        try:
            wait_until(lambda: "welcome" in output.read_text(encoding="utf-8"), "the consumer to be attached", 30,
                       lambda: tail(output) + self.agent.log_tail())
            wait_until(self.is_live, "the application to be done with its parking queue", 30, self.agent.log_tail)
            self.agent.signal(signal.SIGSTOP)
            self.fill()
            before = cpu_seconds(self.agent.pid)
            self.agent.signal(signal.SIGCONT)
            status = consumer.wait(600)
            used = cpu_seconds(self.agent.pid) - before
            if status != 0:
                raise RuntimeError(f"the consumer ended with status {status}: {tail(output)}{self.agent.log_tail()}")
            result = json.loads(output.read_text(encoding="utf-8").splitlines()[-1])
            self.expect_left(0)
        finally:
            end(consumer)
            self.agent.signal(signal.SIGCONT)
            self.agent.stop()
        self.wait_for_no_connection()
        return result["messages"] / result["seconds"], used * 1e6 / result["messages"]

    def is_live(self):
        """Messages go to the application at once, not by the parking queue that it begins with."""
        listed = subprocess.run([self.build / "tools/qelctl/qelctl", "apps", "--json", "--runtime-directory",
                                 self.agent.runtime_directory], check=True, stdout=subprocess.PIPE, timeout=60).stdout
        return [one["flow"] for one in json.loads(listed) if one["name"] == APPLICATION] == ["live"]

    def expect_left(self, count):
        """The client queue holds so many messages, acknowledgements included, and no other queue any.

        But for a parking queue, where a marker of an agent that has ended may be left; the next one takes it away.
        """
        wanted = {self.agent.client_queue: count} if count else {}
        left = {}

        def as_wanted():
            left.clear()
            left.update({name: row["messages"] for name, row in self.node.list_queues().items()
                         if row["messages"] and ".parked." not in name})
            return left == wanted

        wait_until(as_wanted, f"the queues to hold {wanted}", 20, lambda: f"they hold {left}")

    def bare(self, batch):
        """One run of the bare consumer: (messages a second, its microseconds a message)."""
        output = self.folder / "bare.out"
        with open(output, "wb") as out:
            consumer = spawn([self.build / "bench/qel_bare_consumer", self.node.url(), self.agent.client_queue,
                              self.options.messages, PREFETCH, batch], stdout=out, stderr=out)
        try:
            wait_until(lambda: self.node.ctl("list_consumers", "--no-table-headers", "queue_name").strip(),
                       "the bare consumer to consume", 30, lambda: tail(output))
            consumer.send_signal(signal.SIGSTOP)
            self.fill()
            consumer.send_signal(signal.SIGCONT)
            if consumer.wait(600) != 0:
                raise RuntimeError(f"the bare consumer failed: {tail(output)}")
        finally:
            end(consumer, signal.SIGKILL)
        # It hangs up at once, and a quorum queue then takes messages back whose acknowledgement it has not dealt with.
        self.wait_for_no_connection()
        self.node.ctl("purge_queue", self.agent.client_queue)
        self.expect_left(0)
        rate, cost = re.match(r"([\d.]+) messages/s, ([\d.]+) us CPU per message", tail(output)).groups()
        return float(rate), float(cost)

    def wait_for_no_connection(self):
        """The broker has noticed that everybody has hung up."""
        wait_until(lambda: not self.node.ctl("list_connections", "--no-table-headers", "pid").strip(),
                   "all connections to be gone")


def measure(bench, runs):
    """The runs of every way, in turns: {way: [(rate, microseconds), ...]}."""
    ways = {"agent": bench.through_the_agent, "bare": lambda: bench.bare(1),
            f"bare/{BARE_BATCH}": lambda: bench.bare(BARE_BATCH)}
    results = {way: [] for way in ways}
    for run in range(1, runs + 1):
        for way, action in ways.items():
            results[way].append(action())
            print(f"  run {run} {way:9} {results[way][-1][0]:9.0f} messages/s", file=sys.stderr, flush=True)
    return results


def table(queue_type, results):
    """The rows for one queue type."""
    agent = statistics.median(rate for rate, _ in results["agent"])
    for way, runs in results.items():
        rates = [rate for rate, _ in runs]
        median = statistics.median(rates)
        cost = statistics.median(cost for _, cost in runs)
        yield (f"{queue_type:8} {way:9} {median:10.0f} {min(rates):10.0f} {max(rates):10.0f} {cost:8.2f} "
               f"{agent / median:11.2f}")


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n", maxsplit=1)[0])
    parser.add_argument("--build", type=pathlib.Path, default=ROOT / "build/release", help="the build directory")
    parser.add_argument("--messages", type=int, default=50000, help="messages a run")
    parser.add_argument("--bytes", type=int, default=256, help="bytes a body")
    parser.add_argument("--runs", type=int, default=5)
    parser.add_argument("--queue-types", nargs="+", default=["classic", "quorum"], choices=["classic", "quorum"])
    options = parser.parse_args()
    options.build = options.build.absolute()
    rows = []
    with tempfile.TemporaryDirectory(prefix="qel-", dir="/tmp") as name, RabbitNode(f"{name}/rabbit") as node:
        for queue_type in options.queue_types:
            print(f"{queue_type}:", file=sys.stderr)
            rows += table(queue_type, measure(Bench(options, node, pathlib.Path(name), queue_type), options.runs))
    commit = subprocess.run(["git", "-C", ROOT, "describe", "--always", "--dirty"], capture_output=True, text=True,
                            check=False).stdout.strip()
    print(f"{options.messages} persistent messages of {options.bytes} bytes, medians of {options.runs} runs; "
          f"{datetime.date.today()}, commit {commit}, {os.cpu_count()} cores, {platform.machine()}, load "
          f"{os.getloadavg()[0]:.1f}")
    print(f"{'queue':8} {'way':9} {'messages/s':>10} {'least':>10} {'most':>10} {'cpu us':>8} {'agent/this':>11}")
    print("\n".join(rows))


if __name__ == "__main__":
    main()
