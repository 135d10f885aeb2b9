"""What the tour is played on: a RabbitMQ node with two listeners, an agent, two attached applications, qelctl."""

import contextlib
import json
import os
import pathlib
import subprocess

from testbed.processes import ProcessFailed, end, spawn, tail, wait_until
from testbed.rabbitnode import RabbitNode

from .folder import ROOT, check_socket_path

AGENT = "demo"
EXCHANGE = "qel"
CLIENT_QUEUE = f"qel.client.{AGENT}"
PRIORITY_QUEUE = f"qel.priority.{AGENT}"
CONFIGURATION_TYPE = "com.brelix.vtx.messaging.appinit.AppInitConfigMsg"
REASSIGN_WITHIN_SECONDS = 3
# The last one has nobody attached: it is for trying by hand.
APPLICATIONS = ("orders", "billing", "audit")


def program(variable, default):
    """A built program, from the environment or from the release build."""
    return pathlib.Path(os.environ.get(variable, ROOT / "build" / "release" / default)).absolute()


class Application:
    """One `qelctl attach NAME --json`; what it prints goes to a file that we read."""

    def __init__(self, name, stage):
        self.name = name
        self._output = stage.folder / f"{name}.out"
        self._errors = stage.folder / f"{name}.err"
        with open(self._output, "wb") as output, open(self._errors, "wb") as errors:
            self.process = spawn([stage.qelctl, "attach", name, "--json", "--instance", "demo", "--runtime-directory",
                                  stage.runtime_directory], stdout=output, stderr=errors)

    def events(self, kind):
        """The complete lines of one kind, decoded."""
        text = self._output.read_text(encoding="utf-8")
        lines = map(json.loads, text[:text.rfind("\n") + 1].splitlines())
        return [line for line in lines if line["event"] == kind]

    def deliveries(self):
        """What it has got, without the configurations themselves, which applications are given to see, too."""
        return [line for line in self.events("delivery") if line["type"] != CONFIGURATION_TYPE]

    def has_configuration(self, topics, queues):
        """Whether the agent says that exactly these are in force now."""
        latest = self.events("configuration")[-1:]
        return bool(latest) and latest[0]["state"] == "APPLIED" and \
            (sorted(latest[0]["topics"]), sorted(latest[0]["queues"])) == (sorted(topics), sorted(queues))

    @staticmethod
    def describe(delivery):
        where = f"exchange {delivery['exchange']}" if delivery["exchange"] else "the default exchange"
        lane = "priority queue" if delivery["priority"] else delivery["queue"]
        return f"\"{delivery.get('body', '(bytes)')}\" by {where}, key {delivery['routingKey']}, from {lane}"

    def diagnose(self):
        return f"--- qelctl attach {self.name}\n{tail(self._output, 10)}{tail(self._errors, 10)}"


class Stage:
    """Starts everything on entering and ends everything on leaving, whatever happens in between."""

    def __init__(self, folder):
        self.folder = folder
        self.runtime_directory = folder / "r"
        self.applications = []
        self.agent = None
        self.node = None
        self.agent_program = program("QEL_AGENT", "src/agent/qel-agent")
        self.qelctl = program("QELCTL", "tools/qelctl/qelctl")
        self._log = folder / "agent.log"
        self._ending = contextlib.ExitStack()

    def __enter__(self):
        for name in APPLICATIONS:
            check_socket_path(self.runtime_directory / "apps" / f"{name}.sock")
        with contextlib.ExitStack() as on_error:
            on_error.push(self._ending)
            self._start_broker()
            self._start_agent()
            self._attach_applications()
            on_error.pop_all()
        return self

    def __exit__(self, *_):
        self._ending.close()

    def _start_broker(self):
        print("Starting a RabbitMQ node of our own ...", flush=True)
        self.node = self._ending.enter_context(RabbitNode(self.folder / "rabbit", listeners=2))
        print(f"   it listens on the ports {' and '.join(map(str, self.node.ports))}")

    def _start_agent(self):
        self._write_configuration()
        with open(self._log, "wb") as log:
            self.agent = spawn([self.agent_program, "run", "--config", self.folder / "qel.toml"],
                               stdout=log, stderr=log)
        self._ending.callback(lambda: end(self.agent))
        self.wait_until(lambda: "qel-agent is ready" in self._log.read_text(encoding="utf-8", errors="replace"),
                        "the agent to be ready")
        print(f"The agent {AGENT} is ready (pid {self.agent.pid}, log {self._log.relative_to(ROOT)})")

    def _write_configuration(self):
        drop_ins = self.folder / "apps.d"
        for directory in (self.runtime_directory, self.folder / "state", drop_ins):
            directory.mkdir()
        for name in APPLICATIONS:
            (drop_ins / f"{name}.toml").write_text("", encoding="ascii")
        password = self.folder / "password"
        password.write_text("guest\n", encoding="ascii")
        password.chmod(0o600)
        urls = ", ".join(f'"amqp://127.0.0.1:{port}/"' for port in self.node.ports)
        (self.folder / "qel.toml").write_text(f"""\
[agent]
id = "{AGENT}"
state_directory = "{self.folder / 'state'}"
runtime_directory = "{self.runtime_directory}"

[broker]
urls = [{urls}]
user = "guest"
password_file = "{password}"
exchange = "{EXCHANGE}"
exchange_type = "topic"
client_queue = "{CLIENT_QUEUE}"
priority_queue = "{PRIORITY_QUEUE}"
reassign_within_seconds = {REASSIGN_WITHIN_SECONDS}

[applications]
directory = "{drop_ins}"
""", encoding="utf-8")

    def _attach_applications(self):
        for name in APPLICATIONS[:2]:
            application = Application(name, self)
            self._ending.callback(end, application.process)
            self.applications.append(application)
        for application in self.applications:
            self.wait_until(lambda one=application: one.events("welcome"), f"{application.name} to be attached")
        print(f"The applications {' and '.join(one.name for one in self.applications)} are attached (qelctl attach)")

    def stop_agent(self):
        """Detaches the applications and stops the agent in order. @returns its exit status, None when it had to be killed."""
        for application in self.applications:
            status = end(application.process)
            if status != 0:
                raise ProcessFailed(f"qelctl attach ended with status {status}\n{application.diagnose()}")
        return end(self.agent)

    def application(self, name):
        return next(one for one in self.applications if one.name == name)

    def wait_until(self, condition, what, patience=30.0):
        """Polls until the condition is true. @raises ProcessFailed in the end, or as soon as a process has ended."""
        def alive_and_condition():
            value = condition()
            if not value:
                self.check_alive()
            return value

        return wait_until(alive_and_condition, what, patience, self.diagnose)

    def check_alive(self):
        """@raises ProcessFailed when the agent or an application has ended."""
        if self.agent and self.agent.poll() is not None:
            raise ProcessFailed(f"the agent has ended with status {self.agent.returncode}\n{self.diagnose()}")
        for application in self.applications:
            if application.process.poll() is not None:
                raise ProcessFailed(f"the application {application.name} has ended with status "
                                    f"{application.process.returncode}\n{application.diagnose()}{self.diagnose()}")

    def diagnose(self):
        return f"--- the agent's log ({self._log.relative_to(ROOT)})\n{tail(self._log, 30)}"

    def run_qelctl(self, *arguments, status=0):
        """Runs a verb against our broker. @returns the standard output; with another status the standard error."""
        done = subprocess.run([self.qelctl, *map(str, arguments)], stdin=subprocess.DEVNULL, capture_output=True,
                              text=True, timeout=60, check=False,
                              env={**os.environ, "QEL_BROKER_URL": self.node.url()})
        if done.returncode != status:
            raise ProcessFailed(f"qelctl {' '.join(map(str, arguments))} ended with status {done.returncode}, not "
                                f"{status}: {done.stdout}{done.stderr}\n{self.diagnose()}")
        return (done.stdout if status == 0 else done.stderr).strip()

    def bindings(self):
        """The agent's bindings as (queue, key), sorted."""
        return sorted((queue, key) for exchange, queue, key in self.node.list_bindings() if exchange == EXCHANGE)

    def consumers(self, queue):
        """How many consumers the broker knows for the queue."""
        rows = json.loads(self.node.ctl("list_consumers", "--formatter", "json", "queue_name") or "[]")
        return sum(row["queue_name"] == queue for row in rows)

    def agent_ports(self):
        """The broker's ports that the agent's connections come in on."""
        rows = json.loads(self.node.ctl("list_connections", "--formatter", "json", "port", "client_properties") or "[]")
        return {row["port"] for row in rows if "qelctl" not in json.dumps(row["client_properties"])}
