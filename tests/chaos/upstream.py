"""An application that publishes through the agent: numbered messages at a steady rate, the agent's answers noted."""

import queue
import threading
import time

import grpc

from support.application import METHOD
from support.schema import applications as schema

from .gaps import Gaps
from .ledger import CONFIRMED, RETURNED, UNKNOWN

TICK = 0.01
MOST_WAITING = 5000
ANSWER_PATIENCE = 60.0
STATES = {grpc.StatusCode.OK: CONFIRMED, grpc.StatusCode.NOT_FOUND: RETURNED}


class Upstream(threading.Thread):
    """A thread with a connection of its own to an application's socket. Each message is published once.

    An answer other than "confirmed" or "no queue takes it" leaves the message unconfirmed: it may arrive or not. What
    the agent sends to the broker again may arrive twice.
    """

    def __init__(self, agent, application, name, rate, destinations, ledger):
        super().__init__(name=f"upstream-{name}", daemon=True)
        self.label = name
        self.gaps = Gaps()
        self._socket = agent.socket(application)
        self._rate = rate
        self._destinations = destinations
        self._ledger = ledger
        self._stopping = threading.Event()
        self._running = threading.Event()
        self._running.set()
        self._answers = queue.SimpleQueue()
        self._waiting = 0
        ledger.add_publisher(name)

    def pause(self):
        """Publishes nothing more; answers are still noted."""
        self._running.clear()
        self.gaps.ignore()

    def resume(self):
        self._running.set()

    def stop(self):
        self._stopping.set()
        self.join(2 * ANSWER_PATIENCE)

    def run(self):
        with grpc.insecure_channel(f"unix:{self._socket}", options=[("grpc.use_local_subchannel_pool", 1)]) as channel:
            publish = channel.unary_unary(METHOD + "Publish",
                                          request_serializer=schema.PublishRequest.SerializeToString,
                                          response_deserializer=schema.PublishResponse.FromString)
            ticked, due, number = time.monotonic(), 0.0, 0
            while not self._stopping.is_set() or self._waiting:
                self._note_answers()
                now = time.monotonic()
                due = min(due + (now - ticked) * self._rate, self._rate * 0.2)
                ticked = now
                while due >= 1.0:
                    due -= 1.0
                    if self._running.is_set() and not self._stopping.is_set() and self._waiting < MOST_WAITING:
                        self._publish(publish, number, self._destinations[number % len(self._destinations)])
                        number += 1
                time.sleep(TICK)

    def _publish(self, publish, number, destination):
        message_id, body = self._ledger.next_message(self.label, destination)
        properties = schema.Properties(message_id=message_id.encode())
        request = schema.PublishRequest(exchange=destination.exchange, routing_key=destination.routing_key.encode(),
                                        body=body, no_route_is_error=True, properties=properties)
        self._waiting += 1
        # In gRPC's thread, which only passes it on.
        publish.future(request, timeout=ANSWER_PATIENCE).add_done_callback(
            lambda answer: self._answers.put((number, answer.code())))

    def _note_answers(self):
        while not self._answers.empty():
            number, code = self._answers.get()
            self._waiting -= 1
            state = STATES.get(code, UNKNOWN)
            self._ledger.settle(self.label, number, state)
            if state == CONFIRMED:
                self.gaps.note()
