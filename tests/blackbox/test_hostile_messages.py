"""Messages that a real broker lets through: each is settled, the connection stays, memory comes back, pings are answered."""

import json

import pika
import pytest

from support.gauge import MIB, assert_log_is_ours, measured
from support.hostile import RawProperties, headers, many_headers, nested_arrays, nested_tables, warm_up

ANY_BYTES = b"x\r\n2026-01-01T00:00:00.000+00:00 error qel: forged\x1b[2J\xc2\x9b\xff\xfe\xe2\x80\xa8\\x0a"
# What RabbitMQ takes in one frame.
MOST_HEADERS = 131072 - 8 - 12 - 6


@pytest.fixture
def plane(world):
    return world.plane()


@pytest.fixture
def agent(world):
    made = world.agent(applications={"alpha": {"max_tries": 2}, "beta": {}})
    yield made
    assert not made.log_lines("onnection to the broker .* ended"), "the connections stay"
    assert_log_is_ours(made)


@pytest.fixture
def alpha(world, agent, plane):
    return warm_up(world, agent, plane)


def one_header(size):
    """Encoded properties whose frame has so many bytes less than the largest."""
    text = MOST_HEADERS - 7 - size
    return headers(b"\x01kS" + text.to_bytes(4, "big") + b"h" * text)


def publish_raw(plane, queue, properties, body=b"body"):
    plane.channel.basic_publish("", queue, body, RawProperties(properties), mandatory=True)


UNREADABLE = {
    "26,000 nested arrays": (headers(nested_arrays(26000)), "headers nested too deeply"),
    "15,000 nested tables": (headers(nested_tables(15000)), "headers nested too deeply"),
}


@pytest.mark.parametrize("name", UNREADABLE)
def test_headers_that_cannot_be_read_are_left_to_the_brokers_dead_lettering(world, agent, plane, alpha, name):
    properties, said = UNREADABLE[name]
    with measured(agent, f"publisher: {name}", world.node.url()):
        publish_raw(plane, agent.client_queue, properties)
        agent.wait_until(lambda: plane.count(agent.dead_letter_queue) == 1, "the dead letter", 60)
    assert agent.log_lines(f"refused before it was decoded: {said}"), agent.log()[-3000:]
    plane.channel.queue_purge(agent.dead_letter_queue)
    plane.publish("", agent.client_queue, b"after", app_id="alpha")
    assert alpha.take() == [b"after"]


@pytest.mark.parametrize("room", [0, 100])
def test_headers_that_leave_no_room_for_ours_are_left_to_the_brokers_dead_lettering(agent, plane, alpha, room):
    publish_raw(plane, agent.client_queue, one_header(room))
    properties, body = plane.wait_and_take(agent.dead_letter_queue, agent)
    assert body == b"body" and len(properties.headers["k"]) == MOST_HEADERS - 7 - room
    assert properties.headers["x-death"][0]["reason"] == "rejected"
    assert agent.log_lines("does not take a copy .*own queue's dead-letter exchange")


def test_many_headers_are_bounded_like_bodies(world, agent, plane, alpha):
    """More than an application may hold, and more in one batch than its client takes: all arrive and its stream lives."""
    with measured(agent, "publisher: 20 times 65,000 headers, held", world.node.url()):
        for _ in range(20):
            publish_raw(plane, agent.client_queue, headers(many_headers(65000)))
        # For nobody, as no property says whom they are for.
        agent.wait_until(lambda: plane.count(agent.dead_letter_queue) == 20, "the dead letters", 90)
        plane.channel.queue_purge(agent.dead_letter_queue)
    plane.configure(agent, "alpha", ["many"])
    alpha.wait_for_state("APPLIED")
    with measured(agent, "publisher: 20 times 60,000 headers for an application", world.node.url()):
        for _ in range(20):
            plane.channel.basic_publish(agent.exchange, "many", b"x", RawProperties(headers(many_headers(60000))))
        held = [alpha.next(60)]
        agent.wait_until(lambda: plane.count(agent.client_queue) == 0, "all messages to be read", 60)
        for delivery in held:
            alpha.verdict(delivery, "done")
        assert alpha.take(19, 60) == [b"x"] * 19
        del held
    assert not alpha.ended


@pytest.mark.parametrize("size", [128 * MIB, 128 * MIB - 1])
def test_the_largest_bodies_are_dead_lettered_whole(world, agent, plane, alpha, size):
    with measured(agent, f"publisher: a body of {size} bytes for nobody", world.node.url()):
        plane.publish("", agent.client_queue, bytes(size), app_id="nobody")
        properties, body = plane.wait_and_take(agent.dead_letter_queue, agent, 60)
        assert len(body) == size
        assert properties.headers["x-qel-reason"] == "no application takes the message"
        del body


def test_a_body_that_an_applications_client_does_not_take_is_dead_lettered_in_the_end(world, agent, plane, alpha):
    """Its stream ends each time, which counts as a try; the other application does not notice."""
    beta = world.attach(agent, "beta")
    with measured(agent, "publisher: a body of 100 MiB for a client that takes 4", world.node.url()):
        plane.publish("", agent.client_queue, bytes(100 * MIB), app_id="alpha")
        alpha.wait_until_ended(60)
        second = world.attach(agent, "alpha")
        second.wait_until_ended(60)
        properties, body = plane.wait_and_take(agent.dead_letter_queue, agent, 60)
        assert len(body) == 100 * MIB and properties.headers["x-qel-application"] == "alpha"
        del body
        for number in range(20):
            plane.publish("", agent.client_queue, str(number).encode(), app_id="beta")
        assert beta.take(20) == [str(number).encode() for number in range(20)]
    third = world.attach(agent, "alpha")
    plane.publish("", agent.client_queue, b"small", app_id="alpha")
    assert third.take() == [b"small"]


def test_a_large_body_for_an_absent_application_waits_on_the_broker(world, agent, plane, alpha):
    with measured(agent, "publisher: 5 bodies of 100 MiB for an absent application", world.node.url()):
        for _ in range(5):
            plane.publish("", agent.client_queue, bytes(100 * MIB), app_id="beta")
        parked = f"{agent.client_queue}.parked.beta"
        agent.wait_until(lambda: world.node.list_queues().get(parked, {}).get("messages") == 5, "five parked messages",
                         90)
    plane.channel.queue_delete(parked)


@pytest.mark.parametrize("log_format", ["text", "json"])
def test_property_strings_of_any_bytes_reach_the_application_and_forge_no_line(world, plane, log_format):
    agent = world.agent(options={"log": {"level": 6, "format": log_format}})
    alpha = warm_up(world, agent, plane)
    text = ANY_BYTES + b"\x00" + b"e" * 30
    properties = pika.BasicProperties(
        type=text, correlation_id=text, reply_to=text, message_id=text, content_type=text, content_encoding=text,
        headers={"k" * 100: text.hex()})
    plane.configure(agent, "alpha", ["#"])
    alpha.wait_for_state("APPLIED")
    plane.channel.basic_publish(agent.exchange, text, b"body", properties, mandatory=True)
    delivery = alpha.next()
    got = delivery.properties
    assert {got.type, got.correlation_id, got.reply_to, got.message_id, got.content_type, got.content_encoding,
            delivery.routing_key} == {text}
    alpha.verdict(delivery, "dead", reason="a\nb\x1b")
    plane.configure(agent, "alpha", ["another"])
    alpha.wait_for_state("APPLIED", ["another"])
    properties.app_id = text
    plane.channel.basic_publish("", agent.client_queue, b"body", properties, mandatory=True)
    dead = [plane.wait_and_take(agent.dead_letter_queue, agent)[0] for _ in range(2)]
    assert {letter.headers["x-qel-reason"] for letter in dead} == {"a\nb\x1b", "no application takes the message"}
    for key in ("type", "correlation_id", "app_id", "message_id"):
        plane.channel.basic_publish("", agent.client_queue, b"", pika.BasicProperties(**{key: b"\x00" * 255}))
        plane.wait_and_take(agent.dead_letter_queue, agent)
    if log_format == "text":
        assert_log_is_ours(agent)
        assert agent.log_lines(r"x\\x0d\\x0a2026-01-01T00:00:00.000\+00:00 error qel: forged\\x1b\[2J\\xc2\\x9b\\xff\\xfe")
    else:
        lines = [json.loads(line) for line in agent.log_file.read_bytes().decode("ascii").splitlines()]
        assert any(r"forged\x1b[2J" in line["message"] for line in lines)
        assert not any(set(line["message"]) & set("\r\n\x1b\x00\x9b\u2028") for line in lines)


@pytest.mark.parametrize("reply_to", [ANY_BYTES, b"\xff" * 255, b"no.such.queue", b"", b"amq.rabbitmq.reply-to.bogus"])
def test_a_ping_with_a_reply_address_that_makes_no_sense_is_settled(agent, plane, alpha, reply_to):
    plane.channel.basic_publish("", agent.client_queue, b"",
                                pika.BasicProperties(type="com.brelix.vtx.messaging.ping.PingRequest",
                                                     reply_to=reply_to, correlation_id=ANY_BYTES))
    plane.ping(agent)
    if not reply_to.startswith(b"amq.rabbitmq.reply-to"):
        properties, _body = plane.wait_and_take(agent.dead_letter_queue, agent)
        assert properties.headers["x-qel-reason"] == "the ping could not be answered"


def test_a_flood_of_pings_to_nowhere_keeps_others_served(world, agent, plane, alpha):
    with measured(agent, "publisher: 1,000 pings to nowhere", world.node.url()):
        for _ in range(1000):
            plane.channel.basic_publish("", agent.client_queue, b"", pika.BasicProperties(
                type="com.brelix.vtx.messaging.ping.PingRequest", reply_to="no.such.queue"))
        plane.publish("", agent.client_queue, b"behind them", app_id="alpha")
        assert alpha.take(1, 60) == [b"behind them"]
        agent.wait_until(lambda: plane.count(agent.dead_letter_queue) == 1000, "the dead letters", 90)
    plane.channel.queue_purge(agent.dead_letter_queue)
