"""What a broker costs and holds, read from the kernel and from its own tools."""

import json
import os
import pathlib
import time

from qelbench.context import cpu_seconds

MIB = 1048576
#: What the node counts for its statistics. Its log tells of each connection, too, but leaves lines out in a storm.
OPENED = "element(2, hd(ets:lookup(connection_churn_metrics, node())))."


def status_field(pid, field):
    """A number of /proc/PID/status: kilobytes of memory as bytes, or a count."""
    for line in pathlib.Path(f"/proc/{pid}/status").read_text(encoding="ascii").splitlines():
        name, _, value = line.partition(":")
        if name == field:
            number, *unit = value.split()
            return int(number) * (1024 if unit else 1)
    raise KeyError(field)


class Stopwatch:
    """Seconds that went by, and processor seconds of processes meanwhile."""

    def __init__(self, **pids):
        self._pids = pids
        self._before = {name: cpu_seconds(pid) for name, pid in pids.items()}
        self._began = time.monotonic()

    @property
    def began(self):
        return self._began

    def read(self):
        elapsed = time.monotonic() - self._began
        return {"seconds": round(elapsed, 3), **{f"{name}_cpu_seconds": round(cpu_seconds(pid) - self._before[name], 2)
                                                 for name, pid in self._pids.items()}}


class BrokerGauge:
    """Reads one node."""

    def __init__(self, node):
        self.node = node

    def memory(self):
        """Resident memory, what Erlang has allocated (which need not be resident) by part, and what else has limits."""
        status = json.loads(self.node.ctl("status", "--formatter", "json"))
        parts = {name: bytes_ for name, bytes_ in status["memory"].items() if isinstance(bytes_, int)}
        return {"rss": status_field(self.node.pid, "VmRSS"),
                "erlang": status["memory"]["total"]["erlang"], "parts": parts,
                "processes": status["processes"]["used"],
                "descriptors": len(os.listdir(f"/proc/{self.node.pid}/fd"))}

    def holdings(self):
        """How many connections, channels, consumers, queues and bindings the node lists."""
        return {"connections": self._count("list_connections", "pid"),
                "channels": self._count("list_channels", "pid"),
                "consumers": self._count("list_consumers", "queue_name"),
                "queues": self._count("list_queues", "name"),
                "bindings": self._count("list_bindings", "source_name", "destination_name", "routing_key",
                                        wanted=lambda row: row["source_name"])}

    def opened(self):
        """How many connections got through their handshake since the node's start."""
        return int(self.node.ctl("eval", OPENED))

    def _count(self, command, *columns, wanted=lambda row: True):
        rows = json.loads(self.node.ctl(command, "--formatter", "json", *columns) or "[]")
        return sum(1 for row in rows if wanted(row))
