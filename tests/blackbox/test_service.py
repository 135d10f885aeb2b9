"""What the agent tells a service manager, by a real notify socket, and that a hung thread is not reported as alive."""

import contextlib
import os
import pathlib
import signal
import socket
import subprocess
import sys

import pytest

from support.unit import Unit

# Stops the thread of its argument until its standard input ends; ptrace.h has the numbers of SEIZE and INTERRUPT.
TRACER = """
import ctypes, sys
libc = ctypes.CDLL(None, use_errno=True)
for request in (0x4206, 0x4207):
    if libc.ptrace(request, int(sys.argv[1]), None, None) != 0:
        sys.exit(f"ptrace: error {ctypes.get_errno()}")
print("stopped", flush=True)
sys.stdin.read()
"""


class NotifySocket:
    """A service manager's end of sd_notify(3): collects what comes."""

    def __init__(self, path):
        self.path = str(path)
        self.lines = []
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._socket.bind(self.path)
        self._socket.setblocking(False)

    def received(self, line):
        """Whether a line that starts so has come since the last clear()."""
        with contextlib.suppress(BlockingIOError):
            while True:
                self.lines += self._socket.recv(65536).decode("utf-8").splitlines()
        return any(known.startswith(line) for known in self.lines)

    def clear(self):
        self.received("")
        self.lines.clear()

    def close(self):
        self._socket.close()


@pytest.fixture
def manager(monkeypatch, session_folder):
    made = NotifySocket(session_folder / f"notify{os.urandom(3).hex()}")
    monkeypatch.setenv("NOTIFY_SOCKET", made.path)
    yield made
    made.close()


def test_ready_reload_stop(world, manager):
    agent = world.agent()
    agent.wait_until(lambda: manager.received("READY=1"), "READY=1")
    agent.wait_until(lambda: manager.received("STATUS=consuming " + agent.client_queue), "the state")
    manager.clear()
    agent.signal(signal.SIGHUP)
    agent.wait_until(lambda: manager.received("READY=1"), "READY=1 after the reload")
    assert manager.lines.index("RELOADING=1") < manager.lines.index("READY=1")
    assert any(line.startswith("MONOTONIC_USEC=") for line in manager.lines)
    agent.signal(signal.SIGTERM)
    assert agent.wait_for_exit() == 0
    assert manager.received("STOPPING=1")


def test_ready_without_a_broker(lonely_world, manager):
    node = lonely_world.own_node()
    node.stop()
    agent = lonely_world.agent(start=False)
    agent.launch()
    agent.wait_until(lambda: manager.received("READY=1"), "READY=1")
    assert not manager.received("STATUS=consuming")


def thread_of(pid, name):
    """The id of the process's thread of this name."""
    [found] = [int(task.name) for task in pathlib.Path(f"/proc/{pid}/task").iterdir()
               if (task / "comm").read_text(encoding="ascii").strip() == name]
    return found


@contextlib.contextmanager
def stopped_thread(thread):
    """Stops one thread of a process for as long as the block lasts, from a process that traces it."""
    tracer = subprocess.Popen([sys.executable, "-c", TRACER, str(thread)], stdin=subprocess.PIPE,
                              stdout=subprocess.PIPE)
    try:
        assert tracer.stdout.readline() == b"stopped\n"
        yield
    finally:
        tracer.kill()
        tracer.wait()


def test_the_watchdog_is_fed_until_the_links_thread_hangs(world, manager, monkeypatch):
    monkeypatch.setenv("WATCHDOG_USEC", "2000000")
    agent = world.agent()
    for _ in range(3):
        manager.clear()
        agent.wait_until(lambda: manager.received("WATCHDOG=1"), "the watchdog to be fed")
    with stopped_thread(thread_of(agent.pid, "qel-link")):
        agent.wait_for_log("thread link does not get on")
        manager.clear()
        position = len(agent.log())
        agent.wait_for_log("thread link does not get on", start=position)
        assert not manager.received("WATCHDOG=1")
    agent.wait_until(lambda: manager.received("WATCHDOG=1"), "the watchdog to be fed again")


@pytest.mark.parametrize("status, again", [
    # A refused unbind ends the agent so, to be started afresh.
    (0, True),
    (1, True),
    (-signal.SIGKILL, True),
    (-signal.SIGABRT, True),
    # The configuration is wrong.
    (78, False)])
def test_the_unit_starts_the_agent_again(status, again):
    unit = Unit()
    assert unit.restarts_after(status) == again
    assert unit.get("StartLimitIntervalSec", section="Unit") == "0"


def test_the_unit_is_sound_and_confined():
    unit = Unit()
    assert unit.get("Type") == "notify"
    assert int(unit.get("WatchdogSec")) > 0
    analysed = subprocess.run(["systemd-analyze", "security", "--offline=true", "--threshold=15", "--no-pager",
                               unit.path], capture_output=True, text=True, check=False)
    assert analysed.returncode == 0, analysed.stdout
