"""Two agents on the same queues, by mistake or for a moment.

The invariant: only one of them is ever served, and the other takes over everything when that one goes, in the order of
each queue, with nothing lost. The figure is how soon.
"""

import time

import pytest

from support import figures


def pair(world, **keys):
    """Two agents on the queues of the first, each with an instance of the application alpha."""
    first = world.agent({"broker": keys})
    queues = {"client_queue": first.client_queue, "priority_queue": first.priority_queue,
              "dead_letter_queue": first.dead_letter_queue, "exchange": first.exchange}
    alpha = world.attach(first, "alpha")
    second = world.agent({"broker": {**keys, **queues}})
    return first, alpha, second, world.attach(second, "alpha")


def publish(plane, queues, numbers):
    """Numbered messages to the queues in turn."""
    for number in numbers:
        plane.publish("", queues[number % len(queues)], str(number).encode(), app_id="alpha")


def take(application, numbers, queues):
    """Takes the messages with these numbers; those of each queue come in order."""
    came = [int(body) for body in application.take(len(numbers), patience=60)]
    for nth in range(len(queues)):
        assert [number for number in came if number % len(queues) == nth] == [
            number for number in numbers if number % len(queues) == nth]


# The other one was served 0.1 s after an end in order, 0.1 to 0.3 s after a crash.
@pytest.mark.parametrize("queue_type", ["quorum", "classic"])
def test_one_is_served_and_the_other_takes_over(world, queue_type):
    first, alpha, second, other = pair(world, queue_type=queue_type)
    plane, queues = world.plane(), (first.client_queue, first.priority_queue)
    publish(plane, queues, range(100))
    take(alpha, range(100), queues)

    publish(plane, queues, range(100, 120))
    for _ in range(20):
        alpha.next()
    assert other.pending() == 0
    # A settlement that is still on its way would be lost in the crash, and its message come again.
    first.wait_until(lambda: sum(row["messages"] for name, row in world.node.list_queues().items() if name in queues) == 20,
                     "the first hundred to be settled")
    first.kill()
    began = time.monotonic()
    publish(plane, queues, range(120, 140))
    take(other, range(100, 140), queues)
    figures.note(f"second agent, {queue_type} queues", f"40 messages taken {time.monotonic() - began:.1f} s after a crash")

    first.start()
    again = world.attach(first, "alpha")
    publish(plane, queues, range(140, 240))
    take(other, range(140, 240), queues)
    assert again.pending() == 0
    assert second.stop() == 0
    began = time.monotonic()
    publish(plane, queues, range(240, 260))
    take(again, range(240, 260), queues)
    figures.note(f"second agent, {queue_type} queues", f"20 messages taken {time.monotonic() - began:.1f} s after a stop")
    assert plane.count(first.dead_letter_queue) == 0


# An application that is slow for a while has messages in its parking queue, which both agents consume.
def test_parked_messages_go_to_the_one_that_is_served(world):
    # Few ahead, so that few are held for the application before the rest is parked.
    first, alpha, _, other = pair(world, prefetch=20)
    plane = world.plane()
    publish(plane, [first.client_queue], range(200))
    first.wait_until(lambda: plane.count(first.client_queue) == 0, "the messages to be parked")
    take(alpha, range(200), [first.client_queue])
    assert other.pending() == 0
    assert plane.count(first.dead_letter_queue) == 0
