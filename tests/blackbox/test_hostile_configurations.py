"""Configurations that are malformed, enormous or repetitive: refused with a reason or carried out, and never at others' cost."""

import random

import pytest

from support import schema
from support.gauge import MIB, assert_log_is_ours, measured
from support.hostile import warm_up
from support.plane import CONFIGURATION

TOPIC, QUEUE = b"\x0a", b"\x12"


@pytest.fixture
def plane(world):
    return world.plane()


@pytest.fixture
def agent(world):
    made = world.agent()
    yield made
    assert not made.log_lines("onnection to the broker .* ended"), "the connections stay"
    assert_log_is_ours(made)


@pytest.fixture
def alpha(world, agent, plane):
    """Attached and configured, as is beta."""
    attached = warm_up(world, agent, plane)
    for name in ("alpha", "beta"):
        plane.configure(agent, name, [f"{name}.topic"])
    attached.wait_for_state("APPLIED")
    agent.wait_until(lambda: len(world.node.list_bindings()) >= 2, "the bindings")
    return attached


def varint(number):
    encoded = b""
    while number > 127:
        encoded += bytes([number & 127 | 128])
        number >>= 7
    return encoded + bytes([number])


def sized(field, content):
    return field + varint(len(content)) + content


def topic(name):
    return sized(TOPIC, sized(b"\x0a", name))


def refused(agent, plane):
    """Waits for the refused configuration's dead letter; its reason."""
    properties, _body = plane.wait_and_take(agent.dead_letter_queue, agent, 60)
    assert properties.type == CONFIGURATION
    return properties.headers["x-qel-reason"]


NOT_TAKEN = {
    "garbage": random.Random(1).randbytes(MIB),
    "truncated": schema.configuration(["a.topic", "another.topic"])[:-3],
    "a length that lies": TOPIC + b"\xff\xff\xff\x7f" + b"x",
    "a topic that is a number": sized(TOPIC, b"\x08\x05"),
    "200,000 topics without names": (TOPIC + b"\x00") * 200000,
    "unknown groups nested a million deep": b"\x7b" * 1000000,
    "a group that does not end": b"\x7b\x08\x01",
    "field number 0": b"\x02\x01x",
    "1 million topics": b"".join(topic(b"t%d" % number) for number in range(1000000)),
    "the same topic a million times": topic(b"again") * 1000000,
    "a million empty queues": (QUEUE + b"\x00") * 1000000,
    "64 million entries in 128 MiB": (QUEUE + b"\x00") * (64 * MIB),
    "128 MiB of an unknown field": sized(b"\x7a", bytes(128 * MIB - 10)),
    "33 MiB of unknown numbers in a topic": sized(TOPIC, b"\x0a\x01t" + b"\x78\x01" * (33 * MIB // 2)),
}


@pytest.mark.parametrize("name", NOT_TAKEN)
def test_what_cannot_be_taken_leaves_the_old_configuration(world, agent, plane, alpha, name):
    with measured(agent, f"configuration: {name}", world.node.url()):
        plane.configure(agent, "alpha", body=NOT_TAKEN[name])
        assert refused(agent, plane) == "the configuration was refused"
    plane.publish(agent.exchange, "alpha.topic", b"as before", mandatory=True)
    assert alpha.take() == [b"as before"]


LONGEST_NAMES = [f"{number:0255}" for number in range(1000)]
ODD = {
    "nothing but wrong wire types": (b"\x08\x01\x10\x02\x0d1234\x11" + b"12345678", []),
    "100,000 times the same topic": (topic(b"again") * 100000, ["again"]),
    "31 MiB of unknown numbers in a topic": (sized(TOPIC, b"\x0a\x01t" + b"\x78\x01" * (31 * MIB // 2)), ["t"]),
    "unknown fields nested 90 deep": (topic(b"t") + b"\x7b" * 90 + b"\x7c" * 90, ["t"]),
    "1,000 topics with the longest names": (schema.configuration(LONGEST_NAMES), LONGEST_NAMES),
}


@pytest.mark.parametrize("name", ODD)
def test_what_is_odd_and_can_be_taken_is_carried_out(world, agent, plane, alpha, name):
    body, topics = ODD[name]
    with measured(agent, f"configuration: {name}", world.node.url()):
        plane.configure(agent, "alpha", body=body)
        alpha.wait_for_state("APPLIED", topics, 120)
        plane.configure(agent, "alpha", ["alpha.topic"])
        alpha.wait_for_state("APPLIED", ["alpha.topic"], 120)


ODD_NAMES = {"empty": b"", "with NUL": b"a\x00b", "with newlines": b"a\r\nb\x1b[2J", "255 bytes": b"n" * 255}


@pytest.mark.parametrize("name", ODD_NAMES)
def test_topics_that_the_broker_takes_are_bound_whatever_is_in_them(world, agent, plane, alpha, name):
    text = ODD_NAMES[name].decode()
    plane.configure(agent, "alpha", [text])
    alpha.wait_for_state("APPLIED", [text])
    plane.channel.basic_publish(agent.exchange, text, b"to it", mandatory=True)
    assert alpha.take() == [b"to it"]


IMPOSSIBLE_NAMES = {"not UTF-8": b"\xff\xfe", "256 bytes": b"n" * 256, "30 MiB": b"n" * (30 * MIB),
                    "half a character": b"a\xe2\x82", "a surrogate": b"\xed\xa0\x80"}


@pytest.mark.parametrize("kind", [TOPIC, QUEUE], ids=["topic", "queue"])
@pytest.mark.parametrize("name", IMPOSSIBLE_NAMES)
def test_names_that_cannot_be_are_refused_without_the_broker(world, agent, plane, alpha, kind, name):
    text = IMPOSSIBLE_NAMES[name]
    entry = topic(text) if kind == TOPIC else sized(QUEUE, text)
    with measured(agent, f"configuration: a {'topic' if kind == TOPIC else 'queue'}, {name}", world.node.url()):
        plane.configure(agent, "alpha", body=topic(b"possible") + entry)
        assert refused(agent, plane) == "the configuration was refused"
        alpha.wait_for_state("FAILED", [])
    assert len(alpha.configurations[-1].error) <= 4096
    ours = {key for exchange, _queue, key in world.node.list_bindings() if exchange == agent.exchange}
    assert ours == {"beta.topic"}, "a configuration that fails leaves nothing, and others are as they were"


def test_a_hundred_configurations_in_a_row_end_with_the_last(world, agent, plane, alpha):
    with measured(agent, "configuration: 100 in a row", world.node.url()):
        for number in range(100):
            plane.configure(agent, "alpha", [f"turn.{number}", "kept"])
        alpha.wait_for_state("APPLIED", ["kept", "turn.99"], 90)
