"""qelctl dead-letters: the messages that nobody took, listed, shown, tried again and removed."""

import json
import subprocess
import uuid

import pytest

from support.paths import program
from testbed.processes import wait_until


class Host:
    """The dead-letter queue and the client queue of an agent that does not run, and qelctl for them."""

    def __init__(self, world, queue_type="quorum"):
        self.world = world
        self.plane = world.plane()
        self.agent_id = "d" + uuid.uuid4().hex[:8]
        self.client_queue = f"qel.client.{self.agent_id}"
        self.queue = f"{self.client_queue}.dead"
        self.exchange = f"qel.{self.agent_id}"
        for queue in (self.client_queue, self.queue):
            self.plane.declare_queue(queue, **{"x-queue-type": queue_type})
        self.plane.channel.exchange_declare(self.exchange, "topic", durable=True)

    def add(self, body, application="alpha", reason="not liked", tries=1, headers=None, **properties):
        """A dead letter as the agent writes it."""
        ours = {"x-qel-reason": reason, "x-qel-application": application, "x-qel-tries": tries,
                "x-qel-exchange": self.exchange, "x-qel-routing-key": "a.one", "x-qel-queue": self.client_queue}
        self.plane.publish("", self.queue, body, headers={**ours, **(headers or {})}, **properties)

    def run(self, verb, *arguments):
        return subprocess.run([program("qelctl"), "--broker", self.world.node.url(), "dead-letters", verb,
                               self.agent_id, *map(str, arguments)],
                              capture_output=True, text=True, timeout=120, check=False)

    def worked(self, verb, *arguments):
        done = self.run(verb, *arguments)
        assert done.returncode == 0, f"status {done.returncode}\n{done.stdout}{done.stderr}"
        return done.stdout

    def lines(self, verb, *arguments):
        return [json.loads(line) for line in self.worked(verb, *arguments, "--json").splitlines()]

    def bodies(self, queue=None):
        """Takes everything that is ready in a queue."""
        taken = []
        while (message := self.plane.take(queue or self.queue)) is not None:
            taken.append(message[1])
        return taken

    def take(self, queue):
        return wait_until(lambda: self.plane.take(queue), f"a message in {queue}", 30.0)


@pytest.fixture(params=["quorum", "classic"])
def host(world, request):
    return Host(world, request.param)


def test_list_shows_every_dead_letter_and_leaves_them_in_order(host):
    for number in range(20):
        host.add(b"x" * number, tries=number, reason=f"reason {number}", type="my.type", message_id=f"m{number}")
    rows = host.lines("list")
    assert [row["number"] for row in rows] == list(range(1, 21))
    assert rows[7] == {"number": 8, "time": "", "application": "alpha", "reason": "reason 7", "tries": 7,
                       "routingKey": "a.one", "type": "my.type", "messageId": "m7", "bodyBytes": 7}
    assert host.lines("list") == rows, "looking changes nothing"
    assert host.bodies() == [b"x" * number for number in range(20)]


def test_the_list_for_people_is_a_table(host):
    host.add(b"one", message_id="m1", type="my.type")
    text = host.worked("list")
    head, row, end = text.splitlines()
    assert head.split() == ["NUMBER", "TIME", "APPLICATION", "REASON", "TRIES", "ROUTING", "KEY", "TYPE", "MESSAGE",
                            "ID", "SIZE"]
    assert row.split() == ["1", "-", "alpha", "not", "liked", "1", "a.one", "my.type", "m1", "3"]
    assert row.index("alpha") == head.index("APPLICATION")
    assert end == f"1 listed, 1 message in queue {host.queue}"


def test_an_empty_queue_lists_nothing(host):
    assert host.worked("list") == f"0 listed, 0 messages in queue {host.queue}\n"


def test_list_selects_by_application_reason_and_number(host):
    host.add(b"1", application="alpha", reason="cannot be read")
    host.add(b"2", application="beta", reason="cannot be read")
    host.add(b"3", application="alpha", reason="too many tries")
    numbers = lambda *options: [row["number"] for row in host.lines("list", *options)]  # noqa: E731
    assert numbers("--application", "alpha") == [1, 3]
    assert numbers("--reason", "be read") == [1, 2]
    assert numbers("--application", "alpha", "--reason", "tries") == [3]
    assert numbers("--limit", 2) == [1, 2]
    assert numbers("--limit", 1, "--application", "beta") == [2]
    assert host.bodies() == [b"1", b"2", b"3"]


def test_show_prints_everything_of_a_message(host):
    host.add(b"\xff\x00", message_id="m1")
    host.add("gr\u00fc\u00dfe".encode(), message_id="m2", type="my.type", correlation_id="c", reply_to="r",
             content_type="text/plain", priority=3, app_id="alpha",
             headers={"mine": "kept", "x-qel-user-id": "plane", "x-qel-expiration": "60000"})
    shown, = host.lines("show", 2)
    headers = shown.pop("headers")
    assert shown == {
        "number": 2, "application": "alpha", "reason": "not liked", "tries": 1, "exchange": host.exchange,
        "routingKey": "a.one", "queue": host.client_queue, "type": "my.type", "appId": "alpha", "messageId": "m2",
        "correlationId": "c", "replyTo": "r", "userId": "plane", "contentType": "text/plain", "expiration": "60000",
        "deliveryMode": 2, "priority": 3, "bodyBytes": 7, "body": "gr\u00fc\u00dfe"}
    assert headers["mine"] == "kept"
    by_id, = host.lines("show", "--message-id", "m1")
    assert (by_id["number"], by_id["bodyBase64"]) == (1, "/wA=")
    text = host.worked("show", 2)
    assert "correlationId:   c\n" in text
    assert "  mine = \"kept\"\n" in text
    assert text.endswith("body (7 bytes):\ngr\u00fc\u00dfe\n")
    assert host.plane.count(host.queue) == 2


def test_show_of_what_is_not_there_fails(host):
    host.add(b"one")
    for arguments in ((2,), ("--message-id", "none")):
        done = host.run("show", *arguments)
        assert done.returncode == 1
        assert f"in queue {host.queue}, which has 1 message" in done.stderr


def test_replay_to_the_application_goes_through_the_client_queue(host):
    host.add(b"again", application="alpha", app_id="", type="my.type", message_id="m1", correlation_id="c",
             headers={"mine": "kept", "x-qel-user-id": "somebody", "x-qel-expiration": "3600000",
                      "x-qel-cc": ["copied"], "x-death": [{"reason": "old"}], "x-first-death-queue": "q",
                      "x-delivery-count": 3})
    report, = host.lines("replay", "--all")
    assert report == {"agent": host.agent_id, "queue": host.queue, "seen": 1, "selected": 1, "replayed": 1,
                      "failed": 0}
    properties, body = host.take(host.client_queue)
    assert (body, properties.app_id, properties.type, properties.message_id) == (b"again", "alpha", "my.type", "m1")
    assert (properties.correlation_id, properties.user_id, properties.expiration) == ("c", None, "3600000")
    # A quorum queue counts from 0 for us.
    assert {"x-delivery-count": 0, **properties.headers} == {"x-delivery-count": 0, "mine": "kept"}
    assert host.bodies() == []


def test_replay_to_the_original_place_reaches_all_who_listen_there(host):
    listener = f"listener.{host.agent_id}"
    host.plane.declare_queue(listener)
    host.plane.channel.queue_bind(listener, host.exchange, "a.*")
    host.add(b"named", application="alpha")
    host.add(b"nobody's", application="")
    host.worked("replay", "--all", "--to", "original")
    assert [host.take(listener)[1] for _ in range(2)] == [b"named", b"nobody's"]
    assert host.bodies() == []


def test_a_dead_letter_that_names_nobody_goes_back_to_where_it_was_published(host):
    host.add(b"nobody's", application="", headers={"x-qel-exchange": "", "x-qel-routing-key": host.client_queue})
    host.worked("replay", "--all")
    properties, body = host.take(host.client_queue)
    assert (body, properties.app_id) == (b"nobody's", None)


def test_copies_are_made_again_at_the_original_place_only(host):
    copy = f"copy.{host.agent_id}"
    host.plane.declare_queue(copy)
    host.add(b"again", headers={"x-qel-exchange": "", "x-qel-routing-key": host.client_queue, "x-qel-cc": [copy]})
    host.worked("replay", "--all", "--to", "original")
    assert host.take(copy)[1] == b"again"
    host.add(b"alone", headers={"x-qel-cc": [copy]})
    host.worked("replay", "--all", "--to", "application")
    assert [host.take(host.client_queue)[1] for _ in range(2)] == [b"again", b"alone"]
    assert host.plane.count(copy) == 0


def test_a_message_that_no_queue_takes_stays_and_the_others_go(host):
    host.add(b"1")
    host.add(b"2", application="", headers={"x-qel-exchange": "", "x-qel-routing-key": "no.such.queue"})
    host.add(b"3")
    done = host.run("replay", "--all")
    assert done.returncode == 1
    assert "message 2 stays in the queue: no queue takes it" in done.stderr
    assert f"2 of 3 messages replayed, 1 failed; 3 looked at in queue {host.queue}" in done.stdout
    assert [host.take(host.client_queue)[1] for _ in range(2)] == [b"1", b"3"]
    assert host.bodies() == [b"2"]


def test_a_message_for_an_exchange_that_is_gone_stays(host):
    host.add(b"1", application="", headers={"x-qel-exchange": "no.such.exchange"})
    done = host.run("replay", "--all")
    assert done.returncode == 1
    assert "no.such.exchange" in done.stderr
    assert host.bodies() == [b"1"]


def test_a_message_that_does_not_say_where_to_stays(host):
    host.plane.publish("", host.queue, b"stray")
    for to, why in (("original", "it does not say where it was published to"),
                    ("application", "it names no application")):
        done = host.run("replay", "--all", "--to", to)
        assert done.returncode == 1
        assert why in done.stderr
    assert host.bodies() == [b"stray"]


def test_replay_takes_what_is_selected_and_leaves_the_rest_in_order(host):
    for number in range(300):
        host.add(str(number).encode(), application="beta" if number % 3 else "alpha", message_id=f"m{number}",
                 reason="odd" if number % 2 else "even")
    host.worked("replay", "--application", "alpha", "--reason", "odd")
    replayed = [number for number in range(300) if number % 3 == 0 and number % 2]
    assert [int(host.take(host.client_queue)[1]) for _ in replayed] == replayed
    host.worked("replay", "--message-id", "m1")
    assert host.take(host.client_queue)[1] == b"1"
    left = [number for number in range(300) if number not in replayed and number != 1]
    assert [int(body) for body in host.bodies()] == left


def test_what_comes_while_replaying_is_left_for_the_next_time(host):
    """A message that comes back at once is not tried for ever."""
    host.add(b"round", application="", headers={"x-qel-exchange": "", "x-qel-routing-key": host.queue})
    assert host.lines("replay", "--all")[0]["replayed"] == 1
    assert host.bodies() == [b"round"]


def test_a_dead_letter_of_the_broker_itself_is_understood(host):
    source = f"source.{host.agent_id}"
    host.plane.declare_queue(source, **{"x-dead-letter-exchange": "", "x-dead-letter-routing-key": host.queue})
    host.plane.channel.queue_bind(source, host.exchange, "b.#")
    host.plane.publish(host.exchange, "b.two", b"refused", message_id="m1", user_id="guest", expiration="3600000")
    method, _, _ = wait_until(lambda: (got := host.plane.channel.basic_get(source))[0] and got, "the message", 30.0)
    host.plane.channel.basic_reject(method.delivery_tag, requeue=False)
    wait_until(lambda: host.plane.count(host.queue) == 1, "the dead letter", 30.0)

    row, = host.lines("list")
    assert (row["reason"], row["routingKey"], row["messageId"]) == ("the broker: rejected", "b.two", "m1")
    assert row["time"].endswith("Z")
    shown, = host.lines("show", 1)
    assert (shown["queue"], shown["exchange"], shown["expiration"]) == (source, host.exchange, "3600000")
    host.worked("replay", "--reason", "rejected")
    properties, body = host.take(source)
    assert (body, properties.headers or {}, properties.expiration) == (b"refused", {}, "3600000")
    assert properties.user_id is None
    assert host.bodies() == []


def test_purge_counts_first_and_removes_when_told_to(host):
    for number in range(6):
        host.add(str(number).encode(), application="beta" if number % 2 else "alpha")
    done = host.run("purge", "--application", "beta")
    assert done.returncode == 2
    assert f"3 messages of 6 in queue {host.queue} would be removed for good: add --yes to do it" in done.stderr
    host.worked("purge", "--application", "beta", "--yes")
    assert [row["application"] for row in host.lines("list")] == ["alpha"] * 3
    host.worked("purge", "--all", "--yes")
    assert host.bodies() == []


def test_what_cannot_be_read_is_listed_and_not_lost(host):
    nested = {"leaf": "end"}
    for _ in range(40):
        nested = {"n": nested}
    host.add(b"1")
    host.plane.publish("", host.queue, b"deep", headers=nested)
    host.add(b"3")
    rows = host.lines("list")
    assert [row["number"] for row in rows] == [1, 2, 3]
    assert rows[1]["unreadable"]
    done = host.run("replay", "--all")
    assert done.returncode == 1
    assert "message 2 stays in the queue: it cannot be read" in done.stderr
    assert host.bodies() == [b"deep"]


def test_another_consumer_is_told_of(host):
    host.add(b"1")
    host.plane.channel.basic_qos(prefetch_count=1)
    host.plane.channel.basic_consume(host.queue, lambda *_: None)
    wait_until(lambda: host.plane.count(host.queue) == 0, "the other consumer to hold the message", 30.0)
    done = host.run("list")
    assert done.returncode == 0
    assert "1 other consumer(s) read from queue" in done.stderr
    assert f"0 messages in queue {host.queue}" in done.stdout


def test_a_queue_that_is_not_there_is_named(host):
    for arguments in (("list",), ("show", 1), ("replay", "--all"), ("purge", "--all", "--yes")):
        done = subprocess.run([program("qelctl"), "--broker", host.world.node.url(), "dead-letters", arguments[0],
                               "nobody-at-all", *map(str, arguments[1:])],
                              capture_output=True, text=True, timeout=120, check=False)
        assert done.returncode == 1
        assert "the broker has no queue qel.client.nobody-at-all.dead" in done.stderr


def test_more_than_fits_into_memory_at_once_passes_through(host):
    """Bodies of 100 MiB in all, of which qelctl holds no more than a part; its data may have 300 MiB here."""
    for number in range(50):
        host.add(bytes([number]) * (2 << 20), message_id=str(number))
    limited = ["prlimit", f"--data={300 << 20}", program("qelctl"), "--broker", host.world.node.url(), "dead-letters"]
    for verb in ("list", "replay"):
        arguments = [verb, host.agent_id] + (["--all"] if verb == "replay" else [])
        done = subprocess.run([*limited, *arguments], capture_output=True, text=True, timeout=250, check=False)
        assert done.returncode == 0, done.stdout + done.stderr
    assert host.plane.count(host.queue) == 0
    for number in range(50):
        assert host.take(host.client_queue)[1] == bytes([number]) * (2 << 20)


def qelctl(world, agent, verb, *arguments):
    done = subprocess.run([program("qelctl"), "--broker", world.node.url(), "--json", "dead-letters", verb,
                           agent.agent_id, *arguments], capture_output=True, text=True, timeout=120, check=False)
    assert done.returncode == 0, done.stdout + done.stderr
    return [json.loads(line) for line in done.stdout.splitlines()]


def test_what_nobody_took_arrives_after_the_application_is_configured(world):
    agent, plane = world.agent(), world.plane()
    plane.channel.queue_bind(agent.client_queue, agent.exchange, "late.topic")
    plane.publish(agent.exchange, "late.topic", b"early", type="my.type", message_id="m1")
    agent.wait_until(lambda: plane.count(agent.dead_letter_queue) == 1, "the dead letter")
    row, = qelctl(world, agent, "list")
    assert (row["application"], row["routingKey"], row["messageId"]) == ("", "late.topic", "m1")
    assert row["reason"]
    assert row["time"]

    alpha = world.attach(agent, "alpha")
    plane.configure(agent, "alpha", topics=["late.topic"])
    alpha.wait_for_state("APPLIED", ["late.topic"])
    assert qelctl(world, agent, "replay", "--all")[0]["replayed"] == 1
    delivery = alpha.next()
    alpha.verdict(delivery, "done")
    assert (delivery.body, delivery.routing_key, delivery.tries) == (b"early", b"late.topic", 0)
    assert [header.name for header in delivery.properties.headers] == []
    assert plane.count(agent.dead_letter_queue) == 0


def test_what_one_application_refused_comes_to_that_one_again(world):
    agent, plane = world.agent(), world.plane()
    alpha, beta = world.attach(agent, "alpha"), world.attach(agent, "beta")
    for name, application in (("alpha", alpha), ("beta", beta)):
        plane.configure(agent, name, topics=["shared"])
        application.wait_for_state("APPLIED", ["shared"])
    plane.publish(agent.exchange, "shared", b"one", message_id="m1")
    alpha.verdict(alpha.next(), "dead", reason="not today")
    assert beta.take() == [b"one"]
    agent.wait_until(lambda: plane.count(agent.dead_letter_queue) == 1, "the dead letter")

    assert qelctl(world, agent, "replay", "--reason", "not today")[0]["replayed"] == 1
    assert alpha.take() == [b"one"]
    plane.publish(agent.exchange, "shared", b"two")
    assert beta.take() == [b"two"], "beta did not get the first again"
