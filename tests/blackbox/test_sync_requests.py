"""The agent asks the management plane for the configurations of its applications."""

import json
import signal
import time

import grpc
import pytest

from support import schema
from support.qelctl import QelctlProcess

REQUEST = "com.brelix.vtx.messaging.appinit.AppInitRequestMsg"


@pytest.fixture
def requests(world):
    """The name of the queue to which requests go."""
    return f"requests.{world.folder.name}"


def asking_agent(world, requests, **options):
    return world.agent({"management": {"exchange": "", "routing_key": requests}}, **options)


def take_request(agent, plane, requests, application=None, patience=60.0):
    """The next request's application; others' than the one asked for are thrown away."""
    while True:
        properties, body = plane.wait_and_take(requests, agent, patience)
        assert (properties.type, properties.reply_to, body) == (REQUEST, agent.client_queue, b"")
        if application in (None, properties.app_id):
            return properties.app_id


def answer(agent, plane, application, topics):
    """Sends a configuration to where a request asks for it."""
    plane.configure(agent, application, body=schema.configuration(topics))


def test_the_first_attach_of_an_application_asks_for_its_configuration(world, requests):
    plane = world.plane()
    plane.declare_queue(requests)
    agent = asking_agent(world, requests)
    assert plane.take(requests) is None, "nobody has attached yet"
    alpha = world.attach(agent, "alpha")
    assert take_request(agent, plane, requests) == "alpha"
    answer(agent, plane, "alpha", ["a.one"])
    alpha.wait_for_state("APPLIED", ["a.one"])
    plane.publish(agent.exchange, "a.one", b"through")
    assert alpha.take() == [b"through"]


def test_an_exchange_and_a_routing_key_are_where_requests_go(world, requests):
    plane = world.plane()
    exchange = f"management.{world.folder.name}"
    plane.channel.exchange_declare(exchange, "direct")
    plane.declare_queue(requests)
    plane.channel.queue_bind(requests, exchange, "init")
    agent = world.agent({"management": {"exchange": exchange, "routing_key": "init"}})
    world.attach(agent, "alpha")
    assert take_request(agent, plane, requests) == "alpha"


def test_who_has_a_configuration_is_not_asked_for_again(world, requests):
    plane = world.plane()
    plane.declare_queue(requests)
    agent = asking_agent(world, requests)
    alpha = world.attach(agent, "alpha")
    assert take_request(agent, plane, requests) == "alpha"
    answer(agent, plane, "alpha", ["a.one"])
    alpha.wait_for_state("APPLIED", ["a.one"])
    plane.channel.queue_purge(requests)

    # Beta, which is never answered, tells how much time has passed: its fourth request follows the first after 3 s at
    # least. Another attachment of alpha's is not its first.
    world.attach(agent, "alpha")
    world.attach(agent, "beta")
    asked = [take_request(agent, plane, requests) for _ in range(4)]
    assert asked == ["beta"] * 4


def test_a_configuration_that_fails_is_asked_for_with_growing_delays(world, requests):
    url, user = world.broker_user()
    plane = world.plane()
    plane.declare_queue(requests)
    agent = asking_agent(world, requests, urls=url)
    world.node.ctl("set_topic_permissions", user, agent.exchange, ".*", r"^allowed\..*")
    alpha = world.attach(agent, "alpha")
    times = []
    for number in range(5):
        assert take_request(agent, plane, requests) == "alpha"
        times.append(time.monotonic())
        answer(agent, plane, "alpha", [f"allowed.{number}", "forbidden"])
        agent.wait_until(lambda: alpha.configurations[-1].state == schema.applications.Configuration.FAILED
                         and len(agent.log_lines("for topic: forbidden")) == number + 1, "the refusal")
    gaps = [later - earlier for earlier, later in zip(times, times[1:])]
    # The fourth delay is 4 s at least, the first 1 s at most.
    assert gaps[3] > gaps[0]
    assert not [one for one in world.node.list_bindings() if one[0] == agent.exchange]

    world.node.ctl("clear_topic_permissions", user, agent.exchange)
    assert take_request(agent, plane, requests) == "alpha"
    answer(agent, plane, "alpha", ["allowed", "forbidden"])
    alpha.wait_for_state("APPLIED", ["allowed", "forbidden"])
    plane.channel.queue_purge(requests)
    world.attach(agent, "beta")
    assert [take_request(agent, plane, requests) for _ in range(4)] == ["beta"] * 4


def test_a_request_that_nobody_takes_is_repeated(world, requests):
    plane = world.plane()
    agent = asking_agent(world, requests)
    world.attach(agent, "alpha")
    agent.wait_for_log("the configuration of application alpha could not be asked for")
    plane.declare_queue(requests)
    assert take_request(agent, plane, requests) == "alpha"


def test_after_a_restart_the_first_attach_asks_once_though_the_configuration_is_known(world, requests):
    plane = world.plane()
    plane.declare_queue(requests)
    agent = asking_agent(world, requests)
    alpha = world.attach(agent, "alpha")
    take_request(agent, plane, requests)
    answer(agent, plane, "alpha", ["a.one"])
    alpha.wait_for_state("APPLIED", ["a.one"])
    assert agent.stop() == 0
    plane.channel.queue_purge(requests)

    agent.start()
    alpha = world.attach(agent, "alpha")
    alpha.wait_for_state("APPLIED", ["a.one"])
    assert take_request(agent, plane, requests) == "alpha"
    world.attach(agent, "beta")
    assert [take_request(agent, plane, requests) for _ in range(4)] == ["beta"] * 4


def test_without_a_routing_key_nobody_is_asked(world, requests):
    plane = world.plane()
    agent = world.agent()
    alpha = world.attach(agent, "alpha")
    plane.ping(agent)
    assert not agent.log_lines("asked for")
    alpha.wait_for_state("MISSING", [])
    with pytest.raises(grpc.RpcError) as refused:
        alpha.request_configuration()
    assert refused.value.code() == grpc.StatusCode.FAILED_PRECONDITION
    assert "management.routing_key" in refused.value.details()


def ask_unless_too_soon(application):
    try:
        return application.request_configuration()
    except grpc.RpcError as error:
        assert error.code() == grpc.StatusCode.RESOURCE_EXHAUSTED
        return None


def test_an_application_asks_for_another_configuration(world, requests):
    plane = world.plane()
    agent = asking_agent(world, requests)
    alpha = world.attach(agent, "alpha")
    with pytest.raises(grpc.RpcError) as unheard:
        alpha.request_configuration()
    assert unheard.value.code() == grpc.StatusCode.NOT_FOUND
    plane.declare_queue(requests)
    assert take_request(agent, plane, requests) == "alpha"
    answer(agent, plane, "alpha", ["a.one"])
    alpha.wait_for_state("APPLIED", ["a.one"])
    plane.channel.queue_purge(requests)

    in_force = agent.wait_until(lambda: ask_unless_too_soon(alpha), "another request to be allowed")
    assert list(in_force.topics) == ["a.one"]
    assert take_request(agent, plane, requests) == "alpha"
    answer(agent, plane, "alpha", ["a.two"])
    alpha.wait_for_state("APPLIED", ["a.two"])
    assert plane.take(requests) is None


class PlaneFiles:
    """What `qelctl plane` is given: DIR/AGENT/APP.json."""

    def __init__(self, world):
        self.folder = world.folder / "plane"
        self.folder.mkdir()

    def write(self, agent, application, *topics):
        self.put(agent, application, json.dumps({"topicInfo": [{"topic": topic} for topic in topics]}))

    def put(self, agent, application, text):
        """Renames a new file over the old one, as editors do."""
        file = self.file(agent, application)
        file.parent.mkdir(exist_ok=True)
        new = file.with_suffix(".new")
        new.write_text(text, encoding="utf-8")
        new.rename(file)

    def file(self, agent, application):
        return self.folder / agent.agent_id / f"{application}.json"


@pytest.fixture
def files(world):
    return PlaneFiles(world)


def count(plane, **members):
    return len([line for line in plane.lines() if members.items() <= line.items()])


def test_qelctl_plane_configures_from_files_and_replaces_what_is_edited(world, requests, files):
    agent = asking_agent(world, requests)
    files.write(agent, "alpha", "a.one")
    plane = world.qelctl_plane(files.folder, "--routing-key", requests)
    alpha = world.attach(agent, "alpha")
    alpha.wait_for_state("APPLIED", ["a.one"])
    files.write(agent, "alpha", "a.two", "a.three")
    alpha.wait_for_state("APPLIED", ["a.three", "a.two"])

    files.put(agent, "alpha", '{\n  "topicInfo": [{"topik": "a.four"}]\n}')
    told = plane.wait_for(lambda line: line["event"] == "rejected", "the mistake")
    assert told["mistake"].startswith(f"{files.file(agent, 'alpha')}:2:"), told
    # Beta's first file, in place: what comes after it shows that nothing was sent for alpha.
    files.file(agent, "beta").write_text('{"topicInfo": [{"topic": "b.one"}]}', encoding="utf-8")
    world.attach(agent, "beta").wait_for_state("APPLIED", ["b.one"])
    alpha.wait_for_state("APPLIED", ["a.three", "a.two"])

    files.file(agent, "alpha").unlink()
    plane.wait_for(lambda line: line["event"] == "removed", "the removal")
    alpha.wait_for_state("APPLIED", ["a.three", "a.two"])
    assert plane.end(signal.SIGINT) == 0
    assert plane.errors() == ""


def test_qelctl_plane_answers_an_agent_that_asks(world, requests, files):
    exchange = f"management.{world.folder.name}"
    world.plane().channel.exchange_declare(exchange, "direct")
    plane = world.qelctl_plane(files.folder, "--exchange", exchange, "--routing-key", "init", "--queue", requests)
    agent = world.agent({"management": {"exchange": exchange, "routing_key": "init"}})
    alpha = world.attach(agent, "alpha")
    asked = plane.wait_for(lambda line: line["event"] == "no-file", "that there is no file")
    assert (asked["agent"], asked["application"]) == (agent.agent_id, "alpha")
    files.write(agent, "alpha", "a.one")
    alpha.wait_for_state("APPLIED", ["a.one"])

    assert agent.stop() == 0
    answered = count(plane, event="sent", cause="request")
    agent.start()
    alpha = world.attach(agent, "alpha")
    plane.wait_for(lambda _: count(plane, event="sent", cause="request") > answered, "the answer after the restart")
    alpha.wait_for_state("APPLIED", ["a.one"])
    assert count(plane, event="no-file") == 1
    assert plane.end() == 0


def test_qelctl_plane_goes_on_when_the_broker_is_back(world, requests, files):
    url, user = world.broker_user()
    plane = world.qelctl_plane(files.folder, "--routing-key", requests, url=url)
    agent = asking_agent(world, requests)
    alpha = world.attach(agent, "alpha")
    plane.wait_for(lambda line: line["event"] == "no-file", "the first request")
    world.node.ctl("clear_permissions", user)
    world.node.ctl("close_all_user_connections", user, "tested")
    plane.wait_for(lambda line: line["event"] == "trouble", "the loss")
    files.write(agent, "alpha", "a.one")
    world.node.ctl("set_permissions", user, ".*", ".*", ".*")
    alpha.wait_for_state("APPLIED", ["a.one"], patience=60.0)
    plane.wait_for(lambda _: count(plane, event="ready") == 2, "the plane to be ready again")
    assert plane.end() == 0


def test_qelctl_plane_fails_when_the_exchange_is_not_there(world, files):
    plane = QelctlProcess(world.folder, "plane", files.folder, "--broker", world.node.url(), "--exchange", "absent",
                          "--queue", f"requests.{world.folder.name}")
    assert plane.wait_for_exit() == 1
    assert "absent" in plane.errors() and "the exchange has to be" in plane.errors()
