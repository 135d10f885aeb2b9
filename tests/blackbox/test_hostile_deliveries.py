"""Deliveries that no broker should send, and some that RabbitMQ does: what cannot be read is rejected, and that is all."""

import struct

import pytest

from support.gauge import MIB, assert_log_is_ours, measured
from support.hostile import headers, nested_arrays, nested_tables
from support.mad_broker import BODY, HEARTBEAT, content_header, raw_frame, send_body

CAP = 128 * MIB


@pytest.fixture
def agent(lonely_world, mad_broker):
    """Ready, and warm: both of its connections have been used."""
    made = lonely_world.agent(urls=mad_broker.url())
    mad_broker.ping(made)
    return made


@pytest.mark.parametrize("name, frame", [
    ("heartbeats", raw_frame(HEARTBEAT, 0, b"")),
    ("heartbeats with content on some channel", raw_frame(HEARTBEAT, 500, b"x")),
])
def test_a_flood_is_waded_through(agent, mad_broker, name, frame):
    logins = mad_broker.logins

    async def flood(connection):
        for _ in range(200):
            connection.send(frame * 10000)
            await connection.flush()

    with measured(agent, f"flood: 2 million {name}"):
        mad_broker.live(flood)
        mad_broker.ping(agent)
    assert mad_broker.logins == logins, "the connection stays"


def test_a_flood_of_empty_frames_inside_of_a_message_is_waded_through(agent, mad_broker):
    settled = len(mad_broker.settled)

    async def flood(connection):
        channel = connection.consumers[agent.client_queue][0]
        connection.send(connection.deliver(agent.client_queue) + content_header(channel, 1))
        for _ in range(100):
            connection.send(raw_frame(BODY, channel, b"") * 10000)
            await connection.flush()
        connection.send(raw_frame(BODY, channel, b"x"))

    with measured(agent, "flood: 1 million empty body frames"):
        mad_broker.live(flood)
        agent.wait_until(lambda: len(mad_broker.settled) > settled, "the message to be settled")
        mad_broker.ping(agent)


# What cannot be read is told from what is around it: the message is rejected, the connection stays.
UNREADABLE = {
    "headers of 26,000 arrays": (headers(nested_arrays(26000)), 0, "nested too deeply"),
    "headers of 26,000 tables, over the frame size": (headers(nested_tables(26000)), 3, "larger than a frame"),
    "headers of 10 MiB": (headers(b"\x01kS" + struct.pack(">I", 10 * MIB) + bytes(10 * MIB)), 0, "larger than a frame"),
    "headers that end early": (headers(b"\x05ab"), 0, "malformed headers"),
    "headers of an unknown kind": (headers(b"\x01kZ"), 0, "unknown kind of value"),
    "properties that end early": (b"\x00\x20", 0, "malformed message properties"),
    "properties that go on": (b"\x00\x01\x00\x00", 0, "unknown message properties"),
    "a body one byte over the cap": (b"\0\0", CAP + 1, "over the limit"),
    "a body of 300 MiB": (b"\0\0", 300 * MIB, "over the limit"),
}


@pytest.mark.parametrize("name", UNREADABLE)
def test_a_message_that_cannot_be_read_is_rejected(agent, mad_broker, name):
    properties, size, said = UNREADABLE[name]
    logins = mad_broker.logins
    settled = len(mad_broker.settled)

    async def deliver(connection):
        queue = agent.client_queue
        channel = connection.consumers[queue][0]
        connection.send(connection.deliver(queue) + content_header(channel, size, properties))
        await send_body(connection, channel, size)

    with measured(agent, f"message: {name}"):
        mad_broker.live(deliver)
        agent.wait_until(lambda: any(what == "Reject" for what, *_ in mad_broker.settled[settled:]), "the rejection")
        mad_broker.ping(agent)
    assert agent.log_lines(f"refused before it was decoded: .*{said}")
    assert mad_broker.logins == logins, "the connection stays"
    assert_log_is_ours(agent)


def test_the_largest_body_is_read(agent, mad_broker):
    """It comes back as a dead letter, for no application wants it."""
    with measured(agent, "message: a body at the cap"):
        async def deliver(connection):
            channel = connection.consumers[agent.client_queue][0]
            connection.send(connection.deliver(agent.client_queue) + content_header(channel, CAP))
            await send_body(connection, channel, CAP)
        mad_broker.live(deliver)
        agent.wait_until(lambda: any(len(body) == CAP for _key, _properties, body in list(mad_broker.published)),
                         "the dead letter", 60)
        mad_broker.published.clear()
        mad_broker.ping(agent)


def test_frames_of_two_messages_may_alternate(agent, mad_broker):
    """Legal, though RabbitMQ does not do it."""
    settled = len(mad_broker.settled)
    body = bytes(range(256)) * 2000

    async def alternate(connection):
        frames = []
        for queue in (agent.client_queue, agent.priority_queue):
            channel = connection.consumers[queue][0]
            pieces = [raw_frame(BODY, channel, body[at:at + 1000]) for at in range(0, len(body), 1000)]
            frames.append([connection.deliver(queue), content_header(channel, len(body)), *pieces])
        for first, second in zip(*frames):
            connection.send(first + second)
        await connection.flush()

    mad_broker.live(alternate)
    agent.wait_until(lambda: len(mad_broker.settled) >= settled + 2, "both messages to be settled")
    dead = [found for key, _properties, found in mad_broker.published if key == agent.dead_letter_queue]
    assert dead == [body, body]
