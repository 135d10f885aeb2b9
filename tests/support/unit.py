"""The packaged systemd unit, read as systemd reads it."""

import pathlib
import shlex
import signal
import subprocess

from .paths import ROOT

UNIT = ROOT / "packaging/debian/qel-agent.service"


class Unit:
    """One unit file: its settings by section, and what of systemd's rules the tests need."""

    def __init__(self, path=UNIT):
        self.path = pathlib.Path(path)
        self._sections = {}
        section = None
        for line in map(str.strip, self.path.read_text(encoding="utf-8").splitlines()):
            if line.startswith("["):
                section = self._sections.setdefault(line.strip("[]"), {})
            elif "=" in line and line[0] not in "#;":
                name, _, value = line.partition("=")
                section.setdefault(name, []).append(value)

    def all(self, name, section="Service"):
        """Every value of a setting, in the file's order."""
        return self._sections.get(section, {}).get(name, [])

    def get(self, name, default=None, section="Service"):
        """A setting that counts once: its last value."""
        return (self.all(name, section) or [default])[-1]

    def command(self):
        """ExecStart as a list."""
        return shlex.split(self.get("ExecStart"))

    def restarts_after(self, status):
        """Whether systemd starts the service again when it ends so (systemd.service(5), table of Restart=).

        status  as Popen.returncode has it: negative for a signal
        """
        if str(status) in " ".join(self.all("RestartPreventExitStatus")).split():
            return False
        clean = status == 0 or -status in (signal.SIGHUP, signal.SIGINT, signal.SIGTERM, signal.SIGPIPE)
        return {"always": True, "on-success": clean, "on-failure": not clean, "on-abnormal": status < 0 and not clean,
                "on-abort": status < 0 and not clean}.get(self.get("Restart", "no"), False)

    def allowed_calls(self):
        """What the SystemCallFilter lines allow: a line with ~ takes away again."""
        allowed = set()
        for line in self.all("SystemCallFilter"):
            calls = set().union(*map(_calls_of, line.lstrip("~").split()))
            allowed = allowed - calls if line.startswith("~") else allowed | calls
        return allowed


def _calls_of(name):
    """The system calls of a name or, recursively, of a group, as systemd knows them."""
    if not name.startswith("@"):
        return {name}
    listed = subprocess.run(["systemd-analyze", "syscall-filter", "--no-pager", name], check=True, capture_output=True,
                            text=True).stdout.splitlines()
    return set().union(*(_calls_of(line.strip()) for line in listed[1:]
                         if line.startswith("    ") and not line.strip().startswith("#")))
