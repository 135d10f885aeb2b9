"""A small service manager: starts the agent by its unit file, in a folder that stands for the root of a host."""

import contextlib
import os
import pathlib
import re
import signal
import socket
import threading

from testbed.processes import end, spawn, tail, wait_until

from .unit import Unit

NOTIFY_SOCKET = "run/notify"


class Supervisor:
    """One service: what systemd does of a unit that matters here (the user, its folders, notify, the restarts).

    root      the folder that the service sees as /
    command   replaces the unit's, for a service that is not installed
    user      replaces the unit's; (uid, gid)
    """

    def __init__(self, root, user, unit=None, command=None, environment=None):
        self.unit = unit or Unit()
        self.root = pathlib.Path(root)
        self.log_file = self.root / "var/log/agent.log"
        self.starts = 0
        self.statuses = []
        self._user = user
        self._command = command or self.unit.command()
        self._environment = environment or {}
        self._process = None
        self._watcher = None
        self._stopping = threading.Event()
        self._notify = None

    def start(self, patience=30.0):
        """Starts the service and waits until it says that it is ready, as Type=notify does."""
        assert self._process is None or self._process.poll() is not None
        for setting, parent in (("RuntimeDirectory", "run"), ("StateDirectory", "var/lib")):
            folder = self.root / parent / self.unit.get(setting)
            folder.mkdir(parents=True, exist_ok=True)
            folder.chmod(int(self.unit.get(setting + "Mode", "0755"), 8))
            os.chown(folder, *self._user)
        self._stopping.clear()
        self._listen()
        self._launch()
        self._watcher = threading.Thread(target=self._watch, daemon=True)
        self._watcher.start()
        wait_until(self._is_ready, "the service to be ready", patience, self.log_tail)

    def stop(self, patience=20.0):
        """SIGTERM, and no restart; the exit status."""
        self._stopping.set()
        status = end(self._process, signal.SIGTERM, patience)
        self._watcher.join()
        return status

    def restart(self):
        self.stop()
        self.start()

    def signal(self, number):
        self._process.send_signal(number)

    def wait_for_restart(self, starts, patience=30.0):
        """Waits until the service has been started so often."""
        wait_until(lambda: self.starts >= starts and self._is_ready(), f"start number {starts}", patience,
                   self.log_tail)

    def is_running(self):
        return self._process is not None and self._process.poll() is None

    def log_tail(self):
        return tail(self.log_file, 60)

    def close(self):
        with contextlib.suppress(Exception):
            self.stop()
        if self._notify:
            self._notify.close()

    def _listen(self):
        path = self.root / NOTIFY_SOCKET
        path.parent.mkdir(parents=True, exist_ok=True)
        path.unlink(missing_ok=True)
        self._notify = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._notify.bind(str(path))
        path.chmod(0o666)
        self._notify.setblocking(False)

    def _launch(self):
        self._ready = False
        self.log_file.parent.mkdir(parents=True, exist_ok=True)
        environment = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "NOTIFY_SOCKET": f"/{NOTIFY_SOCKET}",
                       **self._environment}
        user, group = self._user
        with open(self.log_file, "ab") as log:
            self._process = spawn(["chroot", f"--userspec={user}:{group}", "--groups=", self.root, *self._command],
                                  stdout=log, stderr=log, env=environment)
        self.starts += 1

    def _is_ready(self):
        with contextlib.suppress(BlockingIOError):
            while True:
                self._ready |= b"READY=1" in self._notify.recv(65536)
        return self._ready

    def _watch(self):
        while True:
            status = self._process.wait()
            self.statuses.append(status)
            if self._stopping.is_set() or not self.unit.restarts_after(status):
                return
            if self._stopping.wait(_seconds(self.unit.get("RestartSec", "100ms"))):
                return
            self._launch()


def _seconds(span):
    """A time span of systemd.time(7), as far as our unit needs it."""
    number, unit = re.fullmatch(r"(\d+)\s*(ms|s|min)?", span).groups()
    return int(number) * {"ms": 0.001, "s": 1, "min": 60, None: 1}[unit]
