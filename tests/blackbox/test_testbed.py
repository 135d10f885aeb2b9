"""The private broker of these tests, and what is left of it."""

import os
import pathlib
import signal
import socket
import ssl
import subprocess

import pika
import pytest

from support.certificates import Authority
from support.paths import ROOT
from testbed.processes import ProcessFailed, end, free_ports, spawn, wait_until
from testbed.rabbitnode import RabbitNode


def pids_that_mention(text):
    """The processes whose environment or command line holds the text."""
    found = set()
    for entry in pathlib.Path("/proc").iterdir():
        if entry.name.isdigit() and int(entry.name) != os.getpid():
            try:
                if text.encode() in (entry / "environ").read_bytes() + (entry / "cmdline").read_bytes():
                    found.add(int(entry.name))
            except OSError:
                continue  # it has just ended
    return found


def test_a_node_keeps_its_ports_and_data_and_leaves_no_process(session_folder):
    folder = session_folder / "own"
    with RabbitNode(folder, listeners=2) as own:
        ports = own.ports
        assert len(pids_that_mention(str(folder))) >= 2, "at least the node and its epmd"
        with pika.BlockingConnection(pika.URLParameters(own.url(port=ports[1]))) as connection:
            channel = connection.channel()
            channel.exchange_declare("x", "topic", durable=True)
            channel.queue_declare("q", durable=True)
            channel.queue_bind("q", "x", "a.#")
        own.kill()
        own.start()
        assert own.ports == ports
        assert own.list_bindings() == {("x", "q", "a.#")}
        assert own.list_queues()["q"]["messages"] == 0
    wait_until(lambda: not pids_that_mention(str(folder)), "the node's processes to be gone")


def test_nothing_survives_a_killed_owner(session_folder):
    marker = session_folder / "marker"
    script = f'echo "$QEL_TEST_RABBITMQCTL" >{marker}.new; mv {marker}.new {marker}; exec sleep 600'
    owner = spawn([ROOT / "tests" / "support" / "with_broker", "sh", "-c", script])
    wait_until(marker.exists, "the broker to be up", 90)
    folder = str(pathlib.Path(marker.read_text(encoding="utf-8").strip()).parent)
    assert pids_that_mention(folder)
    end(owner, signal.SIGKILL)
    wait_until(lambda: not pids_that_mention(folder), "all its processes to be gone")
    subprocess.run(["rm", "-rf", folder], check=True)


def test_with_broker_passes_the_status_on_and_removes_its_folder(tmp_path):
    report = tmp_path / "report"
    script = f'"$QEL_TEST_RABBITMQCTL" list_vhosts >{report}; echo "$QEL_TEST_RABBITMQCTL" >>{report}; exit 7'
    done = subprocess.run([ROOT / "tests" / "support" / "with_broker", "sh", "-c", script], timeout=120, check=False)
    assert done.returncode == 7
    lines = report.read_text(encoding="utf-8").splitlines()
    assert "/" in lines
    assert not pathlib.Path(lines[-1]).parent.exists()


def test_a_node_that_cannot_start_says_why(session_folder):
    with pytest.raises(ProcessFailed, match="failed_to_prepare_configuration"):
        RabbitNode(session_folder / "bad", config_lines=["nonsense = 3"]).start()
    assert not pids_that_mention(str(session_folder / "bad"))


def test_a_node_listens_with_tls(session_folder):
    files = session_folder / "tls"
    Authority(files).issue("server")
    with RabbitNode(session_folder / "secure", tls=files) as secure:
        context = ssl.create_default_context(cafile=str(files / "ca.pem"))
        options = pika.ConnectionParameters("localhost", secure.tls_port, ssl_options=pika.SSLOptions(context))
        with pika.BlockingConnection(options) as connection:
            assert connection.is_open


def test_a_port_that_somebody_else_takes_first_is_given_up(session_folder, monkeypatch):
    with socket.socket() as taken:
        taken.bind(("127.0.0.1", 0))
        taken.listen()
        tries = []

        def first_try_collides(count):
            ports = free_ports(count)
            if not tries:
                ports[-1] = taken.getsockname()[1]
            tries.append(ports)
            return ports

        monkeypatch.setattr("testbed.rabbitnode.free_ports", first_try_collides)
        with RabbitNode(session_folder / "collides") as own, \
                pika.BlockingConnection(pika.URLParameters(own.url())) as connection:
            assert connection.is_open
        assert len(tries) == 2
