"""Control messages from the right hands only: `broker.control_users` and the user-id that the broker vouches for."""

import subprocess
import time

import pika
import pytest

from support import schema
from support.admin import Admin
from support.paths import program
from support.plane import CONFIGURATION, PING, REASSIGN

CONTROL = {
    "ping": (PING, b""),
    "hint": (REASSIGN, b""),
    "configuration": (CONFIGURATION, schema.configuration(["forbidden.topic"])),
}

FOLLOWS_A_HINT = "asked to move to another front end"


class Hands:
    """An agent that obeys one of two broker users, each with a connection of its own."""

    def __init__(self, world):
        plane_url, self.plane_user = world.broker_user()
        stranger_url, self.stranger_user = world.broker_user()
        self.plane_url, self.stranger_url = plane_url, stranger_url
        self.plane, self.stranger = world.plane(plane_url), world.plane(stranger_url)
        self.agent = world.agent({"broker": {"control_users": [self.plane_user, "somebody-else"],
                                             "reassign_within_seconds": 0}})

    def send(self, sender, kind, **properties):
        """Publishes a control message for application alpha, with a reply queue of the sender's own."""
        type_name, body = CONTROL[kind]
        reply_to = sender.channel.queue_declare("", exclusive=True).method.queue
        sender.publish("", self.agent.client_queue, body, type=type_name, app_id="alpha", reply_to=reply_to,
                       **properties)
        return reply_to

    def bound_topics(self, world):
        return {key for exchange, _, key in world.node.list_bindings() if exchange == self.agent.exchange}


@pytest.fixture
def hands(world):
    return Hands(world)


def test_a_listed_user_is_obeyed(world, hands):
    agent, plane, user = hands.agent, hands.plane, hands.plane_user
    reply_to = hands.send(plane, "ping", user_id=user)
    plane.wait_and_take(reply_to, agent)
    plane.publish("", agent.client_queue, schema.configuration(["t1"]), type=CONFIGURATION, app_id="alpha",
                  user_id=user)
    agent.wait_until(lambda: hands.bound_topics(world) == {"t1"}, "the topic to be bound")
    hands.send(plane, "hint", user_id=user)
    agent.wait_for_log(FOLLOWS_A_HINT)
    assert plane.count(agent.dead_letter_queue) == 0


@pytest.mark.parametrize("kind", CONTROL)
@pytest.mark.parametrize("sender, says_who", [("stranger", True), ("stranger", False), ("plane", False)])
def test_others_and_the_nameless_are_dead_lettered_with_the_reason(world, hands, kind, sender, says_who):
    agent = hands.agent
    before = hands.bound_topics(world)
    hand, user = (hands.plane, hands.plane_user) if sender == "plane" else (hands.stranger, hands.stranger_user)
    reply_to = hands.send(hand, kind, **({"user_id": user} if says_who else {}))
    properties, body = hand.wait_and_take(agent.dead_letter_queue, agent)
    reason = properties.headers["x-qel-reason"]
    assert "broker.control_users" in reason
    assert (f"the broker user {user} is not one" if says_who else "does not say who sent it") in reason
    assert (properties.type, body) == CONTROL[kind]
    # Behind it: what an obeyed message would have caused has had its time.
    hands.plane.wait_and_take(hands.send(hands.plane, "ping", user_id=hands.plane_user), agent)
    assert hand.take(reply_to) is None
    assert hands.bound_topics(world) == before
    assert FOLLOWS_A_HINT not in agent.log()


@pytest.mark.parametrize("kind", CONTROL)
def test_the_broker_itself_refuses_a_forged_name(hands, kind):
    with pytest.raises(pika.exceptions.ChannelClosedByBroker) as refused:
        hands.send(hands.stranger, kind, user_id=hands.plane_user)
    assert refused.value.reply_code == 406
    assert "user_id" in refused.value.reply_text


@pytest.mark.parametrize("kind", CONTROL)
def test_a_name_in_a_header_of_a_parked_copy_is_not_believed(world, hands, kind):
    agent, stranger = hands.agent, hands.stranger
    alpha = world.attach(agent, "alpha")
    parking = f"{agent.client_queue}.parked.alpha"
    agent.wait_until(lambda: parking in world.node.list_queues(), "the parking queue")
    type_name, body = CONTROL[kind]
    forged = {"x-qel-user-id": hands.plane_user, "x-qel-queue": agent.client_queue,
              "x-qel-routing-key": agent.client_queue, "x-qel-exchange": ""}
    stranger.publish("", parking, body, type=type_name, app_id="alpha", headers=forged)
    properties, _ = stranger.wait_and_take(agent.dead_letter_queue, agent)
    assert "parking queue" in properties.headers["x-qel-reason"]
    assert not alpha.pending()


def test_messages_for_applications_need_no_name(world, hands):
    alpha = world.attach(hands.agent, "alpha")
    hands.stranger.publish("", hands.agent.client_queue, b"order", app_id="alpha", type="order")
    hands.stranger.publish("", hands.agent.client_queue, b"almost", app_id="alpha", type=PING + "s")
    assert sorted(alpha.take(2)) == [b"almost", b"order"]


def test_many_refusals_are_few_lines_and_every_one_is_a_dead_letter(hands):
    agent, stranger = hands.agent, hands.stranger
    began = time.monotonic()
    for _ in range(200):
        stranger.publish("", agent.client_queue, type=PING, user_id=hands.stranger_user)
    agent.wait_until(lambda: stranger.count(agent.dead_letter_queue) == 200, "200 dead letters", patience=60)
    minutes = int((time.monotonic() - began) // 60)
    lines = agent.log_lines(f"refused.*dead-lettered.*{hands.stranger_user}")
    assert 1 <= len(lines) <= 1 + minutes, lines
    assert not agent.log_lines("dead-lettered for application")
    assert Admin(agent).status()["refusedControlMessages"] == 200


def test_without_a_list_everybody_is_obeyed(world):
    agent = world.agent()
    url, user = world.broker_user()
    stranger = world.plane(url)
    stranger.ping(agent)
    stranger.publish("", agent.client_queue, schema.configuration(["t1"]), type=CONFIGURATION, app_id="alpha",
                     user_id=user)
    agent.wait_until(lambda: any(exchange == agent.exchange for exchange, _, _ in world.node.list_bindings()),
                     "the topic to be bound")


def test_qelctl_says_who_it_is(hands):
    def ping(url):
        return subprocess.run([program("qelctl"), "--broker", url, "--timeout", "10", "ping", hands.agent.agent_id],
                              capture_output=True, text=True, timeout=120, check=False)

    obeyed = ping(hands.plane_url)
    assert obeyed.returncode == 0, obeyed.stderr
    refused = ping(hands.stranger_url)
    assert refused.returncode == 1
    properties, _ = hands.plane.wait_and_take(hands.agent.dead_letter_queue, hands.agent)
    assert hands.stranger_user in properties.headers["x-qel-reason"]
