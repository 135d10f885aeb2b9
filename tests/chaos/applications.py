"""Applications: `qelctl attach` processes whose deliveries our own process writes down."""

import json
import signal
import subprocess
import threading

from support.paths import program
from testbed.processes import end, spawn

from .gaps import Gaps


class Instance:
    """One attached process. It says done after it has written a delivery out, so what we read of a killed one counts."""

    def __init__(self, application, number):
        self._application = application
        self.name = f"{application.name}.{number}"
        self._errors = open(application.folder / f"{self.name}.err", "ab")
        self._process = None
        self._reader = None

    def start(self):
        self._process = spawn(
            [program("qelctl"), "attach", self._application.name, "--socket", self._application.socket, "--json",
             "--reconnect", "--instance", self.name], stdout=subprocess.PIPE, stderr=self._errors)
        self._reader = threading.Thread(target=self._read, args=(self._process.stdout,), daemon=True)
        self._reader.start()

    def kill(self):
        """SIGKILL; returns when everything that the process had written has been noted."""
        self._finish(signal.SIGKILL)

    def stall(self):
        """Stops the process where it is: attached, and mute."""
        self._process.send_signal(signal.SIGSTOP)

    def go_on(self):
        self._process.send_signal(signal.SIGCONT)

    def stop(self):
        self._finish(signal.SIGTERM)
        self._errors.close()

    def _finish(self, how):
        if self._process:
            end(self._process, how, patience=10.0)
            self._reader.join(30)
            self._process = None

    def _read(self, output):
        with output:
            for line in output:
                # A process killed while it wrote has not answered for what it wrote in part.
                if line.endswith(b"\n"):
                    self._application.take(self.name, json.loads(line))


class Application:
    """An application with its instances, what it was told of its configuration, and the gaps in its deliveries.

    Start instances from a thread that lives as long as they shall.
    """

    def __init__(self, agent, name, ledger, folder, instances=1):
        self.name = name
        self.folder = folder
        self.socket = agent.socket(name)
        self._ledger = ledger
        self.gaps = Gaps()
        self.configuration = {}
        self.times_applied = 0
        self.instances = [Instance(self, number) for number in range(1, instances + 1)]

    def start(self):
        for instance in self.instances:
            instance.start()

    def stop(self):
        for instance in self.instances:
            instance.stop()

    def take(self, instance, event):
        """Notes one event of an instance; called by its reader."""
        kind = event["event"]
        if kind == "welcome":
            self.configuration = event["configuration"]
        elif kind == "configuration":
            self.configuration = event
            self.times_applied += event["state"] == "APPLIED"
        elif kind == "delivery":
            self.gaps.note()
            self._ledger.arrive(self.name, instance, event.get("messageId", ""), event.get("body", ""),
                                event["redelivered"])
