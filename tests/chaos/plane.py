"""The management plane: publishes the configurations that it wants and answers the agent's sync requests."""

import contextlib
import threading
import uuid

import pika

from support import schema
from support.plane import CONFIGURATION
from testbed.processes import wait_until

SYNC_REQUEST = "com.brelix.vtx.messaging.appinit.AppInitRequestMsg"
RECONNECT_PAUSE = 0.5


class Wanted:
    """An application's configuration, and the message id of its last publish."""

    def __init__(self, topics, queues, message_id):
        self.topics = tuple(topics)
        self.queues = tuple(queues)
        self.message_id = message_id


class Plane(threading.Thread):
    """A thread with a connection of its own. A configuration is published until the broker has confirmed it.

    What was confirmed last is what has to be in force at rest, whatever is killed meanwhile.
    """

    def __init__(self, urls, agent, queue, queue_type):
        super().__init__(name="plane", daemon=True)
        self._parameters = [pika.URLParameters(url) for url in urls]
        self._queue_arguments = {"x-queue-type": queue_type}
        self._agent = agent
        self._queue = queue
        self._lock = threading.Lock()
        self._wanted = {}
        self._unpublished = set()
        self._stopping = threading.Event()
        self.sync_requests = 0
        self.published = 0

    def stop(self):
        self._stopping.set()
        self.join(30)

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

    def run(self):
        while not self._stopping.is_set():
            try:
                with contextlib.closing(pika.BlockingConnection(self._parameters)) as connection:
                    self._work(connection)
            except pika.exceptions.AMQPError:
                self._stopping.wait(RECONNECT_PAUSE)

    def _work(self, connection):
        channel = connection.channel()
        channel.confirm_delivery()
        channel.queue_declare(self._queue, durable=True, arguments=self._queue_arguments)
        channel.basic_consume(self._queue, self._on_request)
        while not self._stopping.is_set():
            connection.process_data_events(time_limit=0.02)
            self._publish_wanted(channel)

    def _on_request(self, channel, method, properties, _body):
        if properties.type == SYNC_REQUEST:
            self.sync_requests += 1
            with self._lock:
                if properties.app_id in self._wanted:
                    self._unpublished.add(properties.app_id)
        channel.basic_ack(method.delivery_tag)

    def _publish_wanted(self, channel):
        with self._lock:
            due = [(name, self._wanted[name]) for name in self._unpublished]
        for name, wanted in due:
            channel.basic_publish(
                "", self._agent.client_queue, schema.configuration(wanted.topics, wanted.queues),
                pika.BasicProperties(delivery_mode=2, type=CONFIGURATION, app_id=name, message_id=wanted.message_id),
                mandatory=True)
            self.published += 1
            with self._lock:
                if self._wanted[name] is wanted:
                    self._unpublished.discard(name)


def _pair(topic):
    return (topic, 0) if isinstance(topic, str) else topic
