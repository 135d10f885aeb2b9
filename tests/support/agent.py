"""The agent's process with its configuration, in a folder of its own."""

import getpass
import grp
import os
import pathlib
import re
import signal

from testbed.processes import end, spawn, tail, wait_until

from .paths import program


def toml(value):
    """A value as TOML writes it."""
    if isinstance(value, bool):
        return "true" if value else "false"
    if isinstance(value, int):
        return str(value)
    if isinstance(value, (list, tuple)):
        return "[" + ", ".join(map(toml, value)) + "]"
    escaped = str(value).replace("\\", "\\\\").replace('"', '\\"')
    return f'"{escaped}"'


def write_toml(path, tables):
    """Writes {"table": {"key": value}} as a TOML file; the table "" holds the keys before the first header."""
    lines = []
    for name, keys in tables.items():
        if name:
            lines.append(f"[{name}]")
        lines += [f"{key} = {toml(value)}" for key, value in keys.items()]
    pathlib.Path(path).write_text("\n".join(lines) + "\n", encoding="utf-8")


class AgentProcess:
    """One agent: `qel-agent run --config FILE`, everything it needs below `folder`.

    agent = AgentProcess(folder, "a1", node.url(), applications={"billing": {"window": 10}})
    agent.start()                      # returns when the agent has said that it is ready
    agent.stop()                       # SIGTERM; the exit status

    options       further keys by table, for example {"broker": {"queue_type": "classic"}}; they override ours
    applications  drop-ins by name; user and group default to the caller's
    side          where the process runs: something with command(), such as support.network.Namespace; else here
    The log is collected over all starts; log() has it, and every failed wait shows its end.
    """

    def __init__(self, folder, agent_id, urls, options=None, applications=None, side=None):
        self._side = side
        self.folder = pathlib.Path(folder)
        self.agent_id = agent_id
        self.client_queue = f"qel.client.{agent_id}"
        self.priority_queue = f"qel.priority.{agent_id}"
        self.dead_letter_queue = f"{self.client_queue}.dead"
        self.exchange = f"qel.{agent_id}"
        self.runtime_directory = self.folder / "run"
        self.applications_directory = self.folder / "apps.d"
        self.config_file = self.folder / "qel.toml"
        self.log_file = self.folder / "agent.log"
        self._process = None
        self._starts = 0
        for directory in (self.runtime_directory, self.applications_directory, self.folder / "state"):
            directory.mkdir(parents=True, exist_ok=True)
        for name, keys in (applications or {}).items():
            self.add_application(name, **keys)
        self.write_config([urls] if isinstance(urls, str) else list(urls), options or {})

    def write_config(self, urls, options):
        """Writes the configuration file; takes effect at the next start."""
        tables = {
            "agent": {"id": self.agent_id, "state_directory": self.folder / "state",
                      "runtime_directory": self.runtime_directory},
            "broker": {"urls": urls, "exchange": self.exchange, "exchange_type": "topic"},
            "applications": {"directory": self.applications_directory},
            "log": {"level": 6},
        }
        for table, keys in options.items():
            tables.setdefault(table, {}).update(keys)
        write_toml(self.config_file, tables)

    def add_application(self, name, **keys):
        """Writes a drop-in; takes effect at the next start or SIGHUP."""
        owner = {"user": getpass.getuser(), "group": grp.getgrgid(os.getgid()).gr_name}
        write_toml(self.applications_directory / f"{name}.toml", {"": {**owner, **keys}})

    def socket(self, application):
        """The path of an application's socket."""
        return self.runtime_directory / "apps" / f"{application}.sock"

    @property
    def pid(self):
        return self._process.pid

    def launch(self):
        """Starts the process without waiting for anything."""
        self._starts += 1
        command = [program("qel-agent"), "run", "--config", self.config_file]
        with open(self.log_file, "ab") as log:
            self._process = spawn(self._side.command(command) if self._side else command, stdout=log, stderr=log)

    def start(self, patience=30.0):
        """Starts the process and waits until it is ready."""
        self.launch()
        self.wait_until(lambda: self.log().count("qel-agent is ready") >= self._starts, "the agent to be ready",
                        patience)

    def wait_until(self, condition, what, patience=30.0):
        """Polls as processes.wait_until does, shows the log's end on failure, and fails at once when the agent ends."""
        def alive_and_condition():
            value = condition()
            if not value and self._process.poll() is not None:
                value = condition()
                assert value, (f"the agent ended with status {self._process.returncode} while a test waited for "
                               f"{what}\n{self.log_tail()}")
            return value

        return wait_until(alive_and_condition, what, patience, self.log_tail)

    def wait_for_log(self, text, patience=30.0, start=0):
        """Waits for a text in the log from position `start` on."""
        self.wait_until(lambda: text in self.log()[start:], f"the log to say {text!r}", patience)

    def wait_for_exit(self, patience=30.0):
        """Waits for the process to end by itself; its exit status."""
        return wait_until(lambda: (self._process.poll() is not None, self._process.returncode)
                          if self._process.poll() is not None else None,
                          "the agent to end", patience, self.log_tail)[1]

    def running(self):
        return self._process is not None and self._process.poll() is None

    def signal(self, number):
        self._process.send_signal(number)

    def stop(self, patience=20.0):
        """SIGTERM; the exit status, None when it had to be killed after `patience` seconds."""
        return end(self._process, signal.SIGTERM, patience) if self._process else None

    def kill(self):
        """SIGKILL, as a crash."""
        if self._process:
            end(self._process, signal.SIGKILL)

    def log(self):
        """Everything the agent has written, over all starts."""
        try:
            return self.log_file.read_text(encoding="utf-8", errors="replace")
        except FileNotFoundError:
            return ""

    def log_lines(self, pattern):
        """The log's lines in which the regular expression is found."""
        return [line for line in self.log().splitlines() if re.search(pattern, line)]

    def log_tail(self, lines=60):
        return f"--- the agent's log ({self.log_file})\n{tail(self.log_file, lines)}"
