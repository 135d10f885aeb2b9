"""The steps of the tour: each does one thing as the management plane would, looks at what came of it, and says so."""

import json
import pathlib

from testbed.processes import ProcessFailed

from .folder import ROOT
from .stage import AGENT, CLIENT_QUEUE, EXCHANGE, PRIORITY_QUEUE, REASSIGN_WITHIN_SECONDS

ORDERS = {"topicInfo": [{"topic": "orders.created"}, {"topic": "orders.urgent", "priority": 1}],
          "queueName": ["orders.batch"]}
BILLING = {"topicInfo": [{"topic": "billing.invoice"}, {"topic": "billing.alarm", "priority": 1}]}
ORDERS_REPLACED = {"topicInfo": [{"topic": "orders.created"}, {"topic": "orders.returned"}]}


class StepFailed(Exception):
    """Something was not seen as it has to be; the text names the step."""


def topics_of(configuration):
    return [entry["topic"] for entry in configuration["topicInfo"]]


def queues_of(configuration):
    return configuration.get("queueName", [])


def say(text):
    print(f"   {text}", flush=True)


def expect(seen, what):
    """@raises StepFailed when something was not seen."""
    if not seen:
        raise StepFailed(f"expected {what}")


def one_of(values):
    return next(iter(values))


def shown(path):
    """A path as somebody in the repository's folder types it."""
    path = pathlib.Path(path)
    return path.relative_to(ROOT) if path.is_relative_to(ROOT) else path


class Tour:
    """Plays the steps on a stage, in order; the first that fails ends it with StepFailed."""

    def __init__(self, stage):
        self._stage = stage
        self._steps = 0
        self._bindings = []
        # How many deliveries of each application were looked at already.
        self._seen = dict.fromkeys((one.name for one in stage.applications), 0)

    def play(self):
        """Every step but the last."""
        self._step("Ping the agent", self._ping)
        self._step("Configure both applications", self._configure)
        self._step("Publish to their topics, their queue and by application name", self._publish)
        self._step("Replace the configuration of orders", self._replace)
        self._step("Hint the agent to move to another of its brokers", self._reassign)

    def finish(self):
        """The last step: everything ends in order."""
        self._step("Stop the agent", self._stop)
        print("Every step was seen to work.")

    def print_commands(self):
        """What to try by hand; the stage goes on running meanwhile."""
        qelctl = shown(self._stage.qelctl)
        runtime = shown(self._stage.runtime_directory)
        print(f"""
Everything goes on running until Ctrl-C; what the applications get is shown here. To try by hand, in another terminal:

   cd {ROOT}
   export QEL_BROKER_URL={self._stage.node.url()}
   {qelctl} ping {AGENT} --count 3
   {qelctl} publish --exchange {EXCHANGE} --routing-key orders.created --mandatory 'hello'
   {qelctl} publish --routing-key {CLIENT_QUEUE} --app-id billing 'for billing by name'
   {qelctl} attach audit --runtime-directory {runtime} &
   echo '{{"topicInfo": [{{"topic": "audit.#"}}]}}' | {qelctl} configure {AGENT} audit -
   {qelctl} publish --exchange {EXCHANGE} --routing-key audit.login --mandatory 'caught by a wildcard'
   {qelctl} reassign {AGENT}
""", flush=True)

    def _step(self, title, action):
        self._steps += 1
        print(f"\n{self._steps}. {title}", flush=True)
        try:
            action()
        except (StepFailed, ProcessFailed) as failure:
            raise StepFailed(f"step {self._steps} ({title}) was not seen to work: {failure}") from failure

    def _ping(self):
        answer = json.loads(self._stage.run_qelctl("ping", AGENT, "--json"))
        say(f"the agent answered over the broker in {answer['roundTripMs']:.2f} ms")

    def _configure(self):
        before = self._stage.bindings()
        expect(not before, f"no bindings before, but there are {before}")
        say("the agent's bindings before: none")
        self._send_configuration("orders", ORDERS)
        self._send_configuration("billing", BILLING)
        self._expect_bindings(ORDERS, BILLING)
        expect(self._stage.consumers("orders.batch") == 1, "the queue orders.batch to have one consumer")
        say("the queue orders.batch is declared and consumed")

    def _publish(self):
        wanted = {
            "orders": [(EXCHANGE, "orders.created", "an order", False), (EXCHANGE, "orders.urgent", "a rush", True),
                       ("", "orders.batch", "a batch", False)],
            "billing": [(EXCHANGE, "billing.invoice", "an invoice", False), (EXCHANGE, "billing.alarm", "an alarm", True)],
        }
        for messages in wanted.values():
            for exchange, key, body, _ in messages:
                self._send(exchange, key, body)
        self._send("", CLIENT_QUEUE, "to billing by name", "--app-id", "billing")
        wanted["billing"].append(("", CLIENT_QUEUE, "to billing by name", False))
        for name, messages in wanted.items():
            self._expect_deliveries(name, messages)

    def _replace(self):
        self._send_configuration("orders", ORDERS_REPLACED)
        self._expect_bindings(ORDERS_REPLACED, BILLING)
        refusal = self._stage.run_qelctl("publish", "--exchange", EXCHANGE, "--routing-key", "orders.urgent",
                                         "--mandatory", "nobody wants this", status=1)
        expect("no queue takes it" in refusal, f"a message for orders.urgent to be returned, not: {refusal}")
        say("orders.urgent: the broker says that no queue takes it any more")
        expect(self._stage.consumers("orders.batch") == 0, "the queue orders.batch to have no consumer")
        say("orders.batch is not consumed any more")
        self._send(EXCHANGE, "orders.returned", "a return")
        self._expect_deliveries("orders", [(EXCHANGE, "orders.returned", "a return", False)])

    def _reassign(self):
        before = self._stage.agent_ports()
        expect(len(before) == 1, f"the agent's connections to be on one port, not {before}")
        say(f"before: the agent is connected to port {one_of(before)}")
        self._stage.run_qelctl("reassign", AGENT)
        say(f"the hint is in the agent's queue; it moves within {REASSIGN_WITHIN_SECONDS} s")

        def moved():
            ports = self._stage.agent_ports()
            return ports if len(ports) == 1 and ports != before else None

        after = self._stage.wait_until(moved, "the agent's connections to be on the other port")
        say(f"after: it is connected to port {one_of(after)}")
        self._expect_bindings(ORDERS_REPLACED, BILLING)
        self._send(EXCHANGE, "orders.created", "an order after the move")
        self._expect_deliveries("orders", [(EXCHANGE, "orders.created", "an order after the move", False)])
        self._ping()

    def _stop(self):
        status = self._stage.stop_agent()
        expect(status == 0, f"the agent to end with status 0, not {status}")
        say("on SIGTERM it ended with status 0")

    def _send_configuration(self, name, configuration):
        file = self._stage.folder / f"{name}.json"
        file.write_text(json.dumps(configuration, indent=2), encoding="utf-8")
        self._stage.run_qelctl("configure", AGENT, name, file)
        application = self._stage.application(name)
        topics, queues = topics_of(configuration), queues_of(configuration)
        self._stage.wait_until(lambda: application.has_configuration(topics, queues),
                               f"the agent to tell {name} that its configuration is in force")
        say(f"{name} is told: topics {', '.join(topics)}; queues {', '.join(queues) or 'none'}")

    def _expect_bindings(self, *configurations):
        wanted = sorted((CLIENT_QUEUE if entry.get("priority", 0) == 0 else PRIORITY_QUEUE, entry["topic"])
                        for configuration in configurations for entry in configuration["topicInfo"])
        found = self._stage.bindings()
        expect(found == wanted, f"the bindings {wanted}, but there are {found}")
        for word, bindings in (("kept", set(found) & set(self._bindings)), ("gone", set(self._bindings) - set(found)),
                               ("new", set(found) - set(self._bindings))):
            if bindings:
                say(f"bindings {word}: " + ", ".join(f"{key} -> {queue}" for queue, key in sorted(bindings)))
        self._bindings = found

    def _send(self, exchange, key, body, *options):
        self._stage.run_qelctl("publish", "--exchange", exchange, "--routing-key", key, "--mandatory", "--persistent",
                               *options, body)

    def _expect_deliveries(self, name, messages):
        """The application gets these messages since the last look, in any order, each once and nothing else."""
        application = self._stage.application(name)
        wanted = sorted(messages)

        def fresh():
            return application.deliveries()[self._seen[name]:]

        self._stage.wait_until(lambda: len(fresh()) >= len(wanted), f"{name} to get {len(wanted)} messages")
        got = fresh()
        found = sorted((one["exchange"], one["routingKey"], one.get("body"), one["priority"]) for one in got)
        expect(found == wanted, f"{name} to get {wanted}, but it got {found}")
        for delivery in got:
            say(f"{name} got {application.describe(delivery)}")
        self._seen[name] += len(got)
