"""Applications' sockets: whose they are and who gets in."""

import collections
import os
import socket
import stat
import subprocess
import sys
import threading

import grpc
import pytest

from support import schema
from support.application import call_with_bytes
from support.client import qel_client

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


def test_an_instance_that_wants_to_go_answers_what_it_has_and_gets_nothing_more(world):
    agent, plane = world.agent(), world.plane()
    first = world.attach(agent, "alpha", instance="first", window=2)
    for body in (b"1", b"2", b"3"):
        plane.publish("", agent.client_queue, body, app_id="alpha", message_id="m" + body.decode())
    held = [first.next(), first.next()]
    first.ask_to_leave()
    second = world.attach(agent, "alpha", instance="second")
    last = second.next()
    assert (last.body, last.redelivered) == (b"3", False)
    first.verdict(held[0], "done")
    first.verdict(held[1], "retry")
    assert first.wait_until_ended() is True
    again = second.next()
    assert (again.body, again.redelivered, again.tries) == (b"2", True, 1)
    assert again.idempotency_key == held[1].idempotency_key == "alpha/m2"
    assert first.pending() == 0


class Worker:
    """An instance that answers on a thread of its own and writes down what it works on, in order."""

    def __init__(self, world, agent, work):
        self.application = world.attach(agent, "alpha", window=5)
        assert self.application.welcome.ordering_key == "header:customer"
        self.leaves = self._crashes = False
        self._work = work
        self._thread = threading.Thread(target=self._run)
        self._thread.start()

    def leave(self):
        self.leaves = True
        self.application.ask_to_leave()
        assert self.application.wait_until_ended() is True
        self._end()

    def crash(self):
        self.leaves = self._crashes = True
        self._end()
        self.application.close()

    def _end(self):
        self.application.received(None)
        self._thread.join(30)

    def _run(self):
        while (delivery := self.application.next(120)) is not None and not self._crashes:
            customer = next(header.value.text for header in delivery.properties.headers)
            self._work.append((customer, int(delivery.body), self))
            self.application.verdict(delivery, "done")


class ClientWorker:
    """An instance made with the client for Python, which writes down what it works on."""

    def __init__(self, _, agent, work):
        self.leaves = False
        self._work = work
        self._welcomes = []
        self._client = qel_client.Client("alpha", socket=agent.socket("alpha"), window=5,
                                         on_welcome=self._welcomes.append)
        self._thread = threading.Thread(target=self._client.run, args=(self._take,))
        self._thread.start()
        agent.wait_until(lambda: self._welcomes, "an instance to be welcomed")
        assert self._welcomes[0].ordering_key == "header:customer"

    def leave(self):
        self.leaves = True
        self._client.stop()
        self._thread.join(60)
        assert not self._thread.is_alive()
        self._client.close()

    def _take(self, message):
        self._work.append((message.headers["customer"], int(message.body), self))


CUSTOMERS = [f"customer {number}" for number in range(7)]


@pytest.mark.parametrize("kind, end", [(Worker, "leave"), (Worker, "crash"), (ClientWorker, "leave")])
def test_a_rolling_restart_of_two_instances_loses_nothing_and_keeps_each_customers_order(world, kind, end):
    agent = world.agent(applications={"alpha": {"ordering_key": "header:customer"}})
    work, published = [], 0
    workers = [kind(world, agent, work), kind(world, agent, work)]

    def publish(count):
        nonlocal published
        customers = CUSTOMERS + [f"new at {published + number}" for number in range(4)]
        for number in range(published, published + count):
            plane.publish("", agent.client_queue, str(number).encode(), app_id="alpha",
                          headers={"customer": customers[number % len(customers)]})
        published += count

    with world.plane() as plane:
        for old in list(workers):
            publish(100)
            getattr(old, end)()
            publish(100)
            workers.append(kind(world, agent, work))
        publish(100)
        agent.wait_until(lambda: {number for _, number, _ in work} == set(range(published)), "everything to be done")
    for worker in workers[2:]:
        worker.leave()
    assert len(workers) == 4 and len({worker for _, _, worker in work}) == 4
    if end == "leave":
        assert len(work) == published, "nothing twice"
    check_order(work)


def check_order(work):
    """Each customer's messages were begun in order, and by another instance only when that of before was to go."""
    begun, by = collections.defaultdict(list), {}
    for customer, number, worker in work:
        if number not in begun[customer]:
            begun[customer].append(number)
        before = by.setdefault(customer, worker)
        assert before is worker or before.leaves
        by[customer] = worker
    assert all(numbers == sorted(numbers) for numbers in begun.values())


def test_a_program_made_from_the_first_interface_works(world):
    agent, plane = world.agent(), world.plane()
    alpha = world.attach(agent, "alpha", messages=schema.first_applications)
    plane.configure(agent, "alpha", topics=["a.one"])
    alpha.wait_for_state("APPLIED", ["a.one"])
    plane.publish(agent.exchange, "a.one", b"again", message_id="m1")
    delivery = alpha.next()
    assert delivery.properties.message_id == b"m1"
    alpha.verdict(delivery, "retry")
    alpha.verdict(alpha.next(), "done")
    plane.publish(agent.exchange, "a.one", b"through")
    assert alpha.take() == [b"through"]
    assert alpha.ended is None


def test_nothing_of_the_first_interface_has_changed():
    first, now = (dict(messages(module.DESCRIPTOR)) for module in (schema.first_applications, schema.applications))
    for name, message in first.items():
        for field in message.fields:
            same = now[name].fields_by_number[field.number]
            assert (same.name, same.type, same.label) == (field.name, field.type, field.label)
            assert (same.message_type and same.message_type.name) == (field.message_type and field.message_type.name)
        for values in message.enum_types:
            for value in values.values:
                assert now[name].enum_types_by_name[values.name].values_by_name[value.name].number == value.number
    methods, before = (module.DESCRIPTOR.services_by_name["Applications"].methods_by_name
                       for module in (schema.applications, schema.first_applications))
    assert {name: (methods[name].input_type.name, methods[name].output_type.name) for name in before} == {
        name: (one.input_type.name, one.output_type.name) for name, one in before.items()}


def messages(file):
    """Every message of a file, by name."""
    return file.message_types_by_name.items()


def test_requests_that_are_none_are_refused_and_disturb_nobody(world):
    agent, plane = world.agent(), world.plane()
    alpha = world.attach(agent, "alpha")
    hello, oversized = b"\x0a\x00", bytes(17 << 20)
    for method, data, code, text in [
            ("Attach", b"\x0a\x03\x0a\x01\xff", "INVALID_ARGUMENT", "UTF-8"),
            ("Attach", b"\xff\xff", "INVALID_ARGUMENT", ".proto"),
            ("Attach", oversized, "RESOURCE_EXHAUSTED", "larger than max"),
            ("Publish", b"\x0a\x01\xff", "INVALID_ARGUMENT", "UTF-8"),
            ("Publish", oversized, "RESOURCE_EXHAUSTED", "larger than max"),
            ("RequestConfiguration", b"\xff", "INVALID_ARGUMENT", ".proto"),
            ("Detach", b"", "UNIMPLEMENTED", "")]:
        error = call_with_bytes(agent, "alpha", method, data)
        assert (error.code(), method) == (grpc.StatusCode[code], method)
        assert text in error.details()
    assert call_with_bytes(agent, "alpha", "Attach", hello) is None
    plane.publish("", agent.client_queue, b"still served", app_id="alpha")
    assert alpha.take() == [b"still served"]


def test_a_flood_of_verdicts_costs_nobody_else_anything(world):
    agent, plane = world.agent(), world.plane()
    alpha, beta = world.attach(agent, "alpha"), world.attach(agent, "beta")
    one = schema.applications.Verdict(delivery_id=1, kind=schema.applications.Verdict.DONE)
    flood = schema.applications.AttachRequest(
        verdicts=schema.applications.VerdictBatch(verdicts=[one] * 100000))
    empty = schema.applications.AttachRequest(verdicts=schema.applications.VerdictBatch())
    for _ in range(1000):
        alpha.send(empty)
    plane.publish("", agent.client_queue, b"once", app_id="alpha")
    assert alpha.next().body == b"once"
    alpha.send(flood)
    assert alpha.wait_until_ended().code() == grpc.StatusCode.INVALID_ARGUMENT
    plane.publish("", agent.client_queue, b"still served", app_id="beta")
    assert beta.take() == [b"still served"]
    assert agent.running()


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
