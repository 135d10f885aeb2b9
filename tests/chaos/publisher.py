"""Publishers: numbered, mandatory, persistent messages at a steady rate, each published once, confirms noted."""

import threading
import time

import pika

from .ledger import CONFIRMED, REFUSED, RETURNED, UNKNOWN

TICK = 0.01
RECONNECT_PAUSE = 0.5
REFUSED_PATIENCE = 2.0
REFUSED_PAUSE = 1.0


class Publisher(threading.Thread):
    """A thread with a connection of its own; connects again, for ever, when the broker goes away.

    It does so, too, when the broker goes on refusing messages: a channel that has met a quorum queue without a leader
    refuses all for it until the lost node is back. It publishes to its destinations in turn. What was on its way when the
    connection ended stays unconfirmed and is not published again: every copy that arrives is somebody else's doing.
    """

    def __init__(self, url, name, rate, destinations, ledger):
        super().__init__(name=f"publisher-{name}", daemon=True)
        self.label = name
        self._parameters = pika.URLParameters(url)
        self._rate = rate
        self._destinations = destinations
        self._ledger = ledger
        self._stopping = threading.Event()
        self._running = threading.Event()
        self._running.set()
        self._connection = None
        self._channel = None
        self._unconfirmed = {}
        self._last_tag = 0
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

    def stop(self):
        self._stopping.set()
        self.join(30)

    def run(self):
        while not self._stopping.is_set():
            self._connection = pika.SelectConnection(
                self._parameters, self._on_open, self._on_open_error, self._on_closed)
            self._connection.ioloop.start()
            self._connection.ioloop.close()
            self._forget_unconfirmed()
            self._stopping.wait(RECONNECT_PAUSE)

    def _on_open(self, connection):
        connection.channel(on_open_callback=self._on_channel)

    def _on_open_error(self, connection, _error):
        connection.ioloop.stop()

    def _on_closed(self, connection, _reason):
        self._channel = None
        connection.ioloop.stop()

    def _on_channel(self, channel):
        self._last_tag = 0
        self._refusals = None
        self._ticked, self._due = time.monotonic(), 0.0
        channel.add_on_return_callback(self._on_return)
        channel.add_on_close_callback(self._on_channel_closed)
        channel.confirm_delivery(self._on_confirm, lambda _frame: self._begin(channel))

    def _on_channel_closed(self, channel, _reason):
        if channel.connection.is_open:
            channel.connection.close()

    def _begin(self, channel):
        self._channel = channel
        self._tick()

    def _tick(self):
        if self._channel is None:
            return
        if self._stopping.is_set() and not self._unconfirmed:
            self._connection.close()
            return
        now = time.monotonic()
        if self._refusals and self._refusals[1] - self._refusals[0] > REFUSED_PATIENCE:
            self._connection.close()
            return
        # What an outage or a pause kept back is not made up for.
        self._due = min(self._due + (now - self._ticked) * self._rate, self._rate * 0.2)
        self._ticked = now
        while self._due >= 1.0:
            self._due -= 1.0
            if self._running.is_set() and not self._stopping.is_set():
                self._publish(self._destinations[self._count % len(self._destinations)])
        self._connection.ioloop.call_later(TICK, self._tick)

    def _publish(self, destination):
        message_id, body = self._ledger.next_message(self.label, destination)
        self._count += 1
        self._last_tag += 1
        self._unconfirmed[self._last_tag] = self._count - 1
        self._channel.basic_publish(
            destination.exchange, destination.routing_key, body,
            pika.BasicProperties(delivery_mode=2, message_id=message_id, app_id=destination.app_id), mandatory=True)

    def _on_return(self, _channel, _method, properties, _body):
        self._ledger.settle(self.label, int(properties.message_id.partition(":")[2]), RETURNED)

    def _on_confirm(self, frame):
        method = frame.method
        state = CONFIRMED if isinstance(method, pika.spec.Basic.Ack) else REFUSED
        if state == REFUSED:
            self._note_refusal()
        tags = [method.delivery_tag]
        if method.multiple:
            # In the order of publishing, so everything up to the tag stands first.
            tags = []
            for tag in self._unconfirmed:
                if tag > method.delivery_tag:
                    break
                tags.append(tag)
        for tag in tags:
            self._ledger.settle(self.label, self._unconfirmed.pop(tag), state)

    def _note_refusal(self):
        """Keeps when the first and the last of a series without a longer pause came."""
        now = time.monotonic()
        ongoing = self._refusals and now - self._refusals[1] < REFUSED_PAUSE
        self._refusals = (self._refusals[0] if ongoing else now, now)

    def _forget_unconfirmed(self):
        self._channel = None
        for number in self._unconfirmed.values():
            self._ledger.settle(self.label, number, UNKNOWN)
        self._unconfirmed.clear()
