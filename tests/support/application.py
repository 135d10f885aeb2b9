"""Local applications: one that speaks the agent's gRPC interface from Python, one that is `qelctl attach`."""

import queue
import threading

import grpc

from testbed.processes import wait_until

from .qelctl import QelctlProcess
from .schema import applications as schema

METHOD = "/qel.apps.v1.Applications/"
VERDICTS = {"done": schema.Verdict.DONE, "retry": schema.Verdict.RETRY, "dead": schema.Verdict.DEAD}


class GrpcApplication:
    """An application attached to its socket, which decides on each delivery itself.

    A reader thread sorts what comes: deliveries into a queue for next(), configurations into `configurations`, the
    broker's states into `brokers`. The messages may be those of an older interface.
    """

    def __init__(self, agent, name, window=0, instance="test", messages=schema):
        self.agent = agent
        self.name = name
        self.messages = messages
        self.configurations = []
        self.brokers = []
        self.welcome = None
        self.ended = None
        self._outgoing = queue.SimpleQueue()
        self._deliveries = queue.SimpleQueue()
        # A connection of its own: gRPC would share one among all channels to the same socket.
        self._channel = grpc.insecure_channel(f"unix:{agent.socket(name)}",
                                              options=[("grpc.use_local_subchannel_pool", 1)])
        attach = self._channel.stream_stream(METHOD + "Attach",
                                             request_serializer=messages.AttachRequest.SerializeToString,
                                             response_deserializer=messages.AttachResponse.FromString)
        self._send(messages.AttachRequest(hello=messages.Hello(instance=instance, window=window)))
        self._call = attach(iter(self._outgoing.get, None))
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        """Detaches: ends the stream and the connection."""
        self._outgoing.put(None)
        self._call.cancel()
        self._channel.close()
        self._reader.join(10)

    def ask_to_leave(self):
        """Sends Detach: nothing more comes, and the stream ends when everything that came is answered."""
        self._send(schema.AttachRequest(detach=schema.Detach()))

    def wait_for_welcome(self):
        self._wait_until(lambda: self.welcome, "the welcome")
        return self

    def wait_until_ended(self, patience=30.0):
        """Waits for the agent to end the stream; the grpc.RpcError, or True when it ended well."""
        self._wait_until(lambda: self.ended, "the end of the stream", patience)
        return self.ended

    def wait_for_state(self, state, topics=None, patience=30.0):
        """Waits for a configuration of this state ("APPLIED", "FAILED", ...), and with these topics when given."""
        wanted = schema.Configuration.State.Value(state)

        def found():
            return any(one.state == wanted and (topics is None or sorted(one.topics) == sorted(topics))
                       for one in self.configurations[-1:])

        self._wait_until(found, f"{self.name}'s configuration to be {state} {topics or ''}", patience)

    def wait_for_broker(self, state, patience=60.0):
        """Waits until the agent says that its connection to the broker is in this state."""
        wanted = schema.Broker.State.Value(state)
        self._wait_until(lambda: self.brokers[-1:] == [wanted], f"the broker to be {state}", patience)

    def next(self, patience=30.0):
        """The next delivery; no verdict is given."""
        try:
            return self._deliveries.get(timeout=patience)
        except queue.Empty:
            raise AssertionError(f"no message for {self.name} within {patience} s (stream: {self.ended})\n"
                                 f"{self.agent.log_tail()}") from None

    def pending(self):
        """How many deliveries next() would return at once."""
        return self._deliveries.qsize()

    def take(self, count=1, patience=30.0):
        """The bodies of the next deliveries, each answered done."""
        bodies = []
        for _ in range(count):
            delivery = self.next(patience)
            bodies.append(delivery.body)
            self.verdict(delivery, "done")
        return bodies

    def verdict(self, delivery, kind, reason="", delay_ms=0):
        """Answers a delivery: done, retry or dead."""
        one = self.messages.Verdict(delivery_id=delivery.delivery_id, kind=VERDICTS[kind], reason=reason,
                                    retry_delay_ms=delay_ms)
        self._send(self.messages.AttachRequest(verdicts=self.messages.VerdictBatch(verdicts=[one])))

    def send(self, request):
        """Sends any AttachRequest, for requests that make no sense."""
        self._send(request)

    def publish(self, exchange, routing_key, body, no_route_is_error=True, patience=20.0, **properties):
        """Publishes through the agent. @raises grpc.RpcError."""
        call = self._channel.unary_unary(METHOD + "Publish",
                                         request_serializer=schema.PublishRequest.SerializeToString,
                                         response_deserializer=schema.PublishResponse.FromString)
        request = schema.PublishRequest(exchange=exchange, routing_key=routing_key.encode(), body=body,
                                        no_route_is_error=no_route_is_error,
                                        properties=schema.Properties(**properties))
        return call(request, timeout=patience)

    def request_configuration(self, patience=20.0):
        """Has the management plane asked for the configuration; the one in force. @raises grpc.RpcError."""
        call = self._channel.unary_unary(METHOD + "RequestConfiguration",
                                         request_serializer=schema.RequestConfigurationRequest.SerializeToString,
                                         response_deserializer=schema.RequestConfigurationResponse.FromString)
        return call(schema.RequestConfigurationRequest(), timeout=patience).configuration

    def _send(self, request):
        self._outgoing.put(request)

    def _read(self):
        try:
            for response in self._call:
                self._sort(response)
            self.ended = True
        except grpc.RpcError as error:
            self.ended = error

    def _sort(self, response):
        kind = response.WhichOneof("kind")
        if kind == "welcome":
            self.configurations.append(response.welcome.configuration)
            if self.messages is schema:
                self.brokers.append(response.welcome.broker.state)
            self.welcome = response.welcome
        elif kind == "configuration":
            self.configurations.append(response.configuration)
        elif kind == "broker":
            self.brokers.append(response.broker.state)
        for delivery in response.deliveries.deliveries:
            self.received(delivery)

    def received(self, delivery):
        """Keeps a delivery for next(); called by the reader thread, for derived classes to do something else."""
        self._deliveries.put(delivery)

    def _wait_until(self, condition, what, patience=30.0):
        wait_until(condition, f"{what} (stream: {self.ended})", patience, self.agent.log_tail)


def call_with_bytes(agent, name, method, data):
    """Calls a method with these bytes as its one request; the grpc.RpcError, or None when it went well."""
    with grpc.insecure_channel(f"unix:{agent.socket(name)}",
                               options=[("grpc.use_local_subchannel_pool", 1)]) as channel:
        try:
            list(channel.stream_stream(METHOD + method)(iter([data]), timeout=30))
        except grpc.RpcError as error:
            return error
    return None


class AttachedApp(QelctlProcess):
    """`qelctl attach APP --socket PATH --json` as a process."""

    def __init__(self, agent, name, *options):
        self.agent = agent
        super().__init__(agent.folder, "attach", name, "--socket", agent.socket(name), *options)

    def diagnose(self):
        return super().diagnose() + self.agent.log_tail()
