"""qelctl dev: an application's whole surroundings, and nothing of them afterwards."""

import contextlib
import json
import os
import pathlib
import shlex
import signal
import socket
import subprocess

import pytest
from support.application import GrpcApplication
from support.pages import commands
from support.paths import program
from support.plane import ManagementPlane
from support.qelctl import QelctlProcess
from testbed.processes import wait_until

START_PATIENCE = 120


class Dev:
    """`qelctl --json dev web`, running; for an application in the place of the agent that it attaches to."""

    def __init__(self, folder, *options):
        self.process = QelctlProcess(folder, "dev", "web", "--agent", program("qel-agent"), "--start-timeout",
                                     str(START_PATIENCE), *options)
        try:
            self.told = self.process.wait_for(lambda line: line["event"] == "running", "dev to run", START_PATIENCE)
            self.process.wait_for(lambda line: line["event"] == "sent", "the configuration to be sent")
        except BaseException:
            self.process.close()
            raise
        self.configuration = pathlib.Path(self.told["configuration"])
        self.children = children_of(self.process.pid)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.close()

    def environment(self):
        """What the file for other terminals says."""
        lines = pathlib.Path(self.told["environment"]).read_text(encoding="utf-8").splitlines()
        return dict(line.removeprefix("export ").split("=", 1) for line in lines)

    def socket(self, _):
        return self.told["socket"]

    def log_tail(self):
        return self.process.diagnose()

    def wait_until_gone(self):
        """Waits until none of its children runs."""
        wait_until(lambda: not any(pathlib.Path(f"/proc/{pid}").exists() for pid in self.children), "its children")


def children_of(pid):
    """{pid: name} of all processes below this one; some of the broker's come and go."""
    found = {}
    for listed in pathlib.Path(f"/proc/{pid}/task").glob("*/children"):
        children = ""
        with contextlib.suppress(FileNotFoundError, ProcessLookupError):
            children = listed.read_text(encoding="ascii")
        for child in map(int, children.split()):
            with contextlib.suppress(FileNotFoundError, ProcessLookupError):
                found[child] = pathlib.Path(f"/proc/{child}/comm").read_text(encoding="utf-8").strip()
            found.update(children_of(child))
    return found


@pytest.fixture
def folder(lonely_world, monkeypatch):
    """Where dev makes its own, because that is for temporary files."""
    made = lonely_world.folder / "tmp"
    made.mkdir()
    monkeypatch.setenv("TMPDIR", str(made))
    return made


def test_an_application_has_what_it_needs_and_nothing_is_left(lonely_world, folder):
    with Dev(lonely_world.folder) as dev:
        environment = dev.environment()
        url = environment["QEL_BROKER_URL"].replace("@", f":{environment['QEL_BROKER_PASSWORD']}@")
        with GrpcApplication(dev, "web").wait_for_welcome() as application, ManagementPlane(url) as plane:
            application.wait_for_state("APPLIED", ["web.#"])
            plane.publish("qel", "web.hello", b"by topic")
            plane.publish("", "web.jobs", b"by queue")
            assert sorted(application.take(2)) == [b"by queue", b"by topic"]

            dev.configuration.write_text(json.dumps({"topicInfo": [{"topic": "other.*"}]}), encoding="utf-8")
            application.wait_for_state("APPLIED", ["other.*"])
            plane.publish("qel", "other.hello", b"by the edited one")
            assert application.take() == [b"by the edited one"]

        # What is typed in another terminal, with what the environment holds.
        typed = {"env": {**os.environ, **environment}, "capture_output": True, "text": True, "timeout": 60}
        subprocess.run([program("qelctl"), "publish", "--routing-key", "qel.client.dev", "--app-id", "web", "hello"],
                       check=True, **typed)
        shown = subprocess.run([program("qelctl"), "attach", "web", "--count", "1"], check=True, **typed)
        assert '"hello"' in shown.stdout
        assert len(dev.children) >= 3
        assert dev.process.end(patience=60) == 0
        dev.wait_until_gone()
    assert list(folder.iterdir()) == []


def test_the_documentation_can_be_followed_and_what_is_kept_is_used_again(lonely_world, monkeypatch):
    monkeypatch.chdir(lonely_world.folder)
    first, rest = commands()["applications.md", "Without a fleet"].split("\n", 1)
    *start, name, keep, folder = shlex.split(first)
    assert (start, name, keep) == (["qelctl", "dev"], "web", "--keep")
    with Dev(lonely_world.folder, keep, folder) as dev:
        done = subprocess.run(["sh", "-ec", rest], capture_output=True, text=True, timeout=120, check=False, env={
            **os.environ, "PATH": f"{program('qelctl').parent}:{os.environ['PATH']}"})
        assert done.returncode == 0, done.stdout + done.stderr
        assert 'orders.bad: "hello"' in done.stdout and "a bad one" in done.stdout
        [agent] = [pid for pid, name in dev.children.items() if name == "qel-agent"]
        os.kill(agent, signal.SIGKILL)
        assert dev.process.wait_for_exit(60) == 1
        assert "the agent was ended by the signal Killed; its last words:\n" in dev.process.errors()
        dev.wait_until_gone()
    with Dev(lonely_world.folder, keep, folder) as dev, GrpcApplication(dev, "web").wait_for_welcome() as application:
        application.wait_for_state("APPLIED", ["orders.#"])
        [broker] = [pid for pid, name in dev.children.items() if name == "beam.smp"]
        os.kill(broker, signal.SIGKILL)
        assert dev.process.wait_for_exit(60) == 1
        assert "the broker was ended by the signal Killed; its last words:\n" in dev.process.errors()
        dev.wait_until_gone()


@pytest.fixture(scope="module")
def taken_port():
    with socket.create_server(("127.0.0.1", 0)) as taken:
        yield str(taken.getsockname()[1])


@pytest.mark.parametrize("options, told", [
    (["--rabbitmq", "/nowhere"], "there is no /nowhere/rabbitmq-server: install it (apt install rabbitmq-server"),
    (["--agent", "/nowhere/qel-agent"], "there is no /nowhere/qel-agent: say --agent PATH"),
    (["--port", None], "cannot be had: Address already in use: give another with --port"),
    (["--start-timeout", "0.01"], "the broker is not ready after 0.01 s: wait longer with --start-timeout"),
    (["--keep", "a folder"], "RabbitMQ takes only letters")])
def test_what_keeps_it_from_starting_is_said_with_the_cure(folder, taken_port, options, told):
    agent = [] if "--agent" in options else ["--agent", program("qel-agent")]
    done = subprocess.run([program("qelctl"), "dev", "web", *agent, *(option or taken_port for option in options)],
                          capture_output=True, text=True, timeout=120, check=False)
    assert done.returncode == (2 if "--keep" in options else 1)
    assert done.stderr.startswith("qelctl: ") and told in done.stderr
    assert list(folder.iterdir()) == []
