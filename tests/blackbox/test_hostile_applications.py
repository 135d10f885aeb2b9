"""Local processes that speak nonsense on an application's socket: another application is served all the while, nothing of
them is left behind, and their places are free again."""

import contextlib
import os
import random
import resource
import socket

import pytest

from support.gauge import MIB, assert_log_is_ours, measured
from support.hostile import warm_up

DATA, HEADERS, SETTINGS, CONTINUATION = 0, 1, 4, 9
CHANCE = random.Random(1)


def frame(kind, announced, payload=b"", flags=0, stream=0):
    """A frame of HTTP/2 that says it has so many bytes."""
    return announced.to_bytes(3, "big") + bytes([kind, flags]) + stream.to_bytes(4, "big") + payload


GREETING = b"PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n" + frame(SETTINGS, 0)
NONSENSE = {
    "nothing": b"",
    "garbage": CHANCE.randbytes(MIB),
    "garbage after the greeting": GREETING + CHANCE.randbytes(MIB),
    "half a greeting": GREETING[:10],
    "half a frame": GREETING + frame(HEADERS, 100, b"x" * 50, stream=1),
    "a huge frame": GREETING + frame(DATA, 0xFFFFFF, bytes(4 * MIB), stream=1),
    "headers that never end": GREETING + frame(HEADERS, 0, stream=1) + frame(CONTINUATION, 16000, bytes(16000),
                                                                              stream=1) * 64,
    "ten thousand settings": GREETING + frame(SETTINGS, 0) * 10000,
}


@pytest.fixture
def agent(world):
    made = world.agent()
    yield made
    assert not made.log_lines("onnection to the broker .* ended")
    assert_log_is_ours(made)


@pytest.fixture
def served(world, agent):
    """Run it to see that alpha is served; the nonsense is for beta."""
    plane = world.plane()
    alpha = warm_up(world, agent, plane)

    def check():
        bodies = [str(number).encode() for number in range(20)]
        for body in bodies:
            plane.publish("", agent.client_queue, body, app_id="alpha")
        assert alpha.take(len(bodies)) == bodies

    return check


def connect(ends, agent):
    made = ends.enter_context(socket.socket(socket.AF_UNIX))
    made.settimeout(5)
    made.connect(str(agent.socket("beta")))
    return made


@pytest.mark.parametrize("name", NONSENSE)
def test_nonsense_disturbs_nobody(world, agent, served, name):
    with measured(agent, f"application: {name}", world.node.url()), contextlib.ExitStack() as ends:
        for _ in range(20):
            one = connect(ends, agent)
            # It may be cut off in the middle.
            with contextlib.suppress(OSError):
                one.sendall(NONSENSE[name])
        served()
    world.attach(agent, "beta")


def test_one_byte_at_a_time_disturbs_nobody(world, agent, served):
    with measured(agent, "application: one byte at a time", world.node.url()), contextlib.ExitStack() as ends:
        all_of_them = [connect(ends, agent) for _ in range(20)]
        for byte in NONSENSE["half a frame"]:
            for one in all_of_them:
                one.send(bytes([byte]))
        served()
    world.attach(agent, "beta")


def test_thousands_of_connections_disturb_nobody(world, agent, served):
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (min(hard, 8192), hard))
    try:
        with measured(agent, "application: 3,000 connections", world.node.url()), contextlib.ExitStack() as ends:
            for _ in range(3000):
                with contextlib.suppress(OSError):
                    connect(ends, agent).send(GREETING)
            served()
    finally:
        resource.setrlimit(resource.RLIMIT_NOFILE, (soft, hard))
    agent.wait_until(lambda: len(os.listdir(f"/proc/{agent.pid}/fd")) < 100, "the agent to close them, too")
    world.attach(agent, "beta")
