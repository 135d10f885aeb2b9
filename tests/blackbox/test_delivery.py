"""Messages reach the application they are for, and no other."""

import json


def configured(world):
    """Two attached applications: alpha with a.one (normal) and a.two (priority), beta with b.one and the queue."""
    agent, plane = world.agent(), world.plane()
    alpha, beta = world.attach(agent, "alpha"), world.attach(agent, "beta")
    queue = f"work.{agent.agent_id}"
    plane.configure(agent, "alpha", topics=["a.one", ("a.two", 3)])
    plane.configure(agent, "beta", topics=["b.one"], queues=[queue])
    alpha.wait_for_state("APPLIED", ["a.one", "a.two"])
    beta.wait_for_state("APPLIED")
    return agent, plane, alpha, beta, queue


def test_by_topic(world):
    agent, plane, alpha, beta, _ = configured(world)
    plane.publish(agent.exchange, "a.one", b"for alpha")
    plane.publish(agent.exchange, "b.one", b"for beta")
    assert alpha.take() == [b"for alpha"]
    assert beta.take() == [b"for beta"]
    assert alpha.pending() == beta.pending() == 0


def test_by_priority_topic_through_the_priority_queue(world):
    agent, plane, alpha, _, _ = configured(world)
    plane.publish(agent.exchange, "a.two", b"urgent")
    delivery = alpha.next()
    alpha.verdict(delivery, "done")
    assert delivery.body == b"urgent"
    assert delivery.priority
    assert delivery.queue == agent.priority_queue.encode()
    assert world.node.list_bindings() >= {(agent.exchange, agent.client_queue, "a.one"),
                                          (agent.exchange, agent.priority_queue, "a.two")}


def test_by_queue(world):
    _, plane, _, beta, queue = configured(world)
    plane.publish("", queue, b"from the queue")
    delivery = beta.next()
    beta.verdict(delivery, "done")
    assert (delivery.body, delivery.queue) == (b"from the queue", queue.encode())


def test_by_app_id(world):
    agent, plane, alpha, beta, _ = configured(world)
    plane.publish("", agent.client_queue, b"by name", app_id="beta", type="any.type")
    assert beta.take() == [b"by name"]
    assert alpha.pending() == 0


def test_app_id_is_stronger_than_the_topic(world):
    agent, plane, alpha, beta, _ = configured(world)
    plane.publish(agent.exchange, "a.one", b"by name", app_id="beta")
    assert beta.take() == [b"by name"]
    assert alpha.pending() == 0


def test_a_wildcard_topic_matches(world):
    agent, plane = world.agent(), world.plane()
    alpha = world.attach(agent, "alpha")
    plane.configure(agent, "alpha", topics=["sensor.*.temperature", "alarm.#"])
    alpha.wait_for_state("APPLIED")
    plane.publish(agent.exchange, "sensor.7.temperature", b"warm")
    plane.publish(agent.exchange, "alarm.fire.floor.3", b"hot")
    assert alpha.take(2) == [b"warm", b"hot"]


def test_a_topic_of_two_applications_gives_each_of_them_one_copy(world):
    agent, plane = world.agent(), world.plane()
    alpha, beta = world.attach(agent, "alpha"), world.attach(agent, "beta")
    plane.configure(agent, "alpha", topics=["shared.topic"])
    plane.configure(agent, "beta", topics=["shared.topic"])
    alpha.wait_for_state("APPLIED")
    beta.wait_for_state("APPLIED")
    for body in (b"1", b"2", b"3"):
        plane.publish(agent.exchange, "shared.topic", body)
    assert alpha.take(3) == beta.take(3) == [b"1", b"2", b"3"]
    assert alpha.pending() == beta.pending() == 0


def test_messages_keep_their_order_and_their_properties(world):
    agent, plane, alpha, _, _ = configured(world)
    bodies = [str(number).encode() for number in range(500)]
    for body in bodies:
        plane.publish(agent.exchange, "a.one", body, type="my.type", message_id="m" + body.decode(),
                      headers={"number": int(body), "text": "x"})
    for body in bodies:
        delivery = alpha.next()
        alpha.verdict(delivery, "done")
        assert delivery.body == body
        assert delivery.routing_key == b"a.one"
        assert delivery.exchange == agent.exchange
        assert delivery.properties.type == b"my.type"
        assert delivery.properties.message_id == b"m" + body
        headers = {header.name: header.value for header in delivery.properties.headers}
        assert headers[b"number"].integer == int(body)
        assert headers[b"text"].text == b"x"


def test_a_message_for_nobody_is_dead_lettered(world):
    agent, plane, alpha, beta, _ = configured(world)
    plane.publish("", agent.client_queue, b"for nobody", type="any.type")
    _, body = plane.wait_and_take(agent.dead_letter_queue, agent)
    assert body == b"for nobody"
    assert alpha.pending() == beta.pending() == 0


def test_the_body_may_be_large_and_binary(world):
    agent, plane, alpha, _, _ = configured(world)
    body = bytes(range(256)) * 8192
    plane.publish(agent.exchange, "a.one", body)
    assert alpha.take() == [body]


def test_an_application_publishes_through_the_agent(world):
    agent, _, alpha, beta, queue = configured(world)
    alpha.publish(agent.exchange, "b.one", b"to beta")
    assert beta.take() == [b"to beta"]
    alpha.publish("", queue, b"to the queue")
    assert beta.take() == [b"to the queue"]


def test_the_lines_of_the_log_name_the_message_beside_their_text(world):
    """In JSON, each line an object; with the journal's priorities, in front of the text."""
    for log_format in ("json", "journal"):
        agent = world.agent({"log": {"format": log_format, "level": 6}, "broker": {"loop_probe_seconds": 0}})
        world.plane().publish("", agent.client_queue, b"", type="any.type", message_id="order 17", app_id="alpha")
        agent.wait_for_log("Default dispatch for incoming rmq message")
        agent.stop()
        lines = agent.log().splitlines()
        text = "Msg Received in client queue for alpha. message type: any.type"
        if log_format == "json":
            [line] = [line for line in map(json.loads, lines) if line["message"] == text]
            assert (line["application"], line["messageId"], line["deliveryTag"]) == ("alpha", "order 17", 1)
        else:
            assert [line for line in lines if text in line] == [
                f'<6>notice qel [application=alpha message-id="order 17" delivery-tag=1]: {text}']
            assert all(line[:3] in ("<5>", "<6>", "<7>", "<4>") for line in lines)
