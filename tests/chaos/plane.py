"""The management plane: publishes the configurations that it wants and answers the agent's sync requests."""

import threading
import time
import uuid

import pika

from support import schema
from support.plane import CONFIGURATION
from testbed.processes import wait_until

from .confirming import ConfirmingThread

SYNC_REQUEST = "com.brelix.vtx.messaging.appinit.AppInitRequestMsg"
TICK = 0.02
# A channel that published to a queue while its leader was lost may never hear of it again; another one does.
CONFIRM_PATIENCE = 15.0


class Wanted:
    """An application's configuration, and the message id of its last publish."""

    def __init__(self, topics, queues, message_id):
        self.topics = tuple(topics)
        self.queues = tuple(queues)
        self.message_id = message_id


class Plane(ConfirmingThread):
    """A ConfirmingThread. A configuration is published until the broker has confirmed it.

    What was confirmed last is what has to be in force at rest, whatever is killed meanwhile.
    """

    def __init__(self, urls, agent, queue, queue_type):
        super().__init__("plane", urls)
        self._queue_arguments = {"x-queue-type": queue_type}
        self._agent = agent
        self._queue = queue
        self._lock = threading.Lock()
        self._wanted = {}
        self._unpublished = set()
        self.sync_requests = 0
        self.published = 0

    def configure(self, application, topics=(), queues=()):
        """Wants this configuration from now on; does not wait. Topics are names or pairs of name and priority."""
        with self._lock:
            message_id = f"configuration-{uuid.uuid4().hex}"
            self._wanted[application] = Wanted(topics, queues, message_id)
            self._unpublished.add(application)
            return message_id

    def wait_until_published(self, patience=60.0):
        wait_until(lambda: not self._unpublished, "the configurations to be confirmed by the broker", patience)

    def bindings(self):
        """The bindings that the configurations ask for: {(queue, topic)}."""
        with self._lock:
            return {(self._agent.priority_queue if priority else self._agent.client_queue, topic)
                    for wanted in self._wanted.values() for topic, priority in map(_pair, wanted.topics)}

    def _begin(self):
        self._channel.queue_declare(self._queue, durable=True, arguments=self._queue_arguments, callback=self._consume)

    def _consume(self, _declared):
        self._channel.basic_consume(self._queue, self._on_request)
        self._tick()

    def _on_request(self, channel, method, properties, _body):
        if properties.type == SYNC_REQUEST:
            self.sync_requests += 1
            with self._lock:
                if properties.app_id in self._wanted:
                    self._unpublished.add(properties.app_id)
        channel.basic_ack(method.delivery_tag)

    def _tick(self):
        if self._channel is None:
            return
        oldest = min((since for _, _, since in self._unconfirmed.values()), default=time.monotonic())
        if self._stopping.is_set() or time.monotonic() - oldest > CONFIRM_PATIENCE:
            self._give_up()
            return
        self._publish_wanted()
        self._connection.ioloop.call_later(TICK, self._tick)

    def _publish_wanted(self):
        under_way = [wanted for _, wanted, _ in self._unconfirmed.values()]
        with self._lock:
            due = [(name, self._wanted[name]) for name in self._unpublished if self._wanted[name] not in under_way]
        for name, wanted in due:
            self.published += 1
            self._publish(
                (name, wanted, time.monotonic()),
                "", self._agent.client_queue, schema.configuration(wanted.topics, wanted.queues),
                pika.BasicProperties(delivery_mode=2, type=CONFIGURATION, app_id=name, message_id=wanted.message_id))

    def _on_return(self, _channel, _method, _properties, _body):
        """Confirmed in a moment and nowhere all the same: to be published again."""
        self._unconfirmed.clear()
        self._give_up()

    def _confirmed(self, published, acknowledged):
        if not acknowledged:
            # A channel that has met a queue without a leader goes on refusing: published again on another one.
            self._give_up()
            return
        for name, wanted, _ in published:
            with self._lock:
                if self._wanted[name] is wanted:
                    self._unpublished.discard(name)


def _pair(topic):
    return (topic, 0) if isinstance(topic, str) else topic
