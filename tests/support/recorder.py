"""Servers in a broker's place that write down what they are told: whatever a client gives away is in the record."""

import contextlib
import socket
import ssl
import struct
import threading

import pika.frame
import pika.spec

from testbed.processes import wait_until

HEADER = b"AMQP\x00\x00\x09\x01"
START = pika.frame.Method(0, pika.spec.Connection.Start(mechanisms="PLAIN AMQPLAIN EXTERNAL")).marshal()


class Recorder:
    """Listens on a free loopback port, `port`, as long as the context lives, and serves one client at a time.

    context  an ssl.SSLContext to speak TLS, or None for plain TCP
    answer   sent when the client has said something (behind TLS: inside of it); default: the beginning of a broker's
             login, so that a client who believes us tells name and password
    `hellos` has the first bytes of each connection as they came, `told` what each has said (behind TLS: decrypted).
    """

    def __init__(self, context=None, answer=START):
        self.hellos = []
        self.told = []
        self._ended = 0
        self._context = context
        self._answer = answer
        self._listener = socket.create_server(("127.0.0.1", 0))
        self._listener.settimeout(0.1)
        self._ending = threading.Event()
        self._thread = threading.Thread(target=self._run, daemon=True)

    @property
    def port(self):
        return self._listener.getsockname()[1]

    def __enter__(self):
        self._thread.start()
        return self

    def __exit__(self, *_):
        self._ending.set()
        self._thread.join(10)
        self._listener.close()

    def wait_for_connections(self, count, patience=60.0):
        """Waits until so many have come and gone."""
        wait_until(lambda: self._ended >= count, f"{count} connections to the recorder", patience)

    def everything(self):
        return b"".join(self.hellos + self.told)

    def _run(self):
        while not self._ending.is_set():
            with contextlib.suppress(TimeoutError):
                client, _ = self._listener.accept()
                with client:
                    self._serve(client)

    def _serve(self, client):
        """Until the client goes or we end."""
        client.settimeout(0.1)
        self.hellos.append(b"")
        self.told.append(b"")
        with contextlib.suppress(OSError):
            self.hellos[-1] = self._peek(client)
            if self._context:
                client.settimeout(10.0)
                client = self._context.wrap_socket(client, server_side=True)
                client.settimeout(0.1)
            while not self._ending.is_set():
                try:
                    piece = client.recv(65536)
                except TimeoutError:
                    continue
                if not piece:
                    break
                if not self.told[-1] and self._answer:
                    client.sendall(self._answer)
                self.told[-1] += piece
        client.close()
        self._ended += 1

    def _peek(self, client):
        while not self._ending.is_set():
            with contextlib.suppress(TimeoutError):
                return client.recv(65536, socket.MSG_PEEK)
        return b""


def server_context(certificate, authority=None):
    """A TLS server's context with this certificate; with an authority it wants one of the client's."""
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(certificate.file, certificate.key)
    if authority:
        context.load_verify_locations(authority.file)
        context.verify_mode = ssl.CERT_REQUIRED
    return context


def offered_versions(hello):
    """The TLS versions that a ClientHello offers, as numbers (0x0303 is TLS 1.2), from its supported_versions."""
    assert hello[0] == 22 and hello[5] == 1, f"no ClientHello: {hello[:16]!r}"
    rest = hello[5 + 4 + 2 + 32:]
    for width in (1, 2, 1):  # session id, cipher suites, compression methods
        rest = rest[width + int.from_bytes(rest[:width], "big"):]
    rest = rest[2:]
    while rest:
        kind, size = struct.unpack(">HH", rest[:4])
        if kind == 43:
            versions = rest[5:4 + size]
            return {number for (number,) in struct.iter_unpack(">H", versions)}
        rest = rest[4 + size:]
    raise AssertionError("the ClientHello has no supported_versions: it offers what its header says, TLS 1.2 at most")
