"""What hostile publishers send to a real broker."""

import struct

import pika

HEADERS_FLAG = 1 << 13


class RawProperties(pika.BasicProperties):
    """Properties that are encoded already, with their flags."""

    def __init__(self, encoded):
        super().__init__()
        self._encoded = encoded

    def encode(self):
        return [self._encoded]


def headers(table):
    """Encoded properties with nothing but headers; `table` is encoded."""
    return struct.pack(">HI", HEADERS_FLAG, len(table)) + table


def nested_arrays(depth):
    """An encoded table with an array in an array in an array: 5 bytes a level."""
    value = b""
    for _ in range(depth):
        value = b"A" + struct.pack(">I", len(value)) + value
    return b"\x01k" + value


def nested_tables(depth):
    """An encoded table in a table in a table: 6 bytes a level."""
    table = b""
    for _ in range(depth - 1):
        table = b"\x00F" + struct.pack(">I", len(table)) + table
    return table


def many_headers(count):
    """An encoded table of as many entries: 2 bytes each, and fifty times as much in memory."""
    return b"\x00V" * count


def warm_up(world, agent, plane, application="alpha"):
    """Uses everything once, so that the memory that it takes is there; the application stays attached."""
    attached = world.attach(agent, application)
    plane.publish("", agent.client_queue, b"warm", app_id=application)
    assert attached.take() == [b"warm"]
    plane.publish("", agent.client_queue, b"warm", app_id="nobody")
    plane.wait_and_take(agent.dead_letter_queue, agent)
    plane.ping(agent)
    return attached
