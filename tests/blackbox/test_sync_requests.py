"""The agent asks the management plane for the configurations of its applications."""

import time

import grpc
import pytest

from support import schema

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
