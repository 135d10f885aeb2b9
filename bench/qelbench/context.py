"""What a part of the benchmarks is given to work with."""

import contextlib
import os
import pathlib
import sys
import tempfile
import time

from support.certificates import Authority
from testbed.processes import wait_until
from testbed.rabbitnode import RabbitNode

ROOT = pathlib.Path(__file__).resolve().parents[2]


def cpu_seconds(pid):
    """The processor time that a process and its threads have used, by the kernel's clock of the process."""
    return time.clock_gettime((~pid << 3) | 2)


def resident_mib(pid):
    """The memory of a process that is in RAM."""
    status = pathlib.Path(f"/proc/{pid}/status").read_text(encoding="ascii")
    return int(status.split("VmRSS:")[1].split()[0]) / 1024


def forget_most_resident(pid):
    """From now on most_resident_mib() counts."""
    pathlib.Path(f"/proc/{pid}/clear_refs").write_text("5", encoding="ascii")


def most_resident_mib(pid):
    """The most memory of a process that was in RAM."""
    status = pathlib.Path(f"/proc/{pid}/status").read_text(encoding="ascii")
    return int(status.split("VmHWM:")[1].split()[0]) / 1024


class Context:
    """The build, the broker and the size of the run. For the main thread: processes that it starts end with it.

    build        the folder of the release build
    quick        whether the figures are to be had soon rather than well
    repetitions  how many turns everything has; not given, each part says so itself
    folder       scratch, gone at the end; nothing in it needs quoting
    """

    def __init__(self, build, quick, repetitions=None):
        self.build = pathlib.Path(build).resolve()
        self.quick = quick
        self._asked = repetitions
        self._ends = contextlib.ExitStack()
        self._node = None
        self._serial = 0
        self.folder = None
        self._authority = None
        os.environ["QEL_AGENT"] = str(self.program("src/agent/qel-agent"))
        os.environ["QELCTL"] = str(self.program("tools/qelctl/qelctl"))

    def __enter__(self):
        self.folder = pathlib.Path(self._ends.enter_context(tempfile.TemporaryDirectory(prefix="qel-", dir="/tmp")))
        return self

    def __exit__(self, *_):
        self._node = None
        self._ends.close()

    def program(self, path):
        """A built program, named by its path in the build."""
        return self.build / path

    def pick(self, full, quick):
        """The size of something: one for real runs, one for quick ones."""
        return quick if self.quick else full

    def turns(self, full=7, quick=1):
        """How often something is run, unless the caller of everything has said."""
        return self._asked or self.pick(full, quick)

    def scratch(self, name):
        """A new folder for one part's use."""
        self._serial += 1
        folder = self.folder / f"{self._serial}-{name}"
        folder.mkdir()
        return folder

    def node(self):
        """The broker that the parts share, each finding it empty; started when it is first asked for."""
        if self._node is None:
            self.progress("starting RabbitMQ")
            self._authority = Authority(self.scratch("certificates"))
            self._authority.issue("server")
            self._node = self._ends.enter_context(RabbitNode(self.scratch("rabbit"), tls=self._authority.folder))
        return self._node

    def authorities(self):
        """The file of certificates by which the shared broker is known over TLS."""
        self.node()
        return self._authority.file

    def drop_node(self):
        """Ends the shared broker, after a failure; whoever asks next gets a new one."""
        if self._node:
            self._node.stop()
            self._node = None

    def new_node(self, name, **options):
        """A broker of one's own as a context manager, for a part that restarts or reconfigures it."""
        return RabbitNode(self.scratch(name), **options)

    def clear(self):
        """Takes everything off the shared broker, so that no part finds another one's queues."""
        if self._node is None:
            return
        # Whoever is still connected is thrown out.
        for command in (["delete_vhost", "/"], ["add_vhost", "/"], ["set_permissions", "guest", ".*", ".*", ".*"]):
            self._node.ctl(*command)

    @staticmethod
    def wait_for_no_connection(node):
        """The broker has noticed that everybody has hung up."""
        wait_until(lambda: not node.ctl("list_connections", "--no-table-headers", "pid").strip(),
                   "all connections to be gone", 120)

    def interleave(self, ways, full=7, quick=1):
        """Runs every way in turns: {name: action} gives {name: [what each of its runs returned]}.

        full, quick  how many turns it takes in runs of either kind, unless the caller of everything has said
        """
        results = {name: [] for name in ways}
        count = self.turns(full, quick)
        for turn in range(1, count + 1):
            for name, action in ways.items():
                results[name].append(action())
                self.progress(f"{turn}/{count} {name}: {_short(results[name][-1])}")
        return results

    @staticmethod
    def progress(text):
        """Tells whoever waits what is going on."""
        print(f"  {time.strftime('%H:%M:%S')} {text}", file=sys.stderr, flush=True)


def _short(value):
    if isinstance(value, float):
        return f"{value:.4g}"
    if isinstance(value, tuple):
        return ", ".join(map(_short, value))
    if isinstance(value, dict):
        return ", ".join(f"{name} {_short(one)}" for name, one in value.items())
    return str(value) if not isinstance(value, list) else f"{len(value)} values"
