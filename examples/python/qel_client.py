"""A thin client of qel-agent: an application's messages, verdicts and publications.

    client = Client("web")
    client.run(lambda message: print(message.body))

It needs grpc and protobuf (Debian: python3-grpcio, python3-protobuf) and the messages of the interface in the module
search path, made once by:

    protoc --python_out=. -I /usr/share/qel/proto qel/apps/v1/applications.proto
"""

import collections
import contextlib
import logging
import os
import queue
import random
import signal
import socket as sockets
import threading
import time
import typing
import uuid

import grpc
from qel.apps.v1 import applications_pb2 as v1

_log = logging.getLogger("qel")
_SERVICE = "/qel.apps.v1.Applications/"
_CODE = grpc.StatusCode
# What would be refused again.
_FINAL = {_CODE.INVALID_ARGUMENT, _CODE.NOT_FOUND, _CODE.FAILED_PRECONDITION, _CODE.RESOURCE_EXHAUSTED,
          _CODE.PERMISSION_DENIED, _CODE.UNIMPLEMENTED}
_PERSISTENT = 2
_LONGEST_REASON = 1024
_LONGEST_DELAY_MS = 900_000


class Retry(Exception):
    """Raised or returned by a handler: the message comes again, after `delay` seconds if that is given."""

    def __init__(self, why="", delay=None):
        super().__init__(why)
        self.delay = delay


class Dead(Exception):
    """Raised or returned by a handler: the message can never be worked on and goes to the dead-letter queue."""


class AttachError(Exception):
    """The agent refuses the application for good."""


class PublishError(Exception):
    """A message was not published."""


class NoRoute(PublishError):
    """No queue takes the routing key."""


class Refused(PublishError):
    """The message itself is wrong: do not repeat it."""


class Unconfirmed(PublishError):
    """No confirm came in time. Publish it again with the same message_id: the broker may have it."""


class ConfigurationError(Exception):
    """The management plane was not asked for a configuration."""


class NoPlane(ConfigurationError):
    """The management plane is not there. Ask later; as long as there is no configuration the agent asks, too."""


class NotSetUp(ConfigurationError):
    """The operator has to mend the agent's configuration."""


class TooSoon(ConfigurationError):
    """Asked less than a second ago: the answer to that is on its way."""


class NotConfirmed(ConfigurationError):
    """The agent or the broker was away until the timeout: the management plane may have the request or not."""


class Configuration(typing.NamedTuple):
    """What the management plane has configured for the application.

    state is "MISSING", "APPLYING", "APPLIED" or "FAILED", with `error`; `incomplete` says that the lists were too long.
    """

    state: str
    error: str
    topics: list
    queues: list
    incomplete: bool


class Welcome(typing.NamedTuple):
    """What the agent says when an instance has attached.

    ordering_key is "routing_key", "header:NAME" or empty; broker is "DISCONNECTED", "CONNECTED" or "BLOCKED".
    """

    application: str
    agent_version: str
    window: int
    ordering_key: str
    configuration: Configuration
    broker: str


class Message:
    """A message that the application is given. Texts are str, with bytes that are not UTF-8 as surrogates."""

    def __init__(self, delivery):
        self.body = delivery.body
        self.redelivered = delivery.redelivered
        self.tries = delivery.tries
        self.priority = delivery.priority
        self.exchange = delivery.exchange
        self.idempotency_key = delivery.idempotency_key
        self.properties = delivery.properties
        self._delivery = delivery

    @property
    def routing_key(self):
        return _text(self._delivery.routing_key)

    @property
    def queue(self):
        return _text(self._delivery.queue)

    @property
    def type(self):
        return _text(self.properties.type)

    @property
    def message_id(self):
        return _text(self.properties.message_id)

    @property
    def correlation_id(self):
        return _text(self.properties.correlation_id)

    @property
    def reply_to(self):
        return _text(self.properties.reply_to)

    @property
    def headers(self):
        """A dictionary; texts in it are bytes."""
        return _table(self.properties.headers)


class Client:
    """An application's side of its agent.

    run(), publish() and request_configuration() come back by themselves when the agent has been away. All but run() may
    be called from any thread and from the handler; stop() from a signal handler, too.
    """

    def __init__(self, application, socket=None, instance=None, window=0, retry_delay=1.0, stop_patience=10.0,
                 on_welcome=None, on_configuration=None, on_broker=None):
        """Connects to nothing yet.

        socket         else apps/NAME.sock below the environment's QEL_RUNTIME_DIRECTORY, else below /run/qel
        instance       tells instances apart in the agent's log
        window         how many messages may be without a verdict at once; 0: what the agent is configured with
        retry_delay    seconds until a message comes again that the handler raised at; doubles with every try
        stop_patience  seconds in which run() finishes, after stop(), what it was given

        run() calls these between two messages; what they raise ends it:
        on_welcome        gets a Welcome at each attach
        on_configuration  gets a Configuration at each attach and each change of it
        on_broker         gets the state of the agent's connection to the broker, as in Welcome, likewise
        """
        directory = os.environ.get("QEL_RUNTIME_DIRECTORY", "/run/qel")
        self._hello = v1.Hello(instance=instance or f"{sockets.gethostname()[:32]}/{os.getpid()}", window=window)
        self._retry_delay = retry_delay
        self._stop_patience = stop_patience
        self._on_welcome = on_welcome
        self._on_configuration = on_configuration
        self._on_broker = on_broker
        self._stopping = False
        self._stream = None
        self._wake = queue.SimpleQueue()
        # A connection of its own, which looks for the agent often: it is on this host.
        self._channel = grpc.insecure_channel(
            f"unix:{socket or f'{directory}/apps/{application}.sock'}",
            options=[("grpc.use_local_subchannel_pool", 1), ("grpc.max_receive_message_length", -1),
                     ("grpc.initial_reconnect_backoff_ms", 100), ("grpc.min_reconnect_backoff_ms", 100),
                     ("grpc.max_reconnect_backoff_ms", 1000)])
        # Bytes, so that a request that is none fails where it is made.
        self._publish = self._channel.unary_unary(_SERVICE + "Publish")
        self._request_configuration = self._channel.unary_unary(
            _SERVICE + "RequestConfiguration", None, v1.RequestConfigurationResponse.FromString)
        self._attach = self._channel.stream_stream(
            _SERVICE + "Attach", v1.AttachRequest.SerializeToString, v1.AttachResponse.FromString)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        self._channel.close()

    def run(self, handler):
        """Gives each message to the handler, one after the other, until stop().

        The handler returns None, which means done, or a Retry or Dead. Any exception but Dead means: again later.
        """
        pauses = _BackOff(0.1, 5.0)
        while not self._stopping:
            began = time.monotonic()
            trouble = self._attach_once(handler)
            if self._stopping:
                break
            # An agent that takes us and ends us at once must not be asked all the time.
            if time.monotonic() - began > pauses.longest:
                pauses.reset()
            pause = pauses.next()
            _log.warning("%s; trying again in %.1f s", trouble, pause)
            with contextlib.suppress(queue.Empty):
                self._wake.get(timeout=pause)

    def stop(self, *_):
        """Detaches for good: nothing more is given to us, what we have is finished, then run() returns."""
        self._stopping = True
        self._wake.put(None)
        if self._stream:
            self._stream.wake()

    def stop_on_signals(self):
        """Lets SIGINT and SIGTERM stop the client; for the main thread."""
        for number in (signal.SIGINT, signal.SIGTERM):
            signal.signal(number, self.stop)

    def publish(self, exchange, routing_key, body, no_route_is_error=True, timeout=30.0, headers=None, **properties):
        """Publishes and waits until the broker has taken responsibility.

        While the agent is away or has too much waiting it tries again; a repetition has the same message_id. Properties
        are AMQP's by name, for example correlation_id="7". @raises PublishError
        """
        properties.setdefault("message_id", uuid.uuid4().hex)
        properties.setdefault("delivery_mode", _PERSISTENT)
        request = v1.PublishRequest(
            exchange=exchange, routing_key=_bytes(routing_key), body=_bytes(body), no_route_is_error=no_route_is_error,
            properties=v1.Properties(**{name: _bytes(value) for name, value in properties.items()},
                                     headers=[_header(*header) for header in (headers or {}).items()]))
        try:
            _call(self._publish, request, timeout)
        except grpc.RpcError as error:
            raise _publish_error(error) from None

    def reply(self, request, body):
        """Publishes the answer to a request; it is no error when the requester is gone."""
        self.publish("", request.reply_to, body, no_route_is_error=False, correlation_id=request.correlation_id)

    def request_configuration(self, timeout=30.0):
        """Asks the management plane for our configuration, for an application that knows that it wants another one.

        The agent asks by itself as long as there is none. What comes of it is told to on_configuration; returned is
        what was in force when the request went out. @raises ConfigurationError
        """
        try:
            answer = _call(self._request_configuration, v1.RequestConfigurationRequest(), timeout)
        except grpc.RpcError as error:
            raise _configuration_error(error) from None
        return _configuration(answer.configuration)

    def _attach_once(self, handler):
        """One attachment from start to end; why it ended."""
        self._stream = stream = _Stream(self._attach, self._hello, self._observe)
        try:
            for delivery in stream.deliveries(lambda: self._stopping, self._stop_patience):
                stream.answer(self._decide(delivery, handler))
            stream.finish()
        finally:
            stream.cancel()
        if stream.error is None:
            return "detached: the agent has ended the stream"
        if not stream.welcomed and stream.error.code() in (_CODE.INVALID_ARGUMENT, _CODE.UNIMPLEMENTED):
            raise AttachError(stream.error.details())
        return f"{'detached' if stream.welcomed else 'not attached'}: {stream.error.details()}"

    def _observe(self, response):
        welcome = response.welcome if response.HasField("welcome") else None
        if welcome and self._on_welcome:
            self._on_welcome(Welcome(welcome.application, welcome.agent_version, welcome.window, welcome.ordering_key,
                                     _configuration(welcome.configuration), _state(v1.Broker, welcome.broker)))
        if self._on_configuration and (welcome or response.HasField("configuration")):
            self._on_configuration(_configuration((welcome or response).configuration))
        if self._on_broker and (welcome or response.HasField("broker")):
            self._on_broker(_state(v1.Broker, (welcome or response).broker))

    def _decide(self, delivery, handler):
        verdict = v1.Verdict(delivery_id=delivery.delivery_id, kind=v1.Verdict.DONE)
        message = Message(delivery)
        try:
            answer = handler(message)
        except Exception as error:  # pylint: disable=broad-except
            answer = error
            if not isinstance(error, Dead):
                _log.warning("try %d of a message with routing key %s failed: %r", message.tries + 1,
                             message.routing_key, error)
        if isinstance(answer, Dead):
            verdict.kind = v1.Verdict.DEAD
            verdict.reason = _utf8_prefix(str(answer), _LONGEST_REASON)
        elif isinstance(answer, Exception):
            delay = getattr(answer, "delay", None)
            if delay is None:
                delay = min(self._retry_delay * 2 ** min(message.tries, 16), 60.0)
            verdict.kind = v1.Verdict.RETRY
            verdict.retry_delay_ms = min(max(0, round(delay * 1000)), _LONGEST_DELAY_MS)
        elif answer is not None:
            raise TypeError(f"a handler returns None, Retry or Dead, not {answer!r}")
        return verdict


class _Stream:
    """One attachment. A thread of its own reads; gRPC's thread takes what is to be sent from our iterator.

    Everything between threads goes through queues that may be used in a signal handler.
    """

    _ENDED = object()

    def __init__(self, attach, hello, observe):
        self.welcomed = False
        self.error = None
        self._observe = observe
        self._incoming = queue.SimpleQueue()
        self._outgoing = queue.SimpleQueue()
        self._verdicts = collections.deque()
        self._outgoing.put(v1.AttachRequest(hello=hello))
        self._call = attach(self._requests())
        threading.Thread(target=self._read, daemon=True).start()

    def deliveries(self, is_stopping, patience):
        """What comes, until the stream ends or, when we are stopping, our patience."""
        until = None
        while True:
            if until is None and is_stopping():
                until = time.monotonic() + patience
                self._outgoing.put(v1.AttachRequest(detach=v1.Detach()))
            try:
                response = self._incoming.get(timeout=None if until is None else max(0.0, until - time.monotonic()))
            except queue.Empty:
                return
            if response is self._ENDED:
                self._incoming.put(response)
                return
            if response is None:
                continue
            self.welcomed = True
            self._observe(response)
            for delivery in response.deliveries.deliveries:
                if until is not None and time.monotonic() > until:
                    return
                yield delivery

    def answer(self, verdict):
        self._verdicts.append(verdict)
        self._outgoing.put(self._verdicts)

    def wake(self):
        """Lets deliveries() ask whether we are stopping."""
        self._incoming.put(None)

    def finish(self):
        """Sends what verdicts there are and waits for the stream's end."""
        self._outgoing.put(self._ENDED)
        with contextlib.suppress(queue.Empty):
            while self._incoming.get(timeout=5.0) is not self._ENDED:
                pass

    def cancel(self):
        self._outgoing.put(self._ENDED)
        self._call.cancel()

    def _requests(self):
        while (item := self._outgoing.get()) is not self._ENDED:
            if item is not self._verdicts:
                yield item
            elif item:
                # All that have been given meanwhile go together; what they have put into the queue finds nothing.
                yield v1.AttachRequest(
                    verdicts=v1.VerdictBatch(verdicts=[item.popleft() for _ in range(len(item))]))

    def _read(self):
        try:
            for response in self._call:
                self._incoming.put(response)
        except grpc.RpcError as error:
            self.error = error
        self._incoming.put(self._ENDED)


class _BackOff:
    """Pauses at random between nothing and a limit that doubles up to the longest."""

    def __init__(self, first, longest):
        self.longest = longest
        self._first = self._limit = first

    def next(self):
        pause = random.uniform(0.0, self._limit)
        self._limit = min(self._limit * 2, self.longest)
        return pause

    def reset(self):
        self._limit = self._first


def _call(method, request, timeout):
    """Calls the agent again and again until it has answered for good or the time is over. @raises grpc.RpcError"""
    data = request.SerializeToString()
    until = time.monotonic() + timeout
    pauses = _BackOff(0.05, 1.0)
    while True:
        try:
            return method(data, timeout=max(0.0, until - time.monotonic()))
        except grpc.RpcError as error:
            pause = pauses.next()
            if error.code() in _FINAL or time.monotonic() + pause >= until:
                raise
        time.sleep(pause)


def _publish_error(error):
    if error.code() == _CODE.NOT_FOUND:
        return NoRoute(error.details())
    if error.code() == _CODE.RESOURCE_EXHAUSTED:
        # gRPC itself refuses it, in words of its own.
        return Refused("the message is too large for the agent: " + error.details())
    return (Refused if error.code() in _FINAL else Unconfirmed)(error.details())


def _configuration_error(error):
    kinds = {_CODE.NOT_FOUND: NoPlane, _CODE.RESOURCE_EXHAUSTED: TooSoon}
    return kinds.get(error.code(), NotSetUp if error.code() in _FINAL else NotConfirmed)(error.details())


def _configuration(configuration):
    return Configuration(_state(v1.Configuration, configuration), configuration.error, list(configuration.topics),
                         list(configuration.queues), configuration.incomplete)


def _state(kind, message):
    """The name of a state; of one that is newer than we are, that of none."""
    known = kind.State.DESCRIPTOR.values_by_number
    return known.get(message.state, known[0]).name


def _text(octets):
    return octets.decode("utf-8", "surrogateescape")


def _bytes(value):
    return value.encode("utf-8", "surrogateescape") if isinstance(value, str) else value


def _utf8_prefix(text, most):
    """As much of a text as fits into so many bytes."""
    return text.encode("utf-8", "replace")[:most].decode("utf-8", "ignore")


def _table(headers):
    return {_text(header.name): _value(header.value) for header in headers}


def _value(value):
    kind = value.WhichOneof("kind")
    if kind in (None, "null"):
        return None
    if kind == "table":
        return _table(value.table.headers)
    if kind == "array":
        return [_value(item) for item in value.array.values]
    return getattr(value, kind)


def _header(name, value):
    kinds = ((bool, "boolean"), (int, "integer"), (float, "number"), ((str, bytes), "text"))
    kind = next((kind for types, kind in kinds if isinstance(value, types)), None)
    if kind is None:
        raise TypeError(f"the header {name} is {value!r}: use bool, int, float, str or bytes")
    return v1.Header(name=_bytes(name), value=v1.HeaderValue(**{kind: _bytes(value)}))
