"""The ledger notices what it is there for."""

import pytest

from chaos.ledger import CONFIRMED, PENDING, REFUSED, RETURNED, UNKNOWN, Destination, Ledger

TOPIC = Destination("topic", "exchange", "topic", {"alpha": "queue", "beta": "queue"})


@pytest.fixture
def ledger(tmp_path):
    made = Ledger(tmp_path, ["alpha", "beta"])
    made.add_publisher("p")
    yield made
    made.close()


def publish(ledger, count, state=CONFIRMED):
    """Publishes messages that end in this state; their ids and bodies."""
    messages = [ledger.next_message("p", TOPIC) for _ in range(count)]
    for message_id, _ in messages:
        if state != PENDING:
            ledger.settle("p", int(message_id.partition(":")[2]), state)
    return [(message_id, body.decode()) for message_id, body in messages]


def deliver(ledger, application, messages):
    for message_id, body in messages:
        ledger.arrive(application, "instance", message_id, body, False)


def test_a_confirmed_message_is_owed_to_each_recipient_until_it_arrives(ledger):
    messages = publish(ledger, 3)
    deliver(ledger, "alpha", messages)
    deliver(ledger, "beta", [messages[0], messages[2]])
    assert ledger.outstanding(ledger.marks()) == [("beta", "p:1")]
    deliver(ledger, "beta", [messages[1]])
    assert ledger.outstanding(ledger.marks()) == []


@pytest.mark.parametrize("state", [REFUSED, RETURNED, UNKNOWN])
def test_a_message_without_a_confirm_is_owed_to_nobody(ledger, state):
    messages = publish(ledger, 1, state)
    assert ledger.outstanding(ledger.marks()) == []
    deliver(ledger, "alpha", messages)
    assert (ledger.unconfirmed_arrivals(), ledger.strays) == (1, [])


def test_a_message_that_waits_for_its_confirm_is_outstanding(ledger):
    deliver(ledger, "alpha", publish(ledger, 1, PENDING))
    assert (None, "p:0") in ledger.outstanding(ledger.marks())


def test_messages_after_the_marks_are_not_looked_at(ledger):
    marks = ledger.marks()
    publish(ledger, 1)
    assert ledger.outstanding(marks) == []


def test_a_returned_message_stays_returned_when_its_confirm_follows(ledger):
    publish(ledger, 1, RETURNED)
    ledger.settle("p", 0, CONFIRMED)
    assert ledger.totals()["returned"] == 1
    assert ledger.confirmed() == 0


def test_every_further_copy_is_a_duplicate(ledger):
    messages = publish(ledger, 2)
    deliver(ledger, "alpha", messages + messages + messages[:1])
    assert ledger.duplicates == {"alpha": 3, "beta": 0}
    assert ledger.swaps == {"alpha": 0, "beta": 0}


def test_a_first_copy_behind_a_later_message_of_its_queue_is_a_swap(ledger):
    messages = publish(ledger, 3)
    deliver(ledger, "alpha", [messages[0], messages[2], messages[1]])
    assert ledger.swaps == {"alpha": 1, "beta": 0}


def test_messages_of_different_queues_may_overtake_each_other(ledger):
    urgent = Destination("urgent", "exchange", "urgent", {"alpha": "priority"})
    first = publish(ledger, 1)
    message_id, body = ledger.next_message("p", urgent)
    deliver(ledger, "alpha", [(message_id, body.decode()), *first])
    assert ledger.swaps["alpha"] == 0


@pytest.mark.parametrize("message_id, body", [("p:7", "p:7 topic"), ("q:0", "q:0 topic"), ("", ""), ("p:0", "spoilt")])
def test_what_was_not_published_is_a_stray(ledger, message_id, body):
    publish(ledger, 1)
    deliver(ledger, "alpha", [(message_id, body)])
    assert len(ledger.strays) == 1


def test_a_message_for_somebody_else_is_a_stray(ledger):
    message_id, body = ledger.next_message("p", Destination("own", "exchange", "own", {"alpha": "queue"}))
    deliver(ledger, "beta", [(message_id, body.decode())])
    assert len(ledger.strays) == 1
