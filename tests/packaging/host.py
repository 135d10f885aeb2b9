"""A Debian 12 in a folder, whose service manager is our small supervisor."""

import contextlib
import os
import pathlib
import shutil
import signal
import subprocess
import threading

from support.supervisor import Supervisor
from support.unit import Unit
from testbed.processes import wait_until

SUITE = "bookworm"
RELOADED = "configuration read again"
UNIT = "lib/systemd/system/qel-agent.service"

# Programs that speak to what the folder does not have, a service manager and a broker: they hand a request over and wait
# for the answer.
SHIM = """#!/bin/sh
{ basename "$0"; for word; do printf '%s\\n' "$word"; done; } >/run/shim.request
{ read -r status; cat; } </run/shim.answer
exit "$status"
"""
# What only changes files is the original's.
SYSTEMCTL = """#!/bin/sh
case " $* " in
  *" start "* | *" stop "* | *" restart "* | *" reload "* | *" status "* | *" is-active "* | *" is-enabled "* | \
    *" daemon-reload "*) exec systemctl.asked "$@" ;;
esac
exec systemctl.original "$@"
"""
JOURNALCTL = """#!/bin/sh
exec cat /var/log/agent.log
"""
# What an administrator answers when apt asks whether to go on.
APT = 'APT::Get::Assume-Yes "true";\n'


class Host:
    """A root file system without a kernel of its own: programs are run by chroot."""

    def __init__(self, root, node):
        self.root = pathlib.Path(root)
        self.requests = []
        self._node = node
        self.supervisor = None
        subprocess.run(["mmdebstrap", "--quiet", "--variant=minbase", "--include=init-system-helpers,systemd,curl", SUITE, self.root],
                       check=True, stdin=subprocess.DEVNULL)
        subprocess.run(["mount", "--bind", "/proc", self.root / "proc"], check=True)
        # The scripts speak to a service manager only where one runs.
        (self.root / "run/systemd/system").mkdir(parents=True, exist_ok=True)
        for pipe in ("request", "answer"):
            os.mkfifo(self.root / f"run/shim.{pipe}")
        systemctl = self.path("usr/bin/systemctl")
        systemctl.rename(systemctl.with_suffix(".original"))
        for name, script in {"systemctl": SYSTEMCTL, "systemctl.asked": SHIM, "rabbitmqctl": SHIM,
                             "rabbitmq-diagnostics": SHIM, "journalctl": JOURNALCTL}.items():
            self.put_script(name, script)
        self.path("etc/apt/apt.conf.d/90yes").write_text(APT, encoding="ascii")
        threading.Thread(target=self._serve, daemon=True).start()
        self.run("apt-get", "update", "-q")

    def run(self, *command):
        """Runs a command on the host; its output."""
        environment = {"PATH": "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin",
                       "DEBIAN_FRONTEND": "noninteractive"}
        done = subprocess.run(["chroot", self.root, *map(str, command)], env=environment, stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
        assert done.returncode == 0, f"{command}: status {done.returncode}\n{done.stdout}"
        return done.stdout

    def put_script(self, name, text):
        """Makes a program of the administrator's."""
        script = self.path(f"usr/bin/{name}")
        script.write_text(text, encoding="ascii")
        script.chmod(0o755)

    def follow(self, script, package=None):
        """Types the commands of a page, at root's home, with a package that was put there before."""
        inside = self.path(f"root/{package.name}") if package else None
        if package:
            shutil.copy(package, inside)
        try:
            return self.run("sh", "-exc", f"cd /root\n{script}")
        finally:
            if package:
                inside.unlink()

    def path(self, inside):
        return self.root / inside.lstrip("/")

    def owner(self, inside):
        """Owner, group and mode as text, for example root:qel 750."""
        return self.run("stat", "-c", "%U:%G %a", inside).strip()

    def user(self, name):
        """(uid, gid) of a user of the host."""
        return int(self.run("id", "-u", name)), int(self.run("id", "-g", name))

    def close(self):
        if self.supervisor:
            self.supervisor.close()
        subprocess.run(["umount", self.root / "proc"], check=True)

    def _serve(self):
        """Answers the shim, one request at a time."""
        while True:
            program, *words = self.path("run/shim.request").read_text(encoding="utf-8").splitlines()
            answer = (1, "")
            with contextlib.suppress(AssertionError, OSError):
                answer = self._answer(program, words)
            self.path("run/shim.answer").write_text("{}\n{}".format(*answer), encoding="utf-8")

    def _answer(self, program, words):
        """Does what a request wants; the exit status and the output."""
        if program != "systemctl.asked":
            done = self._node.tool(program, *words)
            return done.returncode, done.stdout + done.stderr
        self.requests.append(" ".join(words))
        return self._manage([word for word in words if not word.startswith("-")])

    def _manage(self, words):
        """What systemctl does."""
        verb = words[0]
        is_running = self.supervisor is not None and self.supervisor.is_running()
        if verb == "is-enabled":
            return 0, "enabled\n"
        if verb in ("is-active", "status"):
            return (0, "active\n") if is_running else (3, "inactive\n")
        if verb == "reload":
            self._reload()
        if verb in ("stop", "restart") and is_running:
            self.supervisor.stop()
        if verb in ("start", "restart"):
            self._start()
        return 0, ""

    def _reload(self):
        """SIGHUP, and waits until it is done: who comes next shall find what is new."""
        log = self.supervisor.log_file
        before = log.read_text(encoding="utf-8").count(RELOADED)
        self.supervisor.signal(signal.SIGHUP)
        wait_until(lambda: log.read_text(encoding="utf-8").count(RELOADED) > before, "the agent to reload", 30.0,
                   self.supervisor.log_tail)

    def _start(self):
        unit = Unit(self.root / UNIT)
        if not self.path(unit.get("ConditionPathExists", section="Unit")).exists():
            return
        self.supervisor = self.supervisor or Supervisor(self.root, self.user(unit.get("User")), unit)
        self.supervisor.start()
