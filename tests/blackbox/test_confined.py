"""The agent as the packaged unit runs it: a user of its own without privileges, under the unit's system call filter.

A system call that the filter refuses kills the agent here, so every test that passes shows that what it does needs none.
"""

import os
import pwd
import signal
import subprocess
import sys

import pytest

from support.paths import ROOT

AGENT_USER = "daemon"
APPLICATION_USER = "games"
STRANGER = "nobody"


class Confined:
    """Where the agent runs: see support/confined.py."""

    @staticmethod
    def command(command):
        return [ROOT / "tests/support/confined.py", AGENT_USER, *command]


@pytest.fixture
def agent(world):
    made = world.agent(applications={"alpha": {"user": APPLICATION_USER, "group": APPLICATION_USER}}, start=False,
                       side=Confined)
    account = pwd.getpwnam(AGENT_USER)
    for folder in (made.folder / "state", made.runtime_directory):
        os.chown(folder, account.pw_uid, account.pw_gid)
    for folder in (made.folder, *made.folder.parents[:-2]):
        folder.chmod(0o755)
    made.start()
    return made


def can_connect(user, path):
    """Whether a user may connect to a Unix socket, by the kernel's word."""
    script = "import socket, sys; socket.socket(socket.AF_UNIX).connect(sys.argv[1])"
    account = pwd.getpwnam(user)
    done = subprocess.run([sys.executable, "-c", script, path], user=account.pw_uid, group=account.pw_gid,
                          extra_groups=[], capture_output=True, text=True, check=False)
    assert done.returncode == 0 or "PermissionError" in done.stderr, done.stderr
    return done.returncode == 0


def test_the_main_path(world, agent):
    plane = world.plane()
    alpha = world.attach(agent, "alpha")
    plane.configure(agent, "alpha", topics=["a.one"], queues=[f"alpha.{agent.agent_id}"])
    alpha.wait_for_state("APPLIED", ["a.one"])
    plane.publish(agent.exchange, "a.one", b"by topic")
    plane.publish("", f"alpha.{agent.agent_id}", b"by queue")
    assert sorted(alpha.take(2)) == [b"by queue", b"by topic"]
    assert plane.ping(agent)
    agent.signal(signal.SIGHUP)
    agent.wait_for_log("configuration read again")
    agent.signal(signal.SIGTERM)
    assert agent.wait_for_exit() == 0


def test_a_socket_is_its_applications_alone(agent):
    path = agent.socket("alpha")
    assert can_connect(APPLICATION_USER, path)
    assert not can_connect(STRANGER, path)


def test_sockets_left_behind_are_replaced(agent):
    agent.signal(signal.SIGKILL)
    agent.wait_for_exit()
    assert agent.socket("alpha").exists()
    agent.start()
    assert can_connect(APPLICATION_USER, agent.socket("alpha"))
