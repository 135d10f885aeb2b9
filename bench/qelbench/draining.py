"""An agent's client queue that is filled while the agent is halted, and emptied by applications that answer at once."""

import dataclasses
import pathlib
import re
import signal
import time

import pika

from support.admin import Admin
from support.agent import AgentProcess
from support.plane import ManagementPlane
from testbed.processes import end, spawn, tail, wait_until

from .context import cpu_seconds, resident_mib

PREFETCH = 1000
BARE_BATCH = 100
PATIENCE = 600


@dataclasses.dataclass
class Drained:
    """One run, to the last verdict: its seconds, the agent's CPU seconds and most MiB, the messages that were parked."""

    seconds: float
    cpu: float
    most_mib: float
    parked: int


def _most_resident_mib(pid):
    """The most memory of the process that was in RAM since _forget_most()."""
    status = pathlib.Path(f"/proc/{pid}/status").read_text(encoding="ascii")
    return int(status.split("VmHWM:")[1].split()[0]) / 1024


def _forget_most(pid):
    pathlib.Path(f"/proc/{pid}/clear_refs").write_text("5", encoding="ascii")


class DrainedAgent:
    """A running agent with so many applications, each with one topic; the first of them may be attached."""

    def __init__(self, bench, agent_id, applications, prefetch=PREFETCH):
        self._bench, self.node = bench, bench.node()
        self._folder, self._prefetch = bench.scratch(agent_id), prefetch
        self.names = [f"app-{number}" for number in range(applications)]
        self.agent = AgentProcess(self._folder, agent_id, self.node.url(), {
            # It is halted for as long as filling takes, and the broker shall not mind.
            "broker": {"queue_type": "classic", "prefetch": prefetch, "heartbeat_seconds": 300},
            "log": {"level": 4}}, {name: {"window": 2 * prefetch} for name in self.names})
        self.admin = Admin(self.agent)

    def __enter__(self):
        self.agent.start()
        with ManagementPlane(self.node.url()) as plane:
            for name in self.names:
                plane.configure(self.agent, name, [self.topic_of(name)])
        wait_until(lambda: all(one["configuration"]["state"] == "applied"
                               for one in self.admin.status()["applications"]),
                   "all configurations to be applied", PATIENCE, self.agent.log_tail)
        return self

    def __exit__(self, *_):
        self.agent.stop()

    @staticmethod
    def topic_of(name):
        return f"bench.{name}.topic"

    def resident_mib(self):
        return resident_mib(self.agent.pid)

    def fill(self, names, messages, body):
        """Publishes persistent messages for the applications in turns, and waits until the queue has them all."""
        connection = pika.BlockingConnection(pika.URLParameters(self.node.url()))
        channel = connection.channel()
        for number in range(messages):
            channel.basic_publish(self.agent.exchange, self.topic_of(names[number % len(names)]), body,
                                  pika.BasicProperties(delivery_mode=2))
        connection.close()
        self.expect_left(messages)

    def expect_left(self, count):
        """The client queue holds so many messages, acknowledgements included, and no other queue of the agent's any."""
        wanted = {self.agent.client_queue: count} if count else {}
        left = {}

        def as_wanted():
            left.clear()
            left.update({name: row["messages"] for name, row in self.node.list_queues().items() if row["messages"]})
            return left == wanted

        wait_until(as_wanted, f"the queues to hold {wanted}", 60, lambda: f"they hold {left}")

    def drain(self, attached, messages, body):
        """One run with so many applications attached.

        Everything arrives, or it fails: a consumer ends when it has answered its share, and the queue is empty then.
        """
        names, share = self.names[:attached], messages // attached
        outputs = [self._folder / f"{name}.out" for name in names]
        consumers = []
        try:
            for name, output in zip(names, outputs):
                with open(output, "wb") as out:
                    consumers.append(spawn([self._bench.program("bench/qel_attach_consumer"), self.agent.socket(name),
                                            share], stdout=out, stderr=out))
            wait_until(lambda: all("welcome" in output.read_text(encoding="utf-8") for output in outputs),
                       "the consumers to be attached", 60, lambda: tail(outputs[0]) + self.agent.log_tail())
            wait_until(lambda: self._are_live(names), "the applications to be done with their parking queues", 60,
                       self.agent.log_tail)
            self.agent.signal(signal.SIGSTOP)
            self.fill(names, share * attached, body)
            _forget_most(self.agent.pid)
            cpu, began = cpu_seconds(self.agent.pid), time.monotonic()
            self.agent.signal(signal.SIGCONT)
            statuses = [consumer.wait(PATIENCE) for consumer in consumers]
            seconds, used = time.monotonic() - began, cpu_seconds(self.agent.pid) - cpu
            if any(statuses):
                raise RuntimeError(f"a consumer failed: {[tail(output) for output in outputs]}"
                                   f"{self.agent.log_tail()}")
            self.expect_left(0)
            parked = sum(one["parked"] for one in self.admin.status()["applications"])
            return Drained(seconds, used, _most_resident_mib(self.agent.pid), parked)
        finally:
            self.agent.signal(signal.SIGCONT)
            for consumer in consumers:
                end(consumer)

    def _are_live(self, names):
        """Whether messages go to these applications at once, not by the parking queues that they begin with."""
        flows = {one["name"]: one["flow"] for one in self.admin.status()["applications"]}
        return all(flows[name] == "live" for name in names)

    def bare(self, messages, body):
        """The same by a bare consumer of the queue, when the agent has ended: messages a second, its µs a message."""
        output = self._folder / "bare.out"
        with open(output, "wb") as out:
            consumer = spawn([self._bench.program("bench/qel_bare_consumer"), self.node.url(), self.agent.client_queue,
                              messages, self._prefetch, min(BARE_BATCH, self._prefetch)], stdout=out, stderr=out)
        try:
            wait_until(lambda: self.node.list_consumers(), "the bare consumer to consume", 60, lambda: tail(output))
            consumer.send_signal(signal.SIGSTOP)
            self.fill(self.names, messages, body)
            consumer.send_signal(signal.SIGCONT)
            if consumer.wait(PATIENCE) != 0:
                raise RuntimeError(f"the bare consumer failed: {tail(output)}")
        finally:
            end(consumer, signal.SIGKILL)
        self._bench.wait_for_no_connection(self.node)
        self.expect_left(0)
        rate, cost = re.match(r"([\d.]+) messages/s, ([\d.]+) us CPU per message", tail(output)).groups()
        return float(rate), float(cost)
