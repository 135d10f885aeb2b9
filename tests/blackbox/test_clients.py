"""What the client of each language tells its application: the agent's welcome, configurations and the agent's refusals."""

import os
import pathlib
import re

import pytest

from support.examples import BUILT, EXAMPLES, STUBS, Example

PROBES = pathlib.Path(__file__).parent / "probes"
COMMANDS = {
    "cpp": [os.environ.get("QEL_PROBE", BUILT.parents[1] / "tests/blackbox/qel-client-probe")],
    "python": ["/usr/bin/python3", "-B", PROBES / "probe.py"],
    "nodejs": ["node", PROBES / "probe.js"],
}
# Where the probes find the client modules.
MODULES = {"PYTHONPATH": f"{EXAMPLES / 'python'}:{STUBS}", "NODE_PATH": str(EXAMPLES / "nodejs")}


class Probe(Example):
    """A probe, attached, which does what it is asked to."""

    def __init__(self, agent, language, application="web", window=0):
        super().__init__(agent, [*COMMANDS[language], application, str(window)],
                         further=MODULES)

    def ask(self, command):
        """The outcome of a command."""
        before = len(self._outcomes())
        self.feed(command)
        self.wait_until(lambda: len(self._outcomes()) > before, f"the outcome of {command}")
        return self._outcomes()[before]

    def _outcomes(self):
        return [line for line in self.lines() if re.match("error|in force|published", line)]


@pytest.mark.parametrize("language", COMMANDS)
def test_an_application_is_told_of_its_configuration_and_may_ask_for_another(world, language):
    requests = f"requests.{language}"
    agent = world.agent({"management": {"exchange": "", "routing_key": requests}},
                        {"web": {"ordering_key": "header:customer", "window": 7}})
    plane = world.plane()
    with Probe(agent, language, window=5) as probe:
        probe.wait_for("welcome web 5 header:customer MISSING CONNECTED", "configuration MISSING", "broker CONNECTED")
        assert probe.ask("request").startswith("error NoPlane no queue takes the request")
        plane.declare_queue(requests)
        # Less than a second after it has asked, an application is told so.
        probe.wait_until(lambda: probe.ask("request") == "in force MISSING", "the request to be on its way")
        probe.wait_until(lambda: "error TooSoon" in probe.ask("request"), "a request to come too soon")
        assert plane.wait_and_take(requests, agent)[0].app_id == "web"
        plane.configure(agent, "web", topics=["orders.*"])
        probe.wait_for("configuration APPLIED orders.*")
        assert probe.ask(f"publish 3 {agent.exchange} orders.new Ada") == "published 3"
        probe.wait_for("message orders.new Ada 3")
        assert probe.stop() == 0


@pytest.mark.parametrize("language", COMMANDS)
def test_a_refusal_says_what_to_do(world, language):
    agent = world.agent(applications=["web"])
    with Probe(agent, language) as probe:
        for command, outcome in [
                ("request", r"NotSetUp .*no management plane.*the operator has to mend \[management\]"),
                ("publish 1 - nowhere", "NoRoute no queue takes the message: is its receiver configured"),
                ("publish 1 nosuch orders.new", "Refused .*no exchange 'nosuch'.*: not sent, mend the message"),
                (f"publish 1 - {'k' * 256}", "Refused routing_key has 256 bytes.*255"),
                (f"publish {17 << 20} - web.jobs", "Refused the message is too large for the agent: .*16777216"),
                (f"publish 1 - {agent.client_queue}", "")]:
            answer = probe.ask(command)
            assert re.match(f"error {outcome}" if outcome else "published 1", answer), command
        assert probe.stop() == 0
    with Probe(agent, language, window=70000) as probe:
        probe.wait_for("error AttachError the window is 70000: ask for 1 to 65535 deliveries")
        assert probe.finish() == 0
