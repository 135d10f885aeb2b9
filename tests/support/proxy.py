"""TCP proxies between the agent and its broker: one to build on, and one that misbehaves as it is told."""

import asyncio
import collections
import dataclasses
import random
import socket
import struct

from .listener import LoopListener

RESET_ON_CLOSE = struct.pack("ii", 1, 0)
DIRECTIONS = ("to_agent", "to_broker")


class TcpProxy(LoopListener):
    """Listens on a free loopback port, `port`, for as long as the context lives; runs in a thread of its own.

    What is done with a connection is up to _serve() of the derived class, a coroutine that gets the agent's reader and
    writer and those of a new connection to the broker.
    """

    def __init__(self, broker_port, name="proxy"):
        super().__init__(name)
        self._broker_port = broker_port

    async def _accept(self, agent_reader, agent_writer):
        try:
            broker_reader, broker_writer = await asyncio.open_connection("127.0.0.1", self._broker_port)
        except OSError:
            agent_writer.transport.abort()
            return
        try:
            await self._serve(agent_reader, agent_writer, broker_reader, broker_writer)
        finally:
            agent_writer.transport.abort()
            broker_writer.transport.abort()

    async def _serve(self, agent_reader, agent_writer, broker_reader, broker_writer):
        raise NotImplementedError


@dataclasses.dataclass
class Weather:
    """What the bytes of one direction meet; may be changed at any time, from any thread.

    latency, jitter  seconds: each read is held back for latency and at random up to jitter more, in order
    slice            at most so many bytes in a packet; 0: as they come
    packets          how many were sent on
    """

    latency: float = 0.0
    jitter: float = 0.0
    slice: int = 0
    packets: int = 0

    def delay(self):
        return self.latency + random.uniform(0.0, self.jitter)


@dataclasses.dataclass(frozen=True)
class Fate:
    """How a connection ends: when `after` more bytes have passed in `direction`.

    reset   both sides get a reset
    freeze  nothing passes any more, either way, and neither side is told
    close   the receiver gets an orderly end, and nothing that comes later; the other direction goes on
    """

    how: str
    direction: str = "to_agent"
    after: int = 0


class FaultProxy(TcpProxy):
    """Forwards bytes through the weather of each direction, and ends connections as it is told.

    weather   by direction
    accepted  how many connections were made so far
    fates     how many connections met which end
    """

    def __init__(self, broker_port):
        super().__init__(broker_port, "fault-proxy")
        self.weather = {direction: Weather() for direction in DIRECTIONS}
        self.accepted = 0
        self.fates = collections.Counter()
        self._plan = collections.deque()
        self._connections = set()

    def plan(self, *fates):
        """The connections that are made from now on meet these fates, one each, in turn; those after them none."""
        self._plan.extend(fates)

    def planned(self):
        """How many fates no connection has been given yet."""
        return len(self._plan)

    def strike(self, fate):
        """Gives the fate to every connection that there is. @return how many those are"""
        async def strike_all():
            struck = [connection for connection in self._connections if connection.take(fate)]
            return len(struck)

        return asyncio.run_coroutine_threadsafe(strike_all(), self._loop).result(10)

    async def _serve(self, agent_reader, agent_writer, broker_reader, broker_writer):
        self.accepted += 1
        connection = _Connection(self, agent_writer, broker_writer)
        if self._plan:
            connection.take(self._plan.popleft())
        self._connections.add(connection)
        try:
            await connection.forward(agent_reader, broker_reader)
        finally:
            self._connections.discard(connection)


class _Connection:
    """One connection through a FaultProxy. Lives in the proxy's loop."""

    def __init__(self, proxy, agent_writer, broker_writer):
        self._proxy = proxy
        self._writers = {"to_agent": agent_writer, "to_broker": broker_writer}
        self._fate = None
        self._left = 0
        self._closed = set()
        self._frozen = False
        self._tasks = []

    async def forward(self, agent_reader, broker_reader):
        """Returns when both sides have ended the connection, or either has broken it."""
        for direction, reader in (("to_agent", broker_reader), ("to_broker", agent_reader)):
            queue = asyncio.Queue(maxsize=256)
            self._tasks += [asyncio.create_task(self._receive(direction, reader, queue)),
                            asyncio.create_task(self._send(direction, queue))]
        try:
            await asyncio.gather(*self._tasks)
        except (OSError, asyncio.CancelledError):
            pass
        finally:
            for task in self._tasks:
                task.cancel()

    def take(self, fate):
        """From now on this is the connection's fate. @return False when it has met one"""
        if self._frozen or self._closed:
            return False
        self._fate, self._left = fate, fate.after
        if self._left == 0:
            self._meet()
        return True

    async def _receive(self, direction, reader, queue):
        weather = self._proxy.weather[direction]
        loop = asyncio.get_running_loop()
        due = 0.0
        while True:
            data = await reader.read(65536)
            due = max(due, loop.time() + weather.delay())
            await queue.put((due, data))
            if not data:
                return

    async def _send(self, direction, queue):
        weather = self._proxy.weather[direction]
        loop = asyncio.get_running_loop()
        while True:
            due, data = await queue.get()
            if due > loop.time():
                await asyncio.sleep(due - loop.time())
            if not data:
                self._close(direction)
                return
            size = weather.slice or len(data)
            for start in range(0, len(data), size):
                await self._pass(direction, data[start:start + size])

    async def _pass(self, direction, data):
        """Forwards the bytes as far as they get."""
        concerned = self._fate is not None and self._fate.direction == direction
        forwarded = data[:self._left] if concerned else data
        if self._frozen:
            await asyncio.Event().wait()
        if direction not in self._closed:
            self._proxy.weather[direction].packets += 1
            self._writers[direction].write(forwarded)
            await self._writers[direction].drain()
        if concerned:
            self._left -= len(forwarded)
            if self._left == 0:
                self._meet()

    def _meet(self):
        """The end has come."""
        fate, self._fate = self._fate, None
        self._proxy.fates[fate.how] += 1
        if fate.how == "freeze":
            self._frozen = True
        elif fate.how == "close":
            self._close(fate.direction)
        else:
            for writer in self._writers.values():
                writer.get_extra_info("socket").setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, RESET_ON_CLOSE)
                writer.transport.abort()
            for task in self._tasks:
                task.cancel()

    def _close(self, direction):
        if direction not in self._closed:
            self._closed.add(direction)
            self._writers[direction].write_eof()
