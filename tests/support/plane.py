"""The management plane and other publishers, spoken with pika: a client that has nothing of ours in it."""

import time
import uuid

import pika

from . import schema

PING = "com.brelix.vtx.messaging.ping.PingRequest"
PING_REPLY = "com.brelix.vtx.messaging.ping.PingReply"
REASSIGN = "com.brelix.vtx.messaging.discovery.ReassignHint"
CONFIGURATION = "com.brelix.vtx.messaging.appinit.AppInitConfigMsg"
DIRECT_REPLY_TO = "amq.rabbitmq.reply-to"


class ManagementPlane:
    """One connection to the broker with publisher confirms. For one thread; close it or use it as a context manager."""

    def __init__(self, url):
        self._connection = pika.BlockingConnection(pika.URLParameters(url))
        self.channel = self._connection.channel()
        self.channel.confirm_delivery()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        if self._connection.is_open:
            self._connection.close()

    def publish(self, exchange, routing_key, body=b"", mandatory=True, **properties):
        """Publishes and waits for the confirm. @raises pika's UnroutableError when no queue takes it."""
        properties.setdefault("delivery_mode", 2)
        self.channel.basic_publish(exchange, routing_key, body, pika.BasicProperties(**properties), mandatory)

    def configure(self, agent, application, topics=(), queues=(), body=None):
        """Sends an application's configuration to the agent's client queue; `body` replaces the encoded one."""
        encoded = schema.configuration(topics, queues) if body is None else body
        self.publish("", agent.client_queue, encoded, type=CONFIGURATION, app_id=application)

    def reassign(self, agent):
        self.publish("", agent.client_queue, type=REASSIGN)

    def ping(self, agent, reply_to=None, patience=20.0):
        """Pings the agent and returns the reply as (properties, body, seconds).

        The reply comes to a queue of our own, or, with reply_to DIRECT_REPLY_TO, by the broker's direct reply-to.
        """
        correlation_id = str(uuid.uuid4())
        channel = self._connection.channel()
        queue = reply_to or channel.queue_declare("", exclusive=True).method.queue
        replies = []
        channel.basic_consume(queue, lambda _ch, _method, properties, body: replies.append((properties, body)),
                              auto_ack=True)
        began = time.monotonic()
        # On the consuming channel: direct reply-to asks for that.
        channel.basic_publish("", agent.client_queue, b"",
                              pika.BasicProperties(type=PING, reply_to=queue, correlation_id=correlation_id))
        while not replies and time.monotonic() < began + patience:
            self._connection.process_data_events(time_limit=0.1)
        elapsed = time.monotonic() - began
        channel.close()
        assert replies, f"no reply to the ping within {patience} s\n{agent.log_tail()}"
        properties, body = replies[0]
        assert properties.correlation_id == correlation_id
        return properties, body, elapsed

    def declare_queue(self, queue, **arguments):
        self.channel.queue_declare(queue, durable=True, arguments=arguments or None)

    def count(self, queue):
        """How many messages are ready in a queue."""
        return self.channel.queue_declare(queue, passive=True).method.message_count

    def take(self, queue):
        """Takes one message from a queue: (properties, body), or None when it is empty."""
        method, properties, body = self.channel.basic_get(queue, auto_ack=True)
        return (properties, body) if method else None

    def wait_and_take(self, queue, agent, patience=30.0):
        """Takes one message from a queue, waiting for it."""
        return agent.wait_until(lambda: self.take(queue), f"a message in {queue}", patience)
