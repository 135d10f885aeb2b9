"""What publishers with confirms have in common: a connection that is made again for ever, and what is unconfirmed on it."""

import threading

import pika

RECONNECT_PAUSE = 0.5


class ConfirmingThread(threading.Thread):
    """A thread with a channel of its own in confirm mode, connected again, for ever, to each of the addresses in turn.

    A derived class has _begin(), called when its channel is ready, _on_return(), and _confirmed(). Everything but
    stop() happens in the thread.
    """

    def __init__(self, name, urls):
        super().__init__(name=name, daemon=True)
        self._parameters = [pika.URLParameters(url) for url in urls]
        self._stopping = threading.Event()
        self._connection = None
        # None while there is no channel that is ready.
        self._channel = None
        # By delivery tag, in the order of publishing, what the derived class wants to know of each message.
        self._unconfirmed = {}
        self._last_tag = 0

    def stop(self):
        self._stopping.set()
        self.join(30)

    def run(self):
        attempt = 0
        while not self._stopping.is_set():
            self._connection = pika.SelectConnection(
                self._parameters[attempt % len(self._parameters)], self._on_open, self._on_open_error, self._on_closed)
            self._connection.ioloop.start()
            self._connection.ioloop.close()
            self._channel = None
            unconfirmed, self._unconfirmed = list(self._unconfirmed.values()), {}
            self._lost(unconfirmed)
            attempt += 1
            self._stopping.wait(RECONNECT_PAUSE)

    def _lost(self, unconfirmed):
        """The connection has ended before these were confirmed or refused."""

    def _publish(self, note, exchange, routing_key, body, properties):
        """Publishes a mandatory message; `note` is handed to _confirmed() or _lost()."""
        self._last_tag += 1
        self._unconfirmed[self._last_tag] = note
        self._channel.basic_publish(exchange, routing_key, body, properties, mandatory=True)

    def _give_up(self):
        """Ends the connection; the next one follows unless the thread is stopping."""
        self._channel = None
        if self._connection.is_open:
            self._connection.close()

    def _on_open(self, connection):
        connection.channel(on_open_callback=self._on_channel)

    def _on_open_error(self, connection, _error):
        connection.ioloop.stop()

    def _on_closed(self, connection, _reason):
        self._channel = None
        connection.ioloop.stop()

    def _on_channel(self, channel):
        self._last_tag = 0
        channel.add_on_return_callback(self._on_return)
        channel.add_on_close_callback(self._on_channel_closed)
        channel.confirm_delivery(self._on_confirm, lambda _frame: self._on_ready(channel))

    def _on_channel_closed(self, _channel, _reason):
        self._give_up()

    def _on_ready(self, channel):
        self._channel = channel
        self._begin()

    def _on_confirm(self, frame):
        method = frame.method
        tags = [method.delivery_tag]
        if method.multiple:
            # In the order of publishing, so everything up to the tag stands first.
            tags = []
            for tag in self._unconfirmed:
                if tag > method.delivery_tag:
                    break
                tags.append(tag)
        # Who has given the connection up may have forgotten what is confirmed on it still.
        notes = [self._unconfirmed.pop(tag) for tag in tags if tag in self._unconfirmed]
        self._confirmed(notes, isinstance(method, pika.spec.Basic.Ack))
