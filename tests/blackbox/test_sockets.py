"""Applications' sockets: whose they are and who gets in."""

import os
import socket
import stat
import subprocess
import sys

PROBE = """
import socket, sys
one = socket.socket(socket.AF_UNIX)
one.settimeout(20)
try:
    one.connect(sys.argv[1])
    one.sendall(b"PRI * HTTP/2.0\\r\\n\\r\\nSM\\r\\n\\r\\n" + bytes(3) + b"\\x04" + bytes(5))
    got = one.recv(1)
except OSError as error:
    print("refused", type(error).__name__)
else:
    print("answered" if got else "closed")
"""


def probe(path, user=None):
    """Connects and says hello in HTTP/2, as another user when asked to: refused, closed, or answered."""
    as_user = ["setpriv", f"--reuid={user}", "--regid=nogroup", "--clear-groups"] if user else []
    done = subprocess.run([*as_user, sys.executable, "-c", PROBE, str(path)], capture_output=True, text=True,
                          timeout=60, check=True)
    return done.stdout.split()[0]


def open_up(agent, path):
    """Lets everybody through the folders to the socket, so that only the agent itself can refuse."""
    folder = path.parent
    while folder != agent.folder.parent.parent.parent:
        folder.chmod(0o755)
        folder = folder.parent


def test_have_mode_0660_and_the_configured_owner(world):
    agent = world.agent()
    status = os.stat(agent.socket("alpha"))
    assert stat.S_ISSOCK(status.st_mode)
    assert stat.S_IMODE(status.st_mode) == 0o660
    assert (status.st_uid, status.st_gid) == (os.getuid(), os.getgid())


def test_of_an_unattached_application_refuses_another_user(world):
    agent = world.agent()
    path = agent.socket("alpha")
    assert probe(path) == "answered", "the owner gets in"
    open_up(agent, path)
    assert probe(path, "nobody") == "refused", "the file's mode keeps others out"
    path.chmod(0o666)
    assert probe(path, "nobody") in ("refused", "closed"), "and so does the agent, whatever the mode"
    agent.wait_until(lambda: agent.log_lines(r"alpha.*\b65534\b|\b65534\b.*alpha"),
                     "a log line with the application and the uid that was refused")
    assert probe(path) == "answered", "the owner still gets in"


def test_of_another_users_application_lets_that_user_in(world):
    agent = world.agent(applications={"alpha": {"user": "nobody", "group": "nogroup"}})
    path = agent.socket("alpha")
    open_up(agent, path)
    assert probe(path, "nobody") == "answered"


def test_are_removed_when_the_agent_stops_and_made_again(world):
    agent = world.agent()
    path = agent.socket("alpha")
    assert agent.stop() == 0
    assert not path.exists()
    agent.start()
    world.attach(agent, "alpha")


def test_left_by_a_killed_agent_do_not_stop_the_next_one(world):
    agent = world.agent()
    agent.kill()
    assert agent.socket("alpha").exists()
    agent.start()
    world.attach(agent, "alpha")


def test_several_instances_share_an_applications_messages(world):
    agent, plane = world.agent(), world.plane()
    first = world.attach(agent, "alpha", instance="first", window=5)
    second = world.attach(agent, "alpha", instance="second", window=5)
    for number in range(10):
        plane.publish("", agent.client_queue, str(number).encode(), app_id="alpha")
    held = [first.next() for _ in range(5)] + [second.next() for _ in range(5)]
    assert sorted(int(delivery.body) for delivery in held) == list(range(10))


def test_what_a_leaving_instance_has_not_answered_goes_to_the_other(world):
    agent, plane = world.agent(), world.plane()
    first = world.attach(agent, "alpha", instance="first")
    plane.publish("", agent.client_queue, b"unanswered", app_id="alpha")
    assert first.next().body == b"unanswered"
    second = world.attach(agent, "alpha", instance="second")
    first.close()
    delivery = second.next()
    second.verdict(delivery, "done")
    assert delivery.body == b"unanswered"
    assert delivery.redelivered


def test_garbage_on_a_socket_disturbs_nobody(world):
    agent, plane = world.agent(), world.plane()
    alpha = world.attach(agent, "alpha")
    for garbage in (b"", b"\x00" * 4096, os.urandom(4096), b"GET / HTTP/1.1\r\n\r\n"):
        with socket.socket(socket.AF_UNIX) as one:
            one.connect(str(agent.socket("alpha")))
            one.sendall(garbage)
    plane.publish("", agent.client_queue, b"still served", app_id="alpha")
    assert alpha.take() == [b"still served"]
    assert agent.running()


def test_one_agent_a_state_directory(world):
    agent = world.agent()
    twin = world.agent(start=False)
    twin.config_file.write_text(agent.config_file.read_text(encoding="utf-8"), encoding="utf-8")
    twin.launch()
    assert twin.wait_for_exit() == 1
    assert "state is used by another qel-agent" in twin.log()
