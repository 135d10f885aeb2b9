"""A Debian 12 in a folder, whose service manager is our small supervisor."""

import contextlib
import os
import pathlib
import shutil
import subprocess
import threading

from support.supervisor import Supervisor
from support.unit import Unit

SUITE = "bookworm"
UNIT = "lib/systemd/system/qel-agent.service"

# What the package's scripts call instead of systemd's own: it hands a request to a running manager over and waits for
# the answer. What only changes files is the original's.
SYSTEMCTL = """#!/bin/sh
case " $* " in
  *" start "* | *" stop "* | *" restart "* | *" is-active "* | *" is-enabled "* | *" daemon-reload "*) ;;
  *) exec systemctl.original "$@" ;;
esac
echo "$*" >/run/systemctl.request
read -r status text </run/systemctl.answer
[ -z "$text" ] || echo "$text"
exit "$status"
"""


class Host:
    """A root file system without a kernel of its own: programs are run by chroot."""

    def __init__(self, root):
        self.root = pathlib.Path(root)
        self.requests = []
        self.supervisor = None
        subprocess.run(["mmdebstrap", "--quiet", "--variant=minbase", "--include=init-system-helpers,systemd", SUITE, self.root],
                       check=True, stdin=subprocess.DEVNULL)
        subprocess.run(["mount", "--bind", "/proc", self.root / "proc"], check=True)
        # The scripts speak to a service manager only where one runs.
        (self.root / "run/systemd/system").mkdir(parents=True, exist_ok=True)
        for pipe in ("request", "answer"):
            os.mkfifo(self.root / f"run/systemctl.{pipe}")
        shim = self.root / "usr/bin/systemctl"
        shim.rename(shim.with_suffix(".original"))
        shim.write_text(SYSTEMCTL, encoding="ascii")
        shim.chmod(0o755)
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

    def install(self, package):
        """Installs or upgrades to a package that lies outside."""
        inside = self.root / "tmp" / package.name
        shutil.copy(package, inside)
        try:
            return self.run("apt-get", "install", "-y", "-q", "--no-install-recommends", f"/tmp/{package.name}")
        finally:
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
            request = self.path("run/systemctl.request").read_text(encoding="utf-8").strip()
            self.requests.append(request)
            answer = "1"
            with contextlib.suppress(AssertionError, OSError):
                answer = self._handle([word for word in request.split() if not word.startswith("-")])
            self.path("run/systemctl.answer").write_text(f"{answer}\n", encoding="ascii")

    def _handle(self, words):
        """Does what a request wants; the exit status and the output."""
        verb = words[0]
        is_running = self.supervisor is not None and self.supervisor.is_running()
        if verb == "is-enabled":
            return "0 enabled"
        if verb == "is-active":
            return "0 active" if is_running else "3 inactive"
        if verb in ("stop", "restart") and is_running:
            self.supervisor.stop()
        if verb in ("start", "restart"):
            self._start()
        return "0"

    def _start(self):
        unit = Unit(self.root / UNIT)
        if not self.path(unit.get("ConditionPathExists", section="Unit")).exists():
            return
        self.supervisor = self.supervisor or Supervisor(self.root, self.user(unit.get("User")), unit)
        self.supervisor.start()
