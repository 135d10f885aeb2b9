"""Pings, one after the other, each timed from publishing to the reply."""

import time
import uuid

import pika

from support.plane import DIRECT_REPLY_TO, PING

PATIENCE = 60


class Pinger:
    """A connection that pings an agent through one of its queues. A context manager; for one thread."""

    def __init__(self, url, queue):
        self._connection = pika.BlockingConnection(pika.URLParameters(url))
        self._channel = self._connection.channel()
        self._queue = queue
        self._replied = None
        self._channel.basic_consume(DIRECT_REPLY_TO, self._on_reply, auto_ack=True)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._connection.close()

    def _on_reply(self, _channel, _method, properties, _body):
        self._replied = properties.correlation_id, time.monotonic()

    def ping(self):
        """The milliseconds to the reply."""
        correlation_id = str(uuid.uuid4())
        began = time.monotonic()
        self._channel.basic_publish("", self._queue, b"", pika.BasicProperties(
            type=PING, reply_to=DIRECT_REPLY_TO, correlation_id=correlation_id))
        while not self._replied or self._replied[0] != correlation_id:
            self._connection.process_data_events(time_limit=1)
            if time.monotonic() > began + PATIENCE:
                raise RuntimeError(f"no reply to a ping by {self._queue} within {PATIENCE} s")
        return 1000 * (self._replied[1] - began)

    def pings(self, pause, go_on):
        """Pings with pauses for as long as `go_on()` holds; the milliseconds of each."""
        found = []
        while go_on():
            found.append(self.ping())
            self._connection.sleep(pause)
        return found
