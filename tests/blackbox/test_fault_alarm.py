"""The broker runs short of memory or disk and takes no messages for a while.

The invariant: deliveries, settlements and bindings go on; whoever publishes through the agent is told in time that the
broker has not taken the message, and the agent's memory stays within bounds; nothing confirmed is lost, and what was to
be parked is, once. The figures are how soon after the end of the alarm the agent publishes again, and the memory.
"""

import concurrent.futures
import time

import grpc
import pytest

from support import figures, schema
from support.faults import resident_mebibytes
from support.load import Load
from support.plane import CONFIGURATION, PING

# What may wait for confirms (64 MiB), once more for what gRPC holds of it, and some room.
MOST_MEBIBYTES_MORE = 192
# A quorum queue's counters lag behind by seconds, a classic queue's are exact.
EXACT_COUNTS = {"broker": {"queue_type": "classic"}}
MEBIBYTE = bytes(1048576)
# Longer than the confirm of a copy is waited for, and longer than an application's publish may take.
LONG = 33


@pytest.fixture(params=[("memory", "set_vm_memory_high_watermark", "0", "0.4", LONG),
                        ("disk", "set_disk_free_limit", "100000GB", "50MB", 3)], ids=lambda param: param[0])
def alarm(request, battered_world):
    """(name, how long it is to last, a function that raises it, one that ends it)"""
    name, command, raised, ended, seconds = request.param
    node = battered_world.node
    yield name, seconds, lambda: node.ctl(command, raised), lambda: node.ctl(command, ended)
    node.ctl(command, ended)


def flood(application, queue):
    """Publishes far more than the agent may hold for a broker that takes nothing; how each call ended."""
    def publish():
        try:
            application.publish("", queue, MEBIBYTE, patience=2.0)
            return grpc.StatusCode.OK
        except grpc.RpcError as error:
            return error.code()

    with concurrent.futures.ThreadPoolExecutor(64) as pool:
        return [call.result() for call in [pool.submit(publish) for _ in range(200)]]


def check_that_the_rest_goes_on(world, agent, beta):
    """Bindings, deliveries and settlements do not need the broker to take messages. gamma is not there."""
    node = world.node
    # A publisher's connection is blocked, too: what comes now is published inside of the broker.
    node.publish("", agent.client_queue, schema.configuration(["late.topic"]), type=CONFIGURATION, app_id="beta")
    beta.wait_for_state("APPLIED", ["late.topic"])
    bodies = [str(number).encode() for number in range(50)]
    node.publish(agent.exchange, "late.topic", *bodies)
    assert beta.take(50) == bodies
    node.publish("", agent.client_queue, *bodies, app_id="gamma")
    agent.wait_until(
        lambda: node.list_queues(columns=["messages_unacknowledged"])[agent.client_queue]["messages_unacknowledged"]
        == len(bodies), "everything but gamma's messages to be settled")


def check_that_a_publish_is_known_to_be_unsent(application, queue):
    with pytest.raises(grpc.RpcError) as unsent:
        application.publish("", queue, b"", patience=3.0)
    assert unsent.value.code() == grpc.StatusCode.UNAVAILABLE
    assert "not sent" in unsent.value.details()


# Answered and published again 0.1 to 0.4 s after the end of the alarm; 70 MiB more in the meantime.
def test_an_alarm(battered_world, alarm):
    name, seconds, raise_alarm, end_alarm = alarm
    agent = battered_world.agent(EXACT_COUNTS, applications=("alpha", "beta", "gamma"))
    beta = battered_world.attach(agent, "beta")
    flooded = f"flood.{agent.agent_id}"
    battered_world.plane().declare_queue(flooded)
    with Load(battered_world, agent, "alpha") as load:
        before = resident_mebibytes(agent.pid)
        raise_alarm()
        raised = time.monotonic()
        agent.wait_for_log("The broker takes no messages")
        beta.wait_for_broker("BLOCKED")
        check_that_a_publish_is_known_to_be_unsent(beta, flooded)
        check_that_the_rest_goes_on(battered_world, agent, beta)
        battered_world.node.publish("", agent.client_queue, b"", type=PING, reply_to="nobody", correlation_id="1")
        answers = flood(beta, flooded)
        more = resident_mebibytes(agent.pid) - before
        time.sleep(max(0.0, raised + seconds - time.monotonic()))
        lasted = time.monotonic() - raised
        end_alarm()
        # The broker looks at its memory every few seconds only.
        agent.wait_for_log("The broker takes messages again")
        beta.wait_for_broker("CONNECTED")
        ended = time.monotonic()
        battered_world.plane().ping(agent)
        answered = time.monotonic() - ended
        beta.publish("", flooded, b"after")
        published = time.monotonic() - ended
        load.wait_for_flow()
        gamma = battered_world.attach(agent, "gamma")
        assert gamma.take(50) == [str(number).encode() for number in range(50)]
        # The ping that could not be answered in its time; no answer is no success.
        dead, _ = battered_world.plane().wait_and_take(agent.dead_letter_queue, agent)
        assert dead.type == PING
        result = load.finish()
    assert set(answers) <= {grpc.StatusCode.DEADLINE_EXCEEDED, grpc.StatusCode.UNAVAILABLE}
    assert more < MOST_MEBIBYTES_MORE
    assert gamma.pending() == 0
    figures.note(f"alarm: {name}, {lasted:.0f} s",
                 f"a ping answered {answered:.1f} s and a message published {published:.1f} s after its end, "
                 f"{more:.0f} MiB more; {result}")
    assert agent.stop() == 0
