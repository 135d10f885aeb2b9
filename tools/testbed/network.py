"""A network of one's own: a bridge with hosts on it, which can be cut off, in network namespaces without names.

The namespaces go with the processes in them, however these end: nothing has to be cleaned up, and no address and no port
can collide with anybody else's. Needs root.
"""

import ctypes
import os
import subprocess

from .processes import ProcessFailed, end, spawn, wait_until

CLONE_NEWNET = 0x40000000
BRIDGE = "bridge"
OURS = "10.77.0.254"
RULES = "partition"

_libc = ctypes.CDLL(None, use_errno=True)


def _check(status, what):
    if status != 0:
        number = ctypes.get_errno()
        raise ProcessFailed(f"{what}: {os.strerror(number)} (private networks need root)")


def _run(*command, stdin=None):
    done = subprocess.run(list(map(str, command)), input=stdin, capture_output=True, text=True, check=False)
    if done.returncode != 0:
        raise ProcessFailed(f"{' '.join(map(str, command))} ended with {done.returncode}: {done.stdout}{done.stderr}")


class PrivateNetwork:
    """Moves the calling thread, and what it starts from then on, into a network with nothing but a bridge.

    with PrivateNetwork() as network:
        host = network.add_host()
        subprocess.run(host.command(["ip", "address"]))

    Enter it before the threads start that shall be in it; those that run already stay where they are.
    """

    def __init__(self):
        self.hosts = []
        self._before = None

    def __enter__(self):
        self._before = os.open("/proc/thread-self/ns/net", os.O_RDONLY)
        try:
            _check(_libc.unshare(CLONE_NEWNET), "unshare")
            _run("ip", "link", "set", "lo", "up")
            _run("ip", "link", "add", BRIDGE, "type", "bridge")
            _run("ip", "address", "add", f"{OURS}/24", "dev", BRIDGE)
            _run("ip", "link", "set", BRIDGE, "up")
        except BaseException:
            self.__exit__()
            raise
        return self

    def __exit__(self, *_):
        for host in self.hosts:
            host.close()
        _check(_libc.setns(self._before, CLONE_NEWNET), "setns")
        os.close(self._before)

    def add_host(self, kind=None):
        """A further host on the bridge; `kind` is a class derived from Host."""
        host = (kind or Host)(len(self.hosts) + 1)
        self.hosts.append(host)
        host.connect()
        return host


class Host:
    """A network namespace on the bridge, kept by a process that does nothing."""

    def __init__(self, number):
        self.address = f"10.77.0.{number}"
        self._port = f"host{number}"
        self._holder = spawn(["unshare", "--net", "sleep", "infinity"])
        self._namespace = f"/proc/{self._holder.pid}/ns/net"

    def connect(self):
        ours = os.readlink("/proc/thread-self/ns/net")
        wait_until(lambda: os.readlink(self._namespace) != ours, "a network namespace")
        _run("ip", "link", "add", self._port, "type", "veth", "peer", "name", "eth0", "netns", self._holder.pid)
        _run("ip", "link", "set", self._port, "master", BRIDGE, "up")
        for arguments in (["link", "set", "lo", "up"], ["address", "add", f"{self.address}/24", "dev", "eth0"],
                          ["link", "set", "eth0", "up"]):
            _run(*self.command(["ip", *arguments]))

    def close(self):
        end(self._holder)

    def command(self, command):
        """The command that runs `command` on this host."""
        return ["nsenter", f"--net={self._namespace}", "--", *command]

    def isolate(self):
        """Nothing reaches the host or leaves it any more; nobody is told."""
        _run("ip", "link", "set", self._port, "nomaster")

    def drop(self, *addresses):
        """Drops everything from and to these addresses, silently; others still reach the host."""
        listed = ", ".join(addresses)
        _run(*self.command(["nft", "-f", "-"]), stdin=f"""
            table ip {RULES} {{
                chain input {{ type filter hook input priority 0; ip saddr {{ {listed} }} drop; }}
                chain output {{ type filter hook output priority 0; ip daddr {{ {listed} }} drop; }}
            }}""")

    def heal(self):
        """Undoes isolate() and drop()."""
        _run("ip", "link", "set", self._port, "master", BRIDGE)
        _run(*self.command(["nft", "-f", "-"]), stdin=f"add table ip {RULES}\ndelete table ip {RULES}\n")
