"""A mad broker: whatever it says, the agent lives, says what was wrong, and is back as soon as the broker is sane."""

import random
import struct

import pytest
from pika import spec

from support.gauge import MIB, assert_log_is_ours, measured
from support.hostile import nested_arrays
from support.mad_broker import (BODY, FRAME_MAX, HEADER, HEARTBEAT, METHOD, body_frames, content_header, method,
                                raw_frame, raw_method, send)


@pytest.fixture
def agent(lonely_world, mad_broker):
    """Ready, and warm: both of its connections have been used."""
    made = lonely_world.agent(urls=mad_broker.url(), options={"broker": {"heartbeat_seconds": 1}})
    mad_broker.ping(made)
    return made


def on_client_queue(agent, build):
    """Sends what `build` makes of the connection, the client queue and its channel."""
    async def madness(connection):
        queue = agent.client_queue
        connection.send(build(connection, queue, connection.consumers[queue][0]))
        await connection.flush()
    return madness


GOODBYE = {
    "garbage": (lambda c, q, n: random.Random(5).randbytes(300000), "received a frame of|unknown type"),
    "an unknown method": (lambda c, q, n: raw_method(0, 65535, 65535), r"method 65535\.65535, which no broker sends"),
    "an unknown method on a channel": (lambda c, q, n: raw_method(n, 60, 99, b"x"), r"60\.99, which no broker sends"),
    "a client's method": (lambda c, q, n: raw_method(n, 50, 10, b"\0\0\x01q\0" + struct.pack(
        ">I", len(nested_arrays(26000))) + nested_arrays(26000)), r"50\.10, which no broker sends"),
    "an unknown channel": (lambda c, q, n: method(7777, spec.Basic.ConsumeOk("x")), "channel 7777, which is not open"),
    "a message on an unknown channel": (
        lambda c, q, n: method(7777, spec.Basic.Deliver("x", 1, False, "", "k")) + content_header(7777, 0),
        "channel 7777, which is not open"),
    "an answer to nothing": (lambda c, q, n: method(1, spec.Queue.BindOk()), "nobody asked for"),
    "a method of three bytes": (lambda c, q, n: raw_frame(METHOD, n, b"\0\x3c\0"), "too short"),
    "an empty method": (lambda c, q, n: raw_frame(METHOD, 0, b""), "too short"),
    "a method that ends early": (lambda c, q, n: raw_method(n, 60, 60, b"\x09tag"), "60.60, which cannot be decoded"),
    "an unknown frame": (lambda c, q, n: raw_frame(9, n, b"x"), "unknown type 9"),
    "a frame of 4 GiB": (lambda c, q, n: raw_frame(BODY, n, b"x", size=2**32 - 1), "frame of 4294967295 bytes"),
    "a frame one byte too long": (
        lambda c, q, n: raw_frame(BODY, n, bytes(FRAME_MAX - 7)), "at most 131072 were agreed on"),
    "a header of 4 GiB": (lambda c, q, n: raw_frame(HEADER, n, b"x", size=2**32 - 1), "frame of 4294967295 bytes"),
    "no end of a frame": (lambda c, q, n: raw_frame(HEARTBEAT, 0, b"", end=b"x"), "without its end octet"),
    "a header without a method": (lambda c, q, n: content_header(n, 5), "no method announced"),
    "a body without a method": (lambda c, q, n: raw_frame(BODY, n, b"x"), "no method announced"),
    "content on channel 0": (lambda c, q, n: content_header(0, 5), "no method announced"),
    "a body without a header": (
        lambda c, q, n: c.deliver(q) + raw_frame(BODY, n, b"x"), "body bytes that were not declared"),
    "a message inside of another": (lambda c, q, n: c.deliver(q) + c.deliver(q), "inside of another"),
    "two headers": (lambda c, q, n: c.deliver(q) + content_header(n, 5) * 2, "header out of place"),
    "a short header": (lambda c, q, n: c.deliver(q) + raw_frame(HEADER, n, bytes(11)), "header out of place"),
    "more than was declared": (
        lambda c, q, n: c.deliver(q) + content_header(n, 5) + raw_frame(BODY, n, b"toolong"), "were not declared"),
    "1 TiB announced": (
        lambda c, q, n: c.deliver(q) + content_header(n, 2**40) + raw_frame(BODY, n, b"x"), "which is a lie"),
    "an endless body announced": (lambda c, q, n: c.deliver(q) + content_header(n, 2**64 - 1), "which is a lie"),
    "a delivery tag twice": (
        lambda c, q, n: c.message(q) + c.deliver(q, delivery_tag=1) + content_header(n, 0), "out of order"),
    "a half message and heartbeats": (
        lambda c, q, n: c.deliver(q) + content_header(n, 500) + raw_frame(BODY, n, b"x"), "does not go on with it"),
}


@pytest.mark.parametrize("name", GOODBYE)
def test_a_connection_that_makes_no_sense_is_left(agent, mad_broker, name):
    build, said = GOODBYE[name]
    logins = mad_broker.logins
    with measured(agent, f"connection: {name}"):
        mad_broker.live(on_client_queue(agent, build))
        agent.wait_until(lambda: agent.log_lines(rf"Connection to the broker .* ended: .*({said})"),
                         f"the log to say {said}")
        mad_broker.wait_for_agent(agent, logins)
        assert_log_is_ours(agent)


def test_half_a_frame_and_silence_is_left(agent, mad_broker):
    logins = mad_broker.logins

    async def fall_silent(connection):
        connection.beats = False
        connection.send(connection.message(agent.client_queue, b"x")[:-5])

    with measured(agent, "half a frame, then silence"):
        mad_broker.live(fall_silent)
        agent.wait_until(lambda: agent.log_lines("ended: nothing heard from the broker for 2 s"), "the silence's end")
        mad_broker.wait_for_agent(agent, logins)
        assert_log_is_ours(agent)


def test_messages_begun_inside_of_one_another_are_bounded(lonely_world, mad_broker):
    """Half a message on each of 700 channels: as much as five of the largest messages."""
    # With a heartbeat that gives half a message the time that a busy machine takes for 700 of them.
    agent = lonely_world.agent(urls=mad_broker.url(), options={"broker": {"heartbeat_seconds": 60}})
    mad_broker.ping(agent)
    logins = mad_broker.logins
    half = MIB // 2 // (FRAME_MAX - 8) * (FRAME_MAX - 8)

    async def begin_many(connection):
        for channel in range(1000, 1700):
            connection.send(method(channel, spec.Basic.Deliver("x", 1, False, "", "k")) + content_header(channel, MIB)
                            + body_frames(channel, bytes(half)))
            await connection.flush()

    with measured(agent, "half messages on 700 channels"):
        mad_broker.live(begin_many)
        agent.wait_until(lambda: agent.log_lines("inside of one another"), "the bound")
        mad_broker.wait_for_agent(agent, logins)
        assert_log_is_ours(agent)


def test_a_confirm_of_nothing_ends_only_the_publishing_connection(agent, mad_broker):
    publishing = mad_broker.publishing()
    mad_broker.run(send(method(1, spec.Basic.Ack(4711))), publishing)
    agent.wait_until(lambda: agent.log_lines("Publishing connection .* ended: .* something that was not published"),
                     "the end of the publishing connection")
    consuming = mad_broker.consumers[-1]
    mad_broker.ping(agent)
    assert mad_broker.consumers[-1] is consuming
