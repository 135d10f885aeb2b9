"""What hostile input costs the agent: its resident memory before, at the peak and afterwards, and its answers meanwhile."""

import contextlib
import pathlib
import re
import threading
import time

from testbed.processes import wait_until

from . import figures
from .plane import ManagementPlane

MIB = 1024 * 1024
TOLERANCE = 8 * MIB
# The aim is 10 s; the limit is generous because other tests share the machine. What it took is among the figures.
PATIENCE = 30.0

OUR_LINE = re.compile(r"\d{4}-\d\d-\d\dT[0-9:.]+[+-]\d\d:\d\d "
                      r"(fatal|error|status|warning|notice|detail|debug) qel( errorCode:\w+)?"
                      r"( \[[^\x00-\x1f\x7f-\x9f]*\])?: [^\x00-\x1f\x7f-\x9f]*")


def resident(pid):
    """The process's resident memory in bytes."""
    return _status(pid, "VmRSS")


def _status(pid, field):
    for line in pathlib.Path(f"/proc/{pid}/status").read_text(encoding="ascii").splitlines():
        if line.startswith(field + ":"):
            return int(line.split()[1]) * 1024
    raise AssertionError(f"/proc/{pid}/status has no {field}")


class _Pinger:
    """Pings the agent again and again from a thread of its own; `seconds` has how long each answer took."""

    def __init__(self, agent, url):
        self.seconds = []
        self.error = None
        self._agent = agent
        self._url = url
        self._ended = threading.Event()
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def _run(self):
        try:
            with ManagementPlane(self._url) as plane:
                while not self._ended.wait(0.1):
                    self.seconds.append(plane.ping(self._agent, patience=60.0)[2])
        except BaseException as error:  # pylint: disable=broad-except
            self.error = error

    def end(self):
        self._ended.set()
        self._thread.join(90)
        assert not self.error, f"a ping failed meanwhile: {self.error}"
        return self.seconds


@contextlib.contextmanager
def measured(agent, row, url=None):
    """Runs the block, asserts that the agent's memory comes back to what it was before, and notes the row's figures.

    url  the broker's, to ping the agent meanwhile; every ping must be answered
    """
    before = resident(agent.pid)
    # Resets the peak (VmHWM).
    pathlib.Path(f"/proc/{agent.pid}/clear_refs").write_text("5", encoding="ascii")
    pinger = _Pinger(agent, url) if url else None
    try:
        yield
    finally:
        pings = pinger.end() if pinger else []
    ended = time.monotonic()
    try:
        wait_until(lambda: resident(agent.pid) <= before + TOLERANCE,
                   f"the agent's memory to come back to {before / MIB:.1f} MiB plus {TOLERANCE / MIB:.0f}", PATIENCE,
                   lambda: f"it has {resident(agent.pid) / MIB:.1f} MiB\n{agent.log_tail()}")
    finally:
        figures.note(row, f"RSS {before / MIB:.1f} before, {_status(agent.pid, 'VmHWM') / MIB:.1f} peak, "
                          f"{resident(agent.pid) / MIB:.1f} MiB {time.monotonic() - ended:.1f} s after"
                          + (f"; {len(pings)} pings, longest {max(pings) * 1000:.0f} ms" if pings else ""))


def assert_log_is_ours(agent):
    """Asserts that every line of the agent's log is one that it meant to write, and of bounded length."""
    for line in agent.log_file.read_bytes().removesuffix(b"\n").split(b"\n"):
        assert OUR_LINE.fullmatch(line.decode("utf-8")), f"not a line of the agent's: {line[:500]!r}"
        assert len(line) < 20000
