"""The broker is killed, stopped and hung under load, and while it owes the agent an answer.

The invariant of every row: what the broker has confirmed arrives, what the agent has confirmed is on the broker, the
queues end empty, and the agent lives through it. The figure is the longest time without a delivery, which holds the
broker's own absence, or the time until the agent notices.
"""

import concurrent.futures
import signal
import time

import grpc
import pytest

from support import figures
from support.faults import stopped
from support.load import Load
from support.plane import PING

HEARTBEAT = 3
OPTIONS = {"broker": {"heartbeat_seconds": HEARTBEAT}}
# Their counts are exact.
CLASSIC = {"broker": {"heartbeat_seconds": HEARTBEAT, "queue_type": "classic"}}
SILENT = "qel: Connection to the broker .* ended: nothing heard"


def kill(node):
    node.write_down()
    node.kill()
    node.start()


def restart(node):
    node.restart()


def stop_and_start_the_application(node):
    node.ctl("stop_app")
    node.ctl("start_app")


# The longest gap, the broker's absence included: killed 8 s, restarted 9 s, stop_app 4 s.
@pytest.mark.parametrize("fault", [kill, restart, stop_and_start_the_application], ids=lambda fault: fault.__name__)
def test_the_broker_goes_away_and_comes_back_under_load(battered_world, fault):
    agent = battered_world.agent(OPTIONS)
    with Load(battered_world, agent, "alpha", rate=200) as load:
        pid = agent.pid
        fault(battered_world.node)
        back = time.monotonic()
        load.wait_for_flow()
        flowing = time.monotonic() - back
        result = load.finish()
    assert agent.running() and agent.pid == pid
    figures.note(f"broker under load: {fault.__name__}", f"flow {flowing:.1f} s after it was back; {result}")
    assert agent.stop() == 0


def wait_until_silence_is_noticed(agent):
    began = time.monotonic()
    agent.wait_until(lambda: agent.log_lines(SILENT), "the agent to notice")
    return time.monotonic() - began


# Two agents, one of them with nothing to do. Noticed after 5 to 7 s, that is 1.5 to 2 heartbeats and the pauses of a busy
# machine; messages again 0.7 s after the end.
def test_the_broker_hangs_under_load_and_idle(battered_world):
    agent, idle = battered_world.agent(OPTIONS), battered_world.agent(OPTIONS)
    with Load(battered_world, agent, "alpha", rate=200) as load:
        with stopped(battered_world.node.pid):
            noticed = wait_until_silence_is_noticed(agent)
            wait_until_silence_is_noticed(idle)
        back = time.monotonic()
        battered_world.plane().ping(idle, patience=60)
        load.wait_for_flow()
        flowing = time.monotonic() - back
        result = load.finish()
    figures.note(f"broker hung, heartbeat {HEARTBEAT} s",
                 f"noticed after {noticed:.1f} s, flow {flowing:.1f} s after its end; {result}")
    assert agent.stop() == 0


@pytest.fixture
def handed_over(battered_world):
    """Hands a message to an agent that stands still, hangs the broker, and lets the agent go on with what it has.

    Returns when the agent has noticed that the broker is silent and the broker goes on, too: (seconds until it was
    noticed, moment of the broker's return).
    """
    def hand_over(agent, publish):
        node = battered_world.node
        agent.signal(signal.SIGSTOP)
        publish()
        agent.wait_until(
            lambda: node.list_queues(columns=["messages_unacknowledged"])[agent.client_queue][
                "messages_unacknowledged"],
            "the message to be with the agent")
        with stopped(node.pid):
            agent.signal(signal.SIGCONT)
            agent.wait_until(lambda: agent.log_lines("Msg Received"), "the agent to handle the message")
            noticed = wait_until_silence_is_noticed(agent)
        return noticed, time.monotonic()

    return hand_over


def test_the_broker_hangs_inside_a_bind(battered_world, handed_over):
    agent, plane = battered_world.agent(CLASSIC), battered_world.plane()
    alpha = battered_world.attach(agent, "alpha")
    noticed, back = handed_over(agent, lambda: plane.configure(agent, "alpha", topics=["a.one", ("a.two", 1)]))
    alpha.wait_for_state("APPLIED", ["a.one", "a.two"], patience=60)
    applied = time.monotonic() - back
    bound = {(queue, key) for exchange, queue, key in battered_world.node.list_bindings() if exchange == agent.exchange}
    assert bound == {(agent.client_queue, "a.one"), (agent.priority_queue, "a.two")}
    plane = battered_world.plane()
    plane.publish(agent.exchange, "a.two", b"through")
    assert alpha.take() == [b"through"]
    assert plane.count(agent.dead_letter_queue) == 0
    figures.note("broker hung inside a bind", f"noticed after {noticed:.1f} s, applied {applied:.1f} s after its end")
    assert agent.stop() == 0


def test_the_broker_hangs_inside_a_ping_reply(battered_world, handed_over):
    agent, plane = battered_world.agent(CLASSIC), battered_world.plane()
    plane.ping(agent)
    plane.declare_queue(replies := f"replies.{agent.agent_id}")
    noticed, back = handed_over(agent, lambda: plane.publish("", agent.client_queue, type=PING, reply_to=replies,
                                                             correlation_id="during"))
    _, _, seconds = battered_world.plane().ping(agent, patience=60)
    answered = time.monotonic() - back
    figures.note("broker hung inside a ping's reply",
                 f"noticed after {noticed:.1f} s, a ping answered {answered:.1f} s after its end, in {seconds:.2f} s")
    assert agent.stop() == 0


def test_the_broker_hangs_inside_a_publish(battered_world):
    agent, plane = battered_world.agent(OPTIONS), battered_world.plane()
    alpha = battered_world.attach(agent, "alpha")
    queue = f"out.{agent.agent_id}"
    plane.declare_queue(queue)
    alpha.publish("", queue, b"before")
    with concurrent.futures.ThreadPoolExecutor() as pool:
        with stopped(battered_world.node.pid):
            patient = pool.submit(alpha.publish, "", queue, b"patient", patience=60.0)
            with pytest.raises(grpc.RpcError) as impatient:
                alpha.publish("", queue, b"impatient", patience=2.0)
            noticed = wait_until_silence_is_noticed(agent)
            assert not patient.done()
        back = time.monotonic()
        patient.result()
        confirmed = time.monotonic() - back
    assert impatient.value.code() == grpc.StatusCode.DEADLINE_EXCEEDED
    plane = battered_world.plane()
    arrived = []
    while message := plane.take(queue):
        arrived.append(message[1])
    assert {b"before", b"patient"} <= set(arrived) <= {b"before", b"patient", b"impatient"}
    figures.note("broker hung inside an application's publish",
                 f"noticed after {noticed:.1f} s, confirmed {confirmed:.1f} s after its end, "
                 f"copies of it {arrived.count(b'patient')}, of the one given up {arrived.count(b'impatient')}")
    assert agent.stop() == 0
