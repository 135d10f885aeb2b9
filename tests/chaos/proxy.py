"""A TCP proxy between the agent and its broker that counts topology requests and can strike at one of them."""

import asyncio
import collections
import struct
import threading

import pika

from support.proxy import TcpProxy

FRAME_HEADER = struct.Struct(">BHI")
METHOD = struct.Struct(">HH")
FRAME_OVERHEAD = FRAME_HEADER.size + 1
METHOD_FRAME = 1
PROTOCOL_HEADER_BYTES = 8

REQUESTS = {(40, 10): "exchange.declare", (50, 10): "queue.declare", (50, 20): "queue.bind", (50, 40): "queue.delete",
            (50, 50): "queue.unbind", (60, 20): "basic.consume", (60, 30): "basic.cancel"}
STEPS = {(50, 20), (50, 50)}
STEP_ANSWERS = {(50, 21), (50, 51)}


class Strike:
    """Calls `action` once, at one of the bind and unbind requests that follow the arming.

    how  "before": request `step` has come from the agent and is not forwarded
         "withheld": the broker has answered request `step`, its answer is not forwarded
         "answered": the answer to request `step` has been forwarded
    Both connections are cut with the action, so nothing passes after it.
    """

    def __init__(self, how, step, action):
        self.how = how
        self.step = step
        self.action = action
        self.requests = 0
        self.answers = 0
        self.fired = threading.Event()

    def __str__(self):
        return f"{self.how} {self.step}"


class AmqpProxy(TcpProxy):
    """Forwards whole frames, counts the agent's topology requests by name (`requests`), and strikes when it is armed."""

    def __init__(self, broker_port):
        super().__init__(broker_port, "amqp-proxy")
        self.requests = collections.Counter()
        self._strike = None
        self._connections = []

    def arm(self, strike):
        """From now on the requests are counted for this strike; at most one is armed."""
        self._strike = strike

    def disarm(self):
        self._strike = None

    def inject(self, direction, connection, channel, method):
        """Sends a method (of pika.spec) between two frames of others.

        direction   "to_agent" or "to_broker": who receives it as the other side's
        connection  0 is the oldest that there is, 1 the next
        """
        frame = pika.frame.Method(channel, method).marshal()
        written = threading.Event()

        def write():
            self._connections[connection][direction].write(frame)
            written.set()

        self._loop.call_soon_threadsafe(write)
        if not written.wait(10):
            raise RuntimeError(f"no connection {connection} to send {method} by")

    async def _serve(self, agent_reader, agent_writer, broker_reader, broker_writer):
        writers = {"to_agent": agent_writer, "to_broker": broker_writer}
        self._connections.append(writers)
        pumps = [asyncio.create_task(self._pump(agent_reader, broker_writer, PROTOCOL_HEADER_BYTES, self._on_request)),
                 asyncio.create_task(self._pump(broker_reader, agent_writer, 0, self._on_answer))]
        try:
            await asyncio.wait(pumps, return_when=asyncio.FIRST_COMPLETED)
        finally:
            self._connections.remove(writers)
            for pump in pumps:
                pump.cancel()

    async def _pump(self, reader, writer, skip, inspect):
        """Forwards whole frames until the connection ends or a strike hits."""
        buffer = bytearray()
        try:
            while data := await reader.read(65536):
                buffer += data
                end, struck = self._scan(buffer, skip, inspect)
                skip = max(0, skip - end)
                writer.write(bytes(buffer[:end]))
                del buffer[:end]
                await writer.drain()
                if struck:
                    self._fire()
                    return
        except OSError:
            pass

    def _scan(self, buffer, skip, inspect):
        """How far the buffer may be forwarded, and whether a strike hits there."""
        position = skip
        if len(buffer) < skip:
            return 0, False
        while len(buffer) - position >= FRAME_HEADER.size:
            kind, _channel, size = FRAME_HEADER.unpack_from(buffer, position)
            end = position + size + FRAME_OVERHEAD
            if len(buffer) < end:
                break
            if kind == METHOD_FRAME:
                verdict = inspect(METHOD.unpack_from(buffer, position + FRAME_HEADER.size))
                if verdict:
                    return (end if verdict == "answered" else position), True
            position = end
        return position, False

    def _on_request(self, method):
        """Counts a method of the agent's; what to strike with, if anything."""
        if method in REQUESTS:
            self.requests[REQUESTS[method]] += 1
        strike = self._strike
        if strike and method in STEPS:
            strike.requests += 1
            if strike.how == "before" and strike.requests == strike.step:
                return strike.how
        return None

    def _on_answer(self, method):
        strike = self._strike
        if strike and method in STEP_ANSWERS:
            strike.answers += 1
            if strike.how != "before" and strike.answers == strike.step:
                return strike.how
        return None

    def _fire(self):
        strike, self._strike = self._strike, None
        strike.action()
        strike.fired.set()
