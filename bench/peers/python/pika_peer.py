"""A consumer on pika: hands every message of the type "job" to the process at SOCKET and acknowledges it when that has
answered; messages of another type are rejected. Runs until it is ended.

    pika_peer.py URL QUEUE PREFETCH SOCKET
"""

import asyncio
import collections
import struct
import sys

import pika
from pika.adapters.asyncio_connection import AsyncioConnection


class Peer(asyncio.Protocol):
    """The connection to the worker, and the consumer."""

    def __init__(self, queue, prefetch):
        self.queue, self.prefetch = queue, prefetch
        self.loop = asyncio.get_running_loop()
        self.tags = collections.deque()
        self.outgoing = []
        self.worker = self.channel = None

    def connection_made(self, transport):
        self.worker = transport

    def on_open(self, connection):
        connection.channel(on_open_callback=self.on_channel)

    def on_channel(self, channel):
        self.channel = channel
        channel.basic_qos(prefetch_count=self.prefetch, callback=lambda _: channel.basic_consume(self.queue, self.take))

    def take(self, channel, method, properties, body):
        if properties.type != "job":
            channel.basic_reject(method.delivery_tag, requeue=False)
            return
        self.tags.append(method.delivery_tag)
        if not self.outgoing:
            self.loop.call_soon(self.hand_over)
        self.outgoing.append(struct.pack(">I", len(body)) + body)

    def hand_over(self):
        self.worker.write(b"".join(self.outgoing))
        self.outgoing.clear()

    def data_received(self, data):
        for _ in data:
            self.channel.basic_ack(self.tags.popleft())


async def main(url, queue, prefetch, socket):
    loop = asyncio.get_running_loop()
    _, peer = await loop.create_unix_connection(lambda: Peer(queue, int(prefetch)), socket)
    closed = loop.create_future()
    AsyncioConnection(pika.URLParameters(url), on_open_callback=peer.on_open,
                      on_open_error_callback=lambda _, error: closed.set_exception(error),
                      on_close_callback=lambda _, error: closed.set_exception(error))
    await closed


asyncio.run(main(*sys.argv[1:]))
