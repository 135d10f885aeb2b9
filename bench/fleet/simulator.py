"""The simulated fleet as a process: its agents' configurations, its commands, its figures."""

import json
import subprocess
import time

from testbed.processes import ProcessFailed, end, spawn, tail

CONFIGURATION = """[agent]
id = "{name}"
[broker]
urls = {urls}
queue_type = "{queue_type}"
reassign_within_seconds = {window}
"""


class Fleet:
    """Many agents' broker sides in one process (qel_fleet); use it as a context manager.

    Everything about them that is not said here is an agent's default.
    """

    def __init__(self, program, folder, urls, agents, queue_type, topics, window):
        self.agents = agents
        self.topics = topics
        self.names = [f"fleet-{number:06d}" for number in range(agents)]
        self._log = folder / "fleet.log"
        folder.mkdir(parents=True)
        for name in self.names:
            (folder / f"{name}.toml").write_text(CONFIGURATION.format(
                name=name, urls=json.dumps(urls), queue_type=queue_type, window=window), encoding="utf-8")
        with open(self._log, "wb") as log:
            self._process = spawn([program, folder, "--topics", topics], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                  stderr=log, text=True)
        assert self._answer()["agents"] == agents

    def __enter__(self):
        return self

    def __exit__(self, *_):
        end(self._process)
        self._process.stdin.close()
        self._process.stdout.close()

    @property
    def pid(self):
        return self._process.pid

    def start(self, within=0.0):
        """Starts the agents, evenly over the time. Does not wait until they serve."""
        self._command(f"start {within}")

    def stop(self):
        """Ends the agents in order, as agents end with their hosts."""
        self._command("stop")
        self._process.wait(60)

    def figures(self):
        """What each agent has lived through."""
        return self._command("figures")

    def wait(self, condition, what, progress, patience):
        """Polls until `condition` holds for every agent's figures; returns these. @raises ProcessFailed"""
        deadline = time.monotonic() + patience
        while True:
            figures = self.figures()
            done = sum(map(condition, figures))
            progress(what, done, self.agents)
            if done == self.agents:
                return figures
            if time.monotonic() > deadline:
                errors = {one["last_error"] for one in figures if not condition(one)}
                raise ProcessFailed(f"{what}: {done} of {self.agents} agents after {patience:.0f} s; the others say "
                                    f"{sorted(errors)[:5]}\n{self.log_tail()}")
            time.sleep(0.25)

    def log_tail(self):
        return tail(self._log, 20)

    def _command(self, line):
        self._process.stdin.write(line + "\n")
        self._process.stdin.flush()
        return self._answer()

    def _answer(self):
        line = self._process.stdout.readline()
        if not line:
            raise ProcessFailed(f"the simulated fleet has ended\n{self.log_tail()}")
        return json.loads(line)
