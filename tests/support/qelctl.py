"""qelctl's verbs that stay, as processes."""

import json
import signal
import subprocess
import uuid

from testbed.processes import end, spawn, tail, wait_until

from .paths import program


class QelctlProcess:
    """`qelctl --json VERB ...`; `lines()` has the JSON objects it has printed."""

    def __init__(self, folder, verb, *arguments):
        self._verb = verb
        self._output = folder / f"{verb}-{uuid.uuid4().hex[:8]}.out"
        self._errors = self._output.with_suffix(".err")
        with open(self._output, "wb") as output, open(self._errors, "wb") as errors:
            self._process = spawn([program("qelctl"), "--json", verb, *arguments], stdout=output, stderr=errors)

    @property
    def pid(self):
        return self._process.pid

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def lines(self):
        """Every complete line it has printed, decoded."""
        text = self._output.read_text(encoding="utf-8")
        return [json.loads(line) for line in text[:text.rfind("\n") + 1].splitlines()]

    def wait_for(self, condition, what, patience=30.0):
        """The first line for which the condition holds."""
        return wait_until(lambda: next((line for line in self.lines() if condition(line)), None), what, patience,
                          self.diagnose)

    def wait_for_exit(self, patience=30.0):
        try:
            return self._process.wait(patience)
        except subprocess.TimeoutExpired:
            raise AssertionError(f"qelctl {self._verb} did not end within {patience} s\n{self.diagnose()}") from None

    def end(self, how=signal.SIGTERM, patience=10.0):
        """Signals it; the exit status, or None when it had to be killed."""
        return end(self._process, how, patience)

    def errors(self):
        return self._errors.read_text(encoding="utf-8")

    def diagnose(self):
        return f"--- qelctl {self._verb}\n{tail(self._output)}{tail(self._errors)}"

    def close(self):
        self.end()
