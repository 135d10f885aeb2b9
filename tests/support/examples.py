"""The programs of examples/ as processes."""

import os
import pathlib
import subprocess

from testbed.processes import end, spawn, tail, wait_until

from .paths import PROTO_ROOT, ROOT
from .schema import applications

EXAMPLES = ROOT / "examples"
# Where the build has put the C++ ones, and where the generated messages for Python are.
BUILT = pathlib.Path(os.environ.get("QEL_EXAMPLES", ROOT / "build/dev/examples/cpp"))
STUBS = pathlib.Path(applications.__file__).parents[3]

COMMANDS = {
    "cpp": lambda name: [BUILT / name],
    "python": lambda name: ["/usr/bin/python3", "-B", EXAMPLES / "python" / f"{name}.py"],
    "nodejs": lambda name: ["node", EXAMPLES / "nodejs" / f"{name}.js"],
}


class Example:
    """One example, run for an application of an agent: COMMANDS[language](name) and its arguments.

    further  variables of its environment
    feed() writes lines to its input; `lines()` has what it has printed so far.
    """

    def __init__(self, agent, command, folder=None, further=None):
        self._agent = agent
        self._output = agent.folder / f"example-{id(self)}.out"
        self._errors = self._output.with_suffix(".err")
        environment = {**os.environ, "QEL_RUNTIME_DIRECTORY": str(agent.runtime_directory), "PYTHONPATH": str(STUBS),
                       "QEL_PROTO": str(PROTO_ROOT), **(further or {})}
        with open(self._output, "wb") as output, open(self._errors, "wb") as errors:
            self._process = spawn(command, stdin=subprocess.PIPE, stdout=output, stderr=errors, env=environment,
                                  cwd=folder)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        end(self._process)
        self._process.stdin.close()

    def feed(self, *lines):
        for line in lines:
            self._process.stdin.write(line.encode() + b"\n")
        self._process.stdin.flush()

    def lines(self):
        """Every complete line it has printed."""
        text = self._output.read_text(encoding="utf-8")
        return text[:text.rfind("\n") + 1].splitlines()

    def wait_for(self, *lines):
        """Waits until it has printed these, among others, in any order."""
        self.wait_until(lambda: set(lines) <= set(self.lines()), f"{lines[-1]!r} and {len(lines) - 1} more lines")

    def wait_until(self, condition, what):
        """Waits until what depends on it holds; not when it has ended."""
        def holds():
            ended = self._process.poll() is not None
            value = condition()
            assert value or not ended, f"it has ended before {what}\n{self.diagnose()}"
            return value

        wait_until(holds, what, 60.0, self.diagnose)

    def finish(self):
        """Ends its input; the exit status when it has ended by itself."""
        self._process.stdin.close()
        return self._process.wait(60.0)

    def stop(self):
        """SIGTERM; the exit status, None when it had to be killed."""
        return end(self._process)

    def diagnose(self):
        return f"--- {self._output.stem}\n{tail(self._output)}{tail(self._errors)}{self._agent.log_tail()}"
