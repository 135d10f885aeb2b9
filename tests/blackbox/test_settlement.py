"""What becomes of a message after the application's verdict, or without one."""

import grpc

from support.schema import applications as schema


# A quorum queue's counters lag behind by seconds, a classic queue's are exact.
EXACT_COUNTS = {"broker": {"queue_type": "classic"}}


def outstanding(world, queue):
    """Messages in a queue, the unsettled included; for agents with EXACT_COUNTS."""
    return world.node.list_queues()[queue]["messages"]


def test_done_settles_the_message(world):
    agent, plane = world.agent(EXACT_COUNTS), world.plane()
    alpha = world.attach(agent, "alpha")
    for number in range(100):
        plane.publish("", agent.client_queue, str(number).encode(), app_id="alpha")
    alpha.take(100)
    agent.wait_until(lambda: outstanding(world, agent.client_queue) == 0, "the client queue to be settled")
    assert plane.count(agent.dead_letter_queue) == 0


def test_dead_goes_to_the_dead_letter_queue_with_its_history(world):
    agent, plane = world.agent(EXACT_COUNTS), world.plane()
    alpha = world.attach(agent, "alpha")
    plane.configure(agent, "alpha", topics=["a.one"])
    alpha.wait_for_state("APPLIED", ["a.one"])
    plane.publish(agent.exchange, "a.one", b"poison", type="my.type", headers={"mine": "kept"})
    alpha.verdict(alpha.next(), "dead", reason="cannot be read")

    properties, body = plane.wait_and_take(agent.dead_letter_queue, agent)
    assert (body, properties.type) == (b"poison", "my.type")
    headers = properties.headers
    assert headers["x-qel-reason"] == "cannot be read"
    assert headers["x-qel-application"] == "alpha"
    assert headers["x-qel-tries"] == 1
    assert headers["x-qel-exchange"] == agent.exchange
    assert headers["x-qel-routing-key"] == "a.one"
    assert headers["x-qel-queue"] == agent.client_queue
    assert headers["x-qel-time"]
    assert headers["mine"] == "kept"
    agent.wait_until(lambda: outstanding(world, agent.client_queue) == 0, "the client queue to be settled")


def test_retry_delivers_again_and_counts(world):
    agent, plane = world.agent(EXACT_COUNTS), world.plane()
    alpha = world.attach(agent, "alpha")
    plane.publish("", agent.client_queue, b"again", app_id="alpha")
    for tries in range(3):
        delivery = alpha.next()
        assert (delivery.body, delivery.tries) == (b"again", tries)
        assert delivery.redelivered == (tries > 0)
        alpha.verdict(delivery, "retry", delay_ms=1)
    alpha.take()
    agent.wait_until(lambda: outstanding(world, agent.client_queue) == 0, "the client queue to be settled")
    assert plane.count(agent.dead_letter_queue) == 0


def test_too_many_tries_end_in_the_dead_letter_queue(world):
    agent, plane = world.agent(applications={"alpha": {"max_tries": 3}}), world.plane()
    alpha = world.attach(agent, "alpha")
    plane.publish("", agent.client_queue, b"hopeless", app_id="alpha")
    for _ in range(3):
        alpha.verdict(alpha.next(), "retry", delay_ms=1)
    properties, body = plane.wait_and_take(agent.dead_letter_queue, agent)
    assert body == b"hopeless"
    assert properties.headers["x-qel-tries"] == 3
    assert properties.headers["x-qel-application"] == "alpha"
    assert properties.headers["x-qel-reason"] == "too many tries"
    assert alpha.pending() == 0


def test_each_receiver_of_a_shared_topic_settles_for_itself(world):
    agent, plane = world.agent(EXACT_COUNTS), world.plane()
    alpha, beta = world.attach(agent, "alpha"), world.attach(agent, "beta")
    for name, application in (("alpha", alpha), ("beta", beta)):
        plane.configure(agent, name, topics=["shared"])
        application.wait_for_state("APPLIED", ["shared"])
    plane.publish(agent.exchange, "shared", b"one")
    alpha.verdict(alpha.next(), "dead", reason="not for me")
    assert outstanding(world, agent.client_queue) == 1, "beta has not answered yet"
    assert beta.take() == [b"one"]
    properties, _ = plane.wait_and_take(agent.dead_letter_queue, agent)
    assert properties.headers["x-qel-application"] == "alpha"
    agent.wait_until(lambda: outstanding(world, agent.client_queue) == 0, "the client queue to be settled")
    assert plane.take(agent.dead_letter_queue) is None


def check_ends_the_stream_only(world, agent, plane, bad, mention):
    """The agent ends the stream with an error that mentions something; the application attaches again and gets on."""
    error = bad.wait_until_ended()
    assert isinstance(error, grpc.RpcError)
    assert error.code() == grpc.StatusCode.INVALID_ARGUMENT
    assert mention in error.details()
    plane.publish("", agent.client_queue, b"after", app_id="alpha")
    successor = world.attach(agent, "alpha")
    bodies = successor.take()
    while bodies[-1] != b"after":
        bodies += successor.take()
    agent.wait_until(lambda: outstanding(world, agent.client_queue) == 0, "the client queue to be settled")
    assert plane.count(agent.dead_letter_queue) == 0
    return bodies


def test_a_second_verdict_for_a_delivery_is_an_error_and_harms_nothing(world):
    agent, plane = world.agent(EXACT_COUNTS), world.plane()
    alpha = world.attach(agent, "alpha")
    for body in (b"1", b"2"):
        plane.publish("", agent.client_queue, body, app_id="alpha")
    first, _unanswered = alpha.next(), alpha.next()
    alpha.verdict(first, "done")
    alpha.verdict(first, "dead", reason="changed my mind")
    assert check_ends_the_stream_only(world, agent, plane, alpha, str(first.delivery_id)) == [b"2", b"after"]


def test_a_verdict_for_an_unknown_delivery_is_an_error_and_harms_nothing(world):
    agent, plane = world.agent(EXACT_COUNTS), world.plane()
    alpha = world.attach(agent, "alpha")
    alpha.verdict(schema.Delivery(delivery_id=4711), "done")
    assert check_ends_the_stream_only(world, agent, plane, alpha, "4711") == [b"after"]


def test_a_request_of_a_kind_to_come_is_ignored(world):
    agent, plane = world.agent(), world.plane()
    alpha = world.attach(agent, "alpha")
    alpha.send(schema.AttachRequest())
    plane.publish("", agent.client_queue, b"after", app_id="alpha")
    assert alpha.take() == [b"after"]


def test_a_verdict_of_no_kind_is_an_error_and_harms_nothing(world):
    agent, plane = world.agent(EXACT_COUNTS), world.plane()
    alpha = world.attach(agent, "alpha")
    plane.publish("", agent.client_queue, b"1", app_id="alpha")
    verdict = schema.Verdict(delivery_id=alpha.next().delivery_id)
    alpha.send(schema.AttachRequest(verdicts=schema.VerdictBatch(verdicts=[verdict])))
    assert check_ends_the_stream_only(world, agent, plane, alpha, str(verdict.delivery_id)) == [b"1", b"after"]


def test_a_window_bounds_what_is_unanswered(world):
    agent, plane = world.agent(), world.plane()
    alpha, beta = world.attach(agent, "alpha", window=3), world.attach(agent, "beta")
    for number in range(10):
        plane.publish("", agent.client_queue, str(number).encode(), app_id="alpha")
    plane.publish("", agent.client_queue, b"behind them", app_id="beta")
    held = [alpha.next() for _ in range(3)]
    assert beta.take() == [b"behind them"], "nobody waits for alpha"
    assert alpha.pending() == 0
    alpha.verdict(held[0], "done")
    assert alpha.next().body == b"3"
    assert alpha.pending() == 0


def test_messages_for_an_absent_application_are_parked_and_come_in_order(world):
    agent, plane = world.agent(EXACT_COUNTS), world.plane()
    parked = f"{agent.client_queue}.parked.alpha"
    for number in range(200):
        plane.publish("", agent.client_queue, str(number).encode(), app_id="alpha", type="t", message_id=str(number))
    agent.wait_until(lambda: world.node.list_queues().get(parked, {}).get("messages") == 200,
                     "the messages to be parked")
    assert outstanding(world, agent.client_queue) == 0

    alpha = world.attach(agent, "alpha")
    for number in range(200, 400):
        plane.publish("", agent.client_queue, str(number).encode(), app_id="alpha", type="t", message_id=str(number))
    for number in range(400):
        delivery = alpha.next()
        alpha.verdict(delivery, "done")
        assert delivery.body == str(number).encode()
        assert delivery.properties.message_id == str(number).encode()
        assert delivery.queue == agent.client_queue.encode(), "a parked message looks like any other"
    agent.wait_until(lambda: outstanding(world, parked) == 0, "the parking queue to be empty")
    assert plane.count(agent.dead_letter_queue) == 0


def test_parked_messages_survive_a_restart_of_the_agent(world):
    agent, plane = world.agent(EXACT_COUNTS), world.plane()
    parked = f"{agent.client_queue}.parked.alpha"
    for number in range(50):
        plane.publish("", agent.client_queue, str(number).encode(), app_id="alpha")
    agent.wait_until(lambda: world.node.list_queues().get(parked, {}).get("messages") == 50,
                     "the messages to be parked")
    agent.kill()
    agent.start()
    alpha = world.attach(agent, "alpha")
    assert [int(body) for body in alpha.take(50)] == list(range(50))


def test_what_was_unanswered_comes_again_in_order_after_a_crash_of_the_agent(world):
    agent, plane = world.agent(), world.plane()
    alpha = world.attach(agent, "alpha")
    for number in range(20):
        plane.publish("", agent.client_queue, str(number).encode(), app_id="alpha")
    for number in range(20):
        assert alpha.next().body == str(number).encode()
    agent.kill()
    agent.start()
    alpha = world.attach(agent, "alpha")
    assert [int(body) for body in alpha.take(20)] == list(range(20))
    assert plane.count(agent.dead_letter_queue) == 0


def test_an_application_that_does_not_answer_in_time_is_detached(world):
    agent, plane = world.agent(applications={"alpha": {"ack_timeout_seconds": 1}, "beta": {}}), world.plane()
    alpha, beta = world.attach(agent, "alpha"), world.attach(agent, "beta")
    plane.publish("", agent.client_queue, b"ignored", app_id="alpha")
    alpha.next()
    assert isinstance(alpha.wait_until_ended(), grpc.RpcError)
    plane.publish("", agent.client_queue, b"meanwhile", app_id="beta")
    assert beta.take() == [b"meanwhile"]
    successor = world.attach(agent, "alpha")
    delivery = successor.next()
    successor.verdict(delivery, "done")
    assert (delivery.body, delivery.redelivered) == (b"ignored", True)


def test_a_message_waits_for_the_configuration_that_makes_its_route(world):
    agent, plane = world.agent(), world.plane()
    alpha = world.attach(agent, "alpha")
    topics = [f"bulk.{number}" for number in range(500)]
    plane.configure(agent, "alpha", topics=topics)
    agent.wait_for_log("topic:bulk.1 ")
    for number in range(50):
        plane.publish("", agent.client_queue, str(number).encode(), app_id="alpha")
        plane.publish(agent.exchange, "bulk.0", str(number).encode())
    plane.ping(agent)
    assert sorted(int(body) for body in alpha.take(100)) == sorted(list(range(50)) * 2)
    alpha.wait_for_state("APPLIED", topics, patience=60)
    assert plane.count(agent.dead_letter_queue) == 0
