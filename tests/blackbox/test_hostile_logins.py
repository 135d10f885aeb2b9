"""Logins that make no sense: the agent says what was wrong and is back as soon as the broker is sane."""

import asyncio
import contextlib
import random
import struct

import pytest
from pika import spec

from support.gauge import assert_log_is_ours, measured
from support.hostile import nested_arrays
from support.mad_broker import PROPERTIES, MadBroker, method, raw_method, send


@pytest.fixture
def agent(lonely_world, mad_broker):
    """Ready, and warm: both of its connections have been used."""
    made = lonely_world.agent(urls=mad_broker.url(), options={"broker": {"heartbeat_seconds": 1}})
    mad_broker.ping(made)
    return made


def send_slowly(data):
    """One byte now and then; the agent has had enough before the end."""
    async def madness(connection):
        for octet in data:
            connection.send(bytes([octet]))
            await asyncio.sleep(0.3)
    return madness


START = method(0, spec.Connection.Start(0, 9, PROPERTIES, "PLAIN", "en_US"))


def start_with(table):
    """connection.start with these encoded server properties."""
    return raw_method(0, 10, 10, b"\x00\x09" + struct.pack(">I", len(table)) + table + b"\0\0\0\x05PLAIN\0\0\0\x05en_US")


def after_start(data):
    async def madness(connection):
        connection.send(START)
        await connection.reader.readexactly(8)
        await connection.expect(spec.Connection.StartOk)
        connection.send(data)
        await connection.flush()
    return madness


NO_LOGIN = {
    "garbage": (send(random.Random(4).randbytes(300000)), "received a frame of|unknown type|does not speak"),
    "http": (send(b"HTTP/1.1 400 Bad Request\r\nConnection: close\r\n\r\n"), "received a frame of"),
    "ssh": (send(b"SSH-2.0-OpenSSH_9.2p1 Debian-2\r\n"), "received a frame of"),
    "a TLS alert": (send(b"\x15\x03\x01\x00\x02\x02\x46"), "speaks TLS on this port"),
    "another AMQP": (send(b"AMQP\x00\x01\x00\x00"), "does not speak AMQP 0-9-1"),
    "another mechanism": (send(method(0, spec.Connection.Start(0, 9, {}, "GSSAPI", "en_US"))), "PLAIN"),
    "properties nested 26,000 deep": (send(start_with(nested_arrays(26000))), "nested too deeply"),
    "properties that end early": (send(start_with(b"\x05abc")), "cannot be decoded"),
    "start twice": (after_start(START), "out of place"),
    "secure without end": (after_start(method(0, spec.Connection.Secure("what now?")) * 1000), "out of place"),
    "open before tune": (after_start(method(0, spec.Connection.OpenOk())), "out of place"),
    "a channel before the login": (after_start(method(1, spec.Channel.OpenOk())), "before the login"),
    "frames of one byte": (after_start(method(0, spec.Connection.Tune(2047, 1, 60))), "frames of 1 bytes"),
    "frames of 4095 bytes": (after_start(method(0, spec.Connection.Tune(2047, 4095, 60))), "frames of 4095 bytes"),
    "close with control characters": (
        after_start(method(0, spec.Connection.Close(403, "no\r\n\x1b[2J\x00" + "\u0085" * 100, 0, 0))),
        r"login refused: 403 no\\x0d\\x0a\\x1b\[2J"),
}


@pytest.mark.parametrize("name", NO_LOGIN)
def test_a_login_that_makes_no_sense_is_tried_again(agent, mad_broker, name):
    madness, said = NO_LOGIN[name]
    logins = mad_broker.logins
    with measured(agent, f"login: {name}"):
        mad_broker.next_login(madness)
        agent.wait_until(lambda: agent.log_lines(said), f"the log to say {said}")
        mad_broker.wait_for_agent(agent, logins)
        assert_log_is_ours(agent)


def test_a_login_that_does_not_end_has_a_deadline(lonely_world):
    """Side by side, for each takes ten seconds."""
    cases = {"nothing": send(b""), "half a frame": send(START[:50]), "byte by byte": send_slowly(START * 10)}

    def endless(madness):
        async def login(connection):
            await madness(connection)
            await connection.reader.read()
        return login

    with contextlib.ExitStack() as ends:
        brokers = {name: ends.enter_context(MadBroker()) for name in cases}
        agents = {name: lonely_world.agent(urls=broker.url()) for name, broker in brokers.items()}
        logins = {}
        for name, broker in brokers.items():
            broker.ping(agents[name])
            logins[name] = broker.logins
            ends.enter_context(measured(agents[name], f"login: {name}, without end"))
            broker.next_login(endless(cases[name]))
        for name, agent in agents.items():
            agent.wait_until(lambda agent=agent: agent.log_lines("did not complete the login within 10 s"), "the end", 60)
            brokers[name].wait_for_agent(agent, logins[name])
            assert_log_is_ours(agent)


@pytest.mark.parametrize("channel_max, frame_max, heartbeat", [(0, 0, 0), (65535, 2**32 - 1, 65535), (3, 4096, 1)])
def test_odd_but_legal_tune_values_are_worked_with(lonely_world, mad_broker, channel_max, frame_max, heartbeat):
    async def odd_login(connection):
        await connection.reader.readexactly(8)
        connection.send(START)
        await connection.expect(spec.Connection.StartOk)
        connection.send(method(0, spec.Connection.Tune(channel_max, frame_max, heartbeat)))
        await connection.finish_login()

    mad_broker.next_login(odd_login)
    agent = lonely_world.agent(urls=mad_broker.url(), options={"broker": {"heartbeat_seconds": 1}}, start=False)
    agent.launch()
    agent.wait_until(lambda: any(agent.client_queue in one.consumers for one in list(mad_broker.consumers)), "consumers")
    mad_broker.ping(agent)
