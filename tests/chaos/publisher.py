"""Publishers: numbered, mandatory, persistent messages at a steady rate, each published once, confirms noted."""

import threading
import time

import pika

from .confirming import ConfirmingThread
from .ledger import CONFIRMED, REFUSED, RETURNED, UNKNOWN

TICK = 0.01
REFUSED_PATIENCE = 2.0
REFUSED_PAUSE = 1.0


class Publisher(ConfirmingThread):
    """A ConfirmingThread that publishes at a steady rate.

    It connects again, too, when the broker goes on refusing messages: a channel that has met a quorum queue without a leader
    refuses all for it until the lost node is back. It publishes to its destinations in turn. What was on its way when the
    connection ended stays unconfirmed and is not published again: every copy that arrives is somebody else's doing.
    """

    def __init__(self, url, name, rate, destinations, ledger):
        super().__init__(f"publisher-{name}", [url])
        self.label = name
        self._rate = rate
        self._destinations = destinations
        self._ledger = ledger
        self._running = threading.Event()
        self._running.set()
        self._refusals = None
        self._count = 0
        self._due = 0.0
        self._ticked = 0.0
        ledger.add_publisher(name)

    def pause(self):
        """Publishes nothing more; confirms are still noted."""
        self._running.clear()

    def resume(self):
        self._running.set()

    def _begin(self):
        self._refusals = None
        self._ticked, self._due = time.monotonic(), 0.0
        self._tick()

    def _tick(self):
        if self._channel is None:
            return
        if self._stopping.is_set() and not self._unconfirmed:
            self._give_up()
            return
        now = time.monotonic()
        if self._refusals and self._refusals[1] - self._refusals[0] > REFUSED_PATIENCE:
            self._give_up()
            return
        # What an outage or a pause kept back is not made up for.
        self._due = min(self._due + (now - self._ticked) * self._rate, self._rate * 0.2)
        self._ticked = now
        while self._due >= 1.0:
            self._due -= 1.0
            if self._running.is_set() and not self._stopping.is_set():
                self._publish_next(self._destinations[self._count % len(self._destinations)])
        self._connection.ioloop.call_later(TICK, self._tick)

    def _publish_next(self, destination):
        message_id, body = self._ledger.next_message(self.label, destination)
        number = self._count
        self._count += 1
        self._publish(number, destination.exchange, destination.routing_key, body,
                      pika.BasicProperties(delivery_mode=2, message_id=message_id, app_id=destination.app_id))

    def _on_return(self, _channel, _method, properties, _body):
        self._ledger.settle(self.label, int(properties.message_id.partition(":")[2]), RETURNED)

    def _confirmed(self, numbers, acknowledged):
        if not acknowledged:
            self._note_refusal()
        for number in numbers:
            self._ledger.settle(self.label, number, CONFIRMED if acknowledged else REFUSED)

    def _note_refusal(self):
        """Keeps when the first and the last of a series without a longer pause came."""
        now = time.monotonic()
        ongoing = self._refusals and now - self._refusals[1] < REFUSED_PAUSE
        self._refusals = (self._refusals[0] if ongoing else now, now)

    def _lost(self, unconfirmed):
        for number in unconfirmed:
            self._ledger.settle(self.label, number, UNKNOWN)
