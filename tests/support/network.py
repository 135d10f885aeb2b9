"""The agent's host in a private network, whose wire can be cut, lossy or slow; real packets, the kernel's own TCP."""

import json
import pathlib
import subprocess

from testbed.network import OURS, Host
from testbed.processes import ProcessFailed

# Belongs to nobody: what is sent there vanishes. Nearer to the first host than ours, so that it is tried first.
DEAD = "10.77.0.2"
DIRECTIONS = ("to_agent", "to_broker")
COUNTER = "dropped"
IN_VAIN = "in_vain"


class DistantHost(Host):
    """The first host of a private network, to run agents on; it sees files of its own as /etc/hosts and resolv.conf.

    Packets are lost on arrival: in the host for those "to_agent", at the bridge for those "to_broker", so the sender is
    not told. Faults add up until mend(). Directions not given: both.
    """

    def __init__(self, number):
        super().__init__(number)
        self._folder = None

    def connect(self):
        super().connect()
        # Packets of a wire's size: a lost one is not 64 KiB.
        _run("ip", "link", "set", "dev", self._port, "gso_max_segs", "1")
        self.run("ip", "link", "set", "dev", "eth0", "gso_max_segs", "1")
        self.run("ip", "neighbour", "add", DEAD, "lladdr", "02:00:00:00:00:02", "nud", "permanent", "dev", "eth0")
        for direction in DIRECTIONS:
            device = self._receiver(direction)
            self._nft(direction, f"""
                add table netdev faults
                add counter netdev faults {COUNTER}
                add chain netdev faults {direction} {{ type filter hook ingress device {device} priority 0; }}""")
        self._nft("to_broker", f"""
            add counter netdev faults {IN_VAIN}
            add chain netdev faults dead {{ type filter hook ingress device {self._port} priority 1; }}
            add rule netdev faults dead ip daddr {DEAD} counter name {IN_VAIN} drop""")

    def run(self, *command, text=None):
        """Runs a command on the host; its output."""
        return _run(*self.command(command), text=text)

    def cut(self, *directions):
        """Drops every packet."""
        self._drop("", directions)

    def lose(self, percent, *directions):
        """Drops packets at random."""
        self._drop(f"numgen random mod 100 < {percent}", directions)

    def limit_rate(self, kbit, *directions):
        """Lets so many kilobits through a second; at most two seconds' worth wait."""
        for direction in directions or DIRECTIONS:
            self._at_sender(direction, "tc", "qdisc", "replace", "dev", self._sender(direction), "root", "tbf", "rate",
                            f"{kbit}kbit", "burst", "1600", "latency", "2s")

    def mend(self):
        """Takes every fault back."""
        for direction in DIRECTIONS:
            self._nft(direction, f"flush chain netdev faults {direction}")
            device = self._sender(direction)
            if " tbf " in self._at_sender(direction, "tc", "qdisc", "show", "dev", device):
                self._at_sender(direction, "tc", "qdisc", "delete", "dev", device, "root")

    def dropped(self, direction):
        """How many packets were dropped so far."""
        return self._count(direction, COUNTER)

    def sent_in_vain(self):
        """How many packets were sent to the dead address so far."""
        return self._count("to_broker", IN_VAIN)

    def _count(self, direction, counter):
        found = json.loads(self._at_receiver(direction, "nft", "-json", "list", "counter", "netdev", "faults", counter))
        return next(entry["counter"]["packets"] for entry in found["nftables"] if "counter" in entry)

    def _drop(self, what, directions):
        for direction in directions or DIRECTIONS:
            self._nft(direction, f"add rule netdev faults {direction} {what} counter name {COUNTER} drop")

    def _nft(self, direction, text):
        self._at_receiver(direction, "nft", "-f", "-", text=text + "\n")

    def _receiver(self, direction):
        """The device through which these packets come in, where they are lost."""
        return "eth0" if direction == "to_agent" else self._port

    def _sender(self, direction):
        """The device through which these packets go out, where they queue."""
        return self._port if direction == "to_agent" else "eth0"

    def _at_receiver(self, direction, *command, text=None):
        return (self.run if direction == "to_agent" else _run)(*command, text=text)

    def _at_sender(self, direction, *command):
        return (_run if direction == "to_agent" else self.run)(*command)


class NameService:
    """A side to run an agent on whose names come from files of ours, which may change while it runs.

    folder  where the files are made
    host    the side that this one builds upon
    """

    def __init__(self, folder, host, name_server):
        self._host = host
        self._hosts = pathlib.Path(folder) / "hosts"
        self._resolver = pathlib.Path(folder) / "resolv.conf"
        self.set_addresses({})
        self._resolver.write_text(f"nameserver {name_server}\n", encoding="ascii")

    def set_addresses(self, addresses):
        """What is known without a name server: {name: [address, ...]}."""
        self._hosts.write_text("".join(f"{address} {name}\n" for name, listed in addresses.items()
                                       for address in listed), encoding="ascii")

    def command(self, command):
        mount = f'mount --bind {self._hosts} /etc/hosts && mount --bind {self._resolver} /etc/resolv.conf && exec "$@"'
        return self._host.command(["unshare", "--mount", "--propagation", "private", "sh", "-c", mount, "sh", *command])


def _run(*command, text=None):
    done = subprocess.run(list(map(str, command)), input=text, capture_output=True, text=True, check=False)
    if done.returncode != 0:
        raise ProcessFailed(f"{' '.join(map(str, command))} ended with {done.returncode}: {done.stdout}{done.stderr}")
    return done.stdout
