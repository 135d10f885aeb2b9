"""Every example in every language, with the agent killed while it is at work: it comes back by itself, nothing is lost."""

import contextlib
import os
import re
import shlex
import subprocess

import pytest
from support.examples import BUILT, COMMANDS, EXAMPLES, Example
from support.paths import PROTO_ROOT, ROOT, program

ROLES = ("consumer", "worker", "publisher", "service")
COUNT = 40


def queue_of(application):
    return f"{application}.jobs"


class Requester:
    """Sends requests and collects the answers, each by its correlation id."""

    def __init__(self, plane, queue):
        self.answers = {}
        self._plane = plane
        self._queue = queue
        self._replies = plane.channel.queue_declare("", exclusive=True).method.queue

    def ask(self, *texts):
        for text in texts:
            self._plane.publish("", self._queue, text.encode(), reply_to=self._replies, correlation_id=text)

    def has_answers(self, *texts):
        while taken := self._plane.take(self._replies):
            properties, body = taken
            self.answers[properties.correlation_id] = body.decode()
        return all(self.answers.get(text) == text.upper() for text in texts)


def configure(agent, plane, names):
    for name in names:
        plane.configure(agent, name, queues=[queue_of(name)])


def dead_letters(agent, plane, bodies):
    """{body: reason} of what is in the dead-letter queue when all of the bodies are."""
    found = {}

    def complete():
        while taken := plane.take(agent.dead_letter_queue):
            found[taken[1].decode()] = taken[0].headers["x-qel-reason"]
        return set(bodies) <= set(found)

    agent.wait_until(complete, f"the dead letters {bodies} (there are {found})", 60.0)
    return found


@pytest.mark.parametrize("language", COMMANDS)
def test_examples_survive_the_agent(world, language):
    names = {role: f"{language}-{role}" for role in ROLES}
    agent, plane = world.agent(applications=names.values()), world.plane()
    configure(agent, plane, names.values())
    agent.wait_until(lambda: all(queue_of(name) in world.node.list_queues() for name in names.values()), "the queues")
    with contextlib.ExitStack() as stack:
        further = {"publisher": ("", queue_of(names["consumer"]))}
        run = {role: stack.enter_context(Example(agent, [*COMMANDS[language](role), name, *further.get(role, ())]))
               for role, name in names.items()}
        orders = [f"order {number}" for number in range(COUNT)]
        files = [world.folder / f"file-{number}" for number in range(COUNT)]
        for file in files:
            file.write_text(file.name, encoding="ascii")
        later, never = world.folder / "later", world.folder / "never"
        requests = [f"request {number}" for number in range(COUNT)]
        requester = Requester(plane, queue_of(names["service"]))

        def give_work(part):
            run["publisher"].feed(*orders[part])
            for file in files[part]:
                plane.publish("", queue_of(names["worker"]), str(file).encode())
            requester.ask(*requests[part])

        give_work(slice(0, COUNT // 2))
        run["consumer"].wait_for(f"{queue_of(names['consumer'])} {orders[0]}")
        run["worker"].wait_for(f"size {files[0]} {len(files[0].name)}")
        agent.wait_until(lambda: requester.has_answers(requests[0]), "the first answer", 60.0)
        agent.kill()
        give_work(slice(COUNT // 2, COUNT))
        agent.start()
        configure(agent, plane, names.values())

        run["publisher"].wait_for(*(f"published {order}" for order in orders))
        assert run["publisher"].finish() == 0
        run["consumer"].wait_for(*(f"{queue_of(names['consumer'])} {order}" for order in orders))
        run["worker"].wait_for(*(f"size {file} {len(file.name)}" for file in files))
        agent.wait_until(lambda: requester.has_answers(*requests), "every answer", 60.0)

        for body in (later, never, "no path"):
            plane.publish("", queue_of(names["worker"]), str(body).encode())
        run["worker"].wait_for(f"missing {later}")
        later.write_text("12345", encoding="ascii")
        run["worker"].wait_for(f"size {later} 5")
        assert dead_letters(agent, plane, [str(never), "no path"]) == {
            str(never): "no such file after several tries", "no path": "the message is no absolute path"}
        assert run["worker"].lines().count(f"missing {never}") == 4
        assert [run[role].stop() for role in ("consumer", "worker", "service")] == [0, 0, 0]


@pytest.fixture(scope="module")
def library(session_folder):
    """Where the C++ library is installed."""
    prefix = session_folder / "library"
    subprocess.run(["cmake", "--install", BUILT.parents[1], "--component", "client", "--prefix", prefix], check=True,
                   stdout=subprocess.DEVNULL)
    return prefix


def commands(heading, replacements):
    """The shell blocks of a chapter of the page for applications, each a list of commands."""
    page = (ROOT / "docs/applications.md").read_text(encoding="utf-8")
    chapter = re.split(r"\n#+ ", page.split(f"# {heading}\n")[1])[0]
    blocks = re.findall(r"```sh\n(.*?)```", chapter, re.DOTALL)
    for shown, real in replacements.items():
        blocks = [block.replace(shown, str(real)) for block in blocks]
    return [block.splitlines() for block in blocks]


def other_examples(heading):
    """The commands of the worker, the service and the publisher, of the language's column."""
    page = (ROOT / "docs/applications.md").read_text(encoding="utf-8")
    table = page.split("### The other examples\n")[1].split("\n## ")[0]
    return [shlex.split(re.findall("`([^`]+)` [|]", row)[HEADINGS.index(heading)])
            for row in table.splitlines() if row.startswith("| a ")]


HEADINGS = ["In C++", "In Python", "In Node.js"]


@pytest.mark.parametrize("heading", HEADINGS)
def test_the_documentation_leads_to_a_first_message(world, library, heading):
    agent, plane = world.agent(applications=["web"]), world.plane()
    folder = world.folder / "mine"
    folder.mkdir()
    replacements = {"/usr/share/doc/libqel-client-dev/examples": EXAMPLES, "/usr/share/qel/proto": PROTO_ROOT,
                    "host-1": agent.agent_id}
    environment = {**os.environ, "BROKER": world.url, "CMAKE_PREFIX_PATH": str(library),
                   "PATH": f"{program('qelctl').parent}:{os.environ['PATH']}"}

    def shell(command):
        subprocess.run(["sh", "-ec", command], cwd=folder, env=environment, check=True, stdout=subprocess.DEVNULL)

    [[configure_by_hand], [publish]] = commands("The first message", replacements)
    [[*preparations, consume]] = commands(heading, replacements)
    for command in (configure_by_hand, *preparations):
        shell(command)
    agent.wait_until(lambda: "web.jobs" in world.node.list_queues(), "the queue")
    with Example(agent, shlex.split(consume), folder) as consumer:
        shell(publish)
        consumer.wait_for("web.jobs hello")
        assert consumer.stop() == 0
    worker, service, publisher = other_examples(heading)
    with Example(agent, worker, folder) as running:
        shell(publish.replace("'hello'", str(agent.config_file)))
        running.wait_for(f"size {agent.config_file} {agent.config_file.stat().st_size}")
        assert running.stop() == 0
    requester = Requester(plane, "web.jobs")
    with Example(agent, service, folder) as running:
        requester.ask("hello")
        running.wait_until(lambda: requester.has_answers("hello"), "the answer")
        assert running.stop() == 0
    with Example(agent, publisher, folder) as running:
        running.feed("hello again")
        running.wait_for("published hello again")
        assert running.finish() == 0
