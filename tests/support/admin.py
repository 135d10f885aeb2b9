"""The agent's admin endpoint as its users ask it: HTTP on the Unix socket."""

import contextlib
import http.client
import json
import socket


class _UnixConnection(http.client.HTTPConnection):
    def __init__(self, path, timeout):
        super().__init__("localhost", timeout=timeout)
        self._path = str(path)

    def connect(self):
        self.sock = socket.socket(socket.AF_UNIX)
        self.sock.settimeout(self.timeout)
        self.sock.connect(self._path)


class Admin:
    """One agent's admin endpoint. Every request is a connection of its own."""

    def __init__(self, agent, patience=30.0):
        self.agent = agent
        self.path = agent.runtime_directory / "admin.sock"
        self._patience = patience

    def request(self, method, target, body=None, headers=None):
        """The answer as (status, headers, body as text)."""
        with contextlib.closing(_UnixConnection(self.path, self._patience)) as connection:
            connection.request(method, target, body=body, headers=headers or {})
            answer = connection.getresponse()
            return answer.status, answer.headers, answer.read().decode("utf-8")

    def get(self, target, **headers):
        return self.request("GET", target, headers=headers)

    def status(self):
        """/status, parsed."""
        code, _, text = self.get("/status")
        assert code == 200, text
        return json.loads(text)

    def routes(self, query=""):
        code, _, text = self.get("/routes" + query)
        assert code == 200, text
        return json.loads(text)

    def reasons(self):
        """Why the agent is not ready, a line each; empty when it is."""
        code, _, text = self.get("/readyz")
        assert code == (200 if text == "ready\n" else 503), (code, text)
        return [] if code == 200 else text.splitlines()

    def application(self, name):
        return next(each for each in self.status()["applications"] if each["name"] == name)

    def wait_until_ready(self, patience=30.0):
        self.agent.wait_until(lambda: not self.reasons(), "the agent to call itself ready", patience)
        return self
