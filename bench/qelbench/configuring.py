"""An agent whose one application is configured again and again, and a bare loop of binds beside it."""

import json
import subprocess
import threading
import time

from support.agent import AgentProcess
from support.application import GrpcApplication, schema
from support.plane import ManagementPlane

from .context import cpu_seconds, resident_mib

APPLICATION = "bench"
PATIENCE = 1800
BARE_EXCHANGE = "qel.bare"
BARE_QUEUE = "qel.bare"


class ConfiguredApplication(GrpcApplication):
    """An application that notes when it learnt of its configuration's end."""

    def __init__(self, *arguments):
        self._ended_at = {}
        self._ended_or_not = threading.Condition()
        super().__init__(*arguments)

    def _sort(self, response):
        now = time.monotonic()
        super()._sort(response)
        if response.WhichOneof("kind") == "configuration":
            with self._ended_or_not:
                self._ended_at[response.configuration.state] = now
                self._ended_or_not.notify_all()

    def forget(self):
        """Counts from now on only."""
        with self._ended_or_not:
            self._ended_at.clear()

    def wait_until_applied(self):
        """When the application was told that its configuration is in force."""
        applied, failed = schema.Configuration.APPLIED, schema.Configuration.FAILED
        with self._ended_or_not:
            ended = self._ended_or_not.wait_for(
                lambda: applied in self._ended_at or failed in self._ended_at, PATIENCE)
            if not ended or failed in self._ended_at:
                raise RuntimeError(f"the configuration was not applied\n{self.agent.log_tail()}")
            return self._ended_at[applied]


class ConfiguredAgent:
    """A running agent with one application attached, and what the management plane does to it."""

    def __init__(self, folder, node, queue_type):
        self.node = node
        self.agent = AgentProcess(folder, "bench", node.url(),
                                  {"log": {"level": 4}, "broker": {"queue_type": queue_type}}, {APPLICATION: {}})

    def __enter__(self):
        self.agent.start()
        self.application = ConfiguredApplication(self.agent, APPLICATION)
        self.application.wait_for_welcome()
        return self

    def __exit__(self, *_):
        self.application.close()
        self.agent.stop()

    def configure(self, topics):
        """From the sending of the configuration to the application's knowledge: (seconds, the agent's CPU seconds)."""
        self.application.forget()
        # A connection for each: one that lies idle while topics are bound would miss its heartbeats.
        with ManagementPlane(self.node.url()) as plane:
            cpu, began = cpu_seconds(self.agent.pid), time.monotonic()
            plane.configure(self.agent, APPLICATION, topics)
        seconds = self.application.wait_until_applied() - began
        return seconds, cpu_seconds(self.agent.pid) - cpu

    def expect_bindings(self, topics, bare_topics):
        """The broker has exactly these topics on the agent's exchange, and these on the bare loop's."""
        bindings = self.node.list_bindings()
        for exchange, wanted in ((self.agent.exchange, topics), (BARE_EXCHANGE, bare_topics)):
            bound = {key for source, _, key in bindings if source == exchange}
            if bound != set(wanted):
                raise RuntimeError(f"{len(bound)} topics are bound on {exchange} instead of {len(wanted)}")

    def resident_mib(self):
        return resident_mib(self.agent.pid)


class BareBinds:
    """The same binds by a program that does nothing else, on an exchange and a queue like the agent's."""

    def __init__(self, program, configured, queue_type):
        self._program, self._configured = program, configured
        with ManagementPlane(configured.node.url()) as plane:
            plane.channel.exchange_declare(BARE_EXCHANGE, "topic", durable=True)
            plane.channel.queue_declare(BARE_QUEUE, durable=True, arguments={"x-queue-type": queue_type})

    def run(self, prefix, count, what="bind"):
        """Binds or unbinds the topics PREFIX0, PREFIX1, ...: (seconds, CPU seconds)."""
        done = subprocess.run([self._program, self._configured.node.url(), BARE_EXCHANGE, BARE_QUEUE, prefix,
                               str(count), what], check=True, stdout=subprocess.PIPE, timeout=PATIENCE)
        result = json.loads(done.stdout)
        return result["seconds"], result["cpu_seconds"]
