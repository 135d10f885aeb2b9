"""TLS with a real broker: verified, with logins by password and by certificate, and certificates that change."""

import collections
import datetime
import json
import os
import re
import shutil
import signal
import subprocess

import pytest

from support.admin import Admin
from support.certificates import Authority, not_after
from support.paths import ROOT, program
from support.plane import ManagementPlane
from testbed.processes import free_ports
from testbed.rabbitnode import RabbitNode

LOGINS = ["auth_mechanisms.1 = PLAIN", "auth_mechanisms.2 = EXTERNAL", "ssl_cert_login_from = common_name"]

Connection = collections.namedtuple("Connection", "user mechanism protocol")


@pytest.fixture(scope="module")
def pki(session_folder):
    """The authority of the broker and of its clients."""
    return Authority(session_folder / "tls")


@pytest.fixture(scope="module")
def node(session_folder, pki):
    """In place of the run's node: one with TLS that lets users in by certificate."""
    pki.issue("server")
    with RabbitNode(session_folder / "secure", config_lines=LOGINS, tls=pki.folder,
                    plugins=["rabbitmq_auth_mechanism_ssl"]) as started:
        yield started


def add_user(node, name):
    node.ctl("add_user", name, "secret")
    node.ctl("set_permissions", name, ".*", ".*", ".*")


def connections_of(node, agent):
    """What the broker knows of an agent's connections."""
    rows = json.loads(node.ctl("list_connections", "--formatter", "json", "user", "auth_mechanism", "ssl",
                               "ssl_protocol", "client_properties"))
    return [Connection(row["user"], row["auth_mechanism"], row["ssl"] and row["ssl_protocol"]) for row in rows
            if f"qel-agent {agent.agent_id}" in json.dumps(row["client_properties"])]


def replace(target, source):
    """Puts another file in its place at once."""
    staged = target.with_suffix(".new")
    shutil.copyfile(source, staged)
    os.chmod(staged, 0o600)
    staged.rename(target)


class Holder:
    """An agent with certificate files of its own, which the test can replace."""

    def __init__(self, world, pki, name, url=None, start=True, **options):
        self.world = world
        self.folder = world.folder / f"files-{name}"
        self.folder.mkdir()
        self.ca, self.certificate, self.key = (self.folder / file for file in ("ca.pem", "client.pem", "key.pem"))
        self.give(pki.issue(name))
        replace(self.ca, pki.file)
        tls = {"ca_file": self.ca, "certificate_file": self.certificate, "key_file": self.key}
        self.agent = world.agent({"broker.tls": tls, **options}, urls=url or world.node.tls_url(), start=start)

    def give(self, certificate):
        replace(self.certificate, certificate.file)
        replace(self.key, certificate.key)

    def users(self):
        return {connection.user for connection in connections_of(self.world.node, self.agent)}

    def break_connections(self):
        """Has the broker end them; returns when the agent has new ones."""
        seen = len(self.connected())
        self.world.node.ctl("close_all_connections", "--", "test")
        self.agent.wait_until(lambda: len(self.connected()) > seen, "a new connection")

    def connected(self):
        return self.agent.log_lines(r"Connected to the broker \S+$")


def expiries(agent):
    """What the agent says of its certificates, in seconds since the epoch."""
    return {each["role"]: datetime.datetime.fromisoformat(each["notAfter"].replace("Z", "+00:00")).timestamp()
            for each in Admin(agent).status()["certificates"]}


@pytest.mark.parametrize("host", ["localhost", "127.0.0.1"])
def test_a_login_by_password_through_tls(world, pki, host):
    url = world.node.tls_url("guest", "guest", host)
    agent = world.agent({"broker.tls": {"ca_file": pki.file}}, urls=url)
    world.plane().ping(agent)
    found = connections_of(world.node, agent)
    assert len(found) == 2, "one that consumes, one that publishes"
    assert set(found) == {Connection("guest", "PLAIN", "tlsv1.3")}


def test_a_login_by_certificate(world, pki):
    add_user(world.node, "holder-a")
    holder = Holder(world, pki, "holder-a")
    alpha = world.attach(holder.agent, "alpha")
    plane = world.plane()
    plane.publish("", holder.agent.client_queue, b"x" * 1000000, app_id="alpha")
    assert alpha.take() == [b"x" * 1000000]
    plane.ping(holder.agent)
    found = connections_of(world.node, holder.agent)
    assert len(found) == 2
    assert set(found) == {Connection("holder-a", "EXTERNAL", "tlsv1.3")}


def test_the_agent_knows_when_its_certificates_expire(world, pki):
    add_user(world.node, "holder-l")
    holder = Holder(world, pki, "holder-l")
    first = not_after(holder.certificate)
    broker, authority = not_after(pki.folder / "server.pem"), not_after(pki.file)
    assert expiries(holder.agent) == {"client": first, "authority": authority, "broker": broker}
    holder.give(pki.issue("holder-l", days=200))
    holder.agent.signal(signal.SIGHUP)
    second = not_after(holder.certificate)
    assert second > first
    holder.agent.wait_until(lambda: expiries(holder.agent)["client"] == second, "the new certificate's time")


def test_a_certificate_of_nobody_is_refused_and_the_password_stays_where_it_is(world, pki):
    add_user(world.node, "holder-with-password")
    password = world.folder / "password"
    password.write_text("secret", encoding="ascii")
    holder = Holder(world, pki, "nobody", start=False,
                    broker={"user": "holder-with-password", "password_file": password})
    holder.agent.launch()
    holder.agent.wait_for_log("login refused: 403 ACCESS_REFUSED - Login was refused using authentication mechanism "
                              "EXTERNAL")
    assert connections_of(world.node, holder.agent) == []
    assert holder.agent.running()


def test_replaced_files_count_for_the_next_connection(world, pki):
    add_user(world.node, "holder-b")
    add_user(world.node, "holder-c")
    holder = Holder(world, pki, "holder-b")
    pid = holder.agent.pid
    with ManagementPlane(world.node.url()) as plane:
        plane.ping(holder.agent)  # both its connections are there now
    assert holder.users() == {"holder-b"}
    holder.give(pki.issue("holder-c"))
    assert holder.users() == {"holder-b"}
    holder.break_connections()
    assert holder.users() == {"holder-c"}
    assert holder.agent.pid == pid


def test_half_a_replacement_leaves_the_old_pair_in_use(world, pki):
    add_user(world.node, "holder-d")
    add_user(world.node, "holder-e")
    holder = Holder(world, pki, "holder-d")
    new = pki.issue("holder-e")
    replace(holder.certificate, new.file)
    holder.break_connections()
    assert holder.users() == {"holder-d"}
    complaint = "the TLS files cannot be used, those read before stay in use"
    holder.agent.wait_for_log(f"{complaint}: TLS: {holder.key} does not belong to the certificate {holder.certificate}")
    holder.break_connections()
    assert len(holder.agent.log_lines(complaint)) == 1
    replace(holder.key, new.key)
    holder.break_connections()
    assert holder.users() == {"holder-e"}


def test_sighup_with_files_that_cannot_be_used_changes_nothing(world, pki):
    add_user(world.node, "holder-f")
    holder = Holder(world, pki, "holder-f")
    holder.key.unlink()
    holder.agent.signal(signal.SIGHUP)
    holder.agent.wait_for_log("the configuration stays as it was")
    assert holder.agent.log_lines(f"broker.tls.key_file names {holder.key}, which cannot be read: No such file")
    holder.break_connections()
    assert holder.users() == {"holder-f"}


def test_sighup_takes_files_of_other_names(world, pki):
    add_user(world.node, "holder-g")
    add_user(world.node, "holder-h")
    holder = Holder(world, pki, "holder-g")
    other = pki.issue("holder-h")
    tls = {"ca_file": pki.file, "certificate_file": other.file, "key_file": other.key}
    holder.agent.write_config([world.node.tls_url()], {"broker.tls": tls})
    holder.agent.signal(signal.SIGHUP)
    holder.agent.wait_for_log("configuration read again")
    holder.break_connections()
    assert holder.users() == {"holder-h"}


def test_a_new_authority_is_found_while_there_is_no_connection(world, pki, tmp_path):
    add_user(world.node, "holder-i")
    holder = Holder(world, pki, "holder-i")
    replace(holder.ca, Authority(tmp_path, name="stranger").file)
    world.node.ctl("close_all_connections", "--", "test")
    holder.agent.wait_for_log(f"comes from CN=ca, which is not in the CA file {holder.ca}")
    replace(holder.ca, pki.file)
    holder.agent.wait_until(lambda: holder.users() == {"holder-i"}, "a connection", patience=60)


def test_what_expires_soon_is_warned_of_once(world, pki, tmp_path):
    add_user(world.node, "holder-j")
    holder = Holder(world, pki, "holder-j", start=False)
    holder.give(pki.issue("holder-j", days=10))
    holder.agent.start()
    holder.break_connections()
    warnings = holder.agent.log_lines("expires in")
    assert len(warnings) == 1
    assert f"the client certificate {holder.certificate} expires in " in warnings[0]


def test_plain_amqp_to_the_brokers_tls_port(world):
    agent = world.agent(urls=f"amqp://localhost:{world.node.tls_port}/", start=False)
    agent.launch()
    agent.wait_for_log("the broker speaks TLS on this port: its URL has to begin with amqps://")


def test_tls_to_the_brokers_plain_port(world, pki):
    agent = world.agent({"broker.tls": {"ca_file": pki.file}}, urls=f"amqps://localhost:{world.node.port}/", start=False)
    agent.launch()
    agent.wait_until(lambda: agent.log_lines(r"does not speak TLS: use|does it speak TLS on this port\?"),
                     "an error that tells of the plain port")


def test_a_client_certificate_of_another_authority(world, pki, tmp_path):
    holder = Holder(world, pki, "holder-k", start=False)
    holder.give(Authority(tmp_path, name="private").issue("holder-k"))
    holder.agent.launch()
    holder.agent.wait_for_log(f"does not accept our certificate {holder.certificate} (unknown CA)")


def qelctl(url, *arguments, timeout=20):
    return subprocess.run([program("qelctl"), "--broker", url, "--timeout", str(timeout), *map(str, arguments)],
                          stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=120, check=False)


def test_qelctl_with_a_password(world, pki):
    agent = world.agent()
    done = qelctl(world.node.tls_url("guest", "guest"), "--ca-file", pki.file, "ping", agent.agent_id)
    assert done.returncode == 0, done.stderr


def test_qelctl_with_a_certificate_says_who_it_is_when_the_url_does(world, pki):
    add_user(world.node, "operator")
    agent = world.agent({"broker": {"control_users": ["operator"]}})
    ours = pki.issue("operator")
    files = ["--ca-file", pki.file, "--certificate-file", ours.file, "--key-file", ours.key]
    named = qelctl(f"amqps://operator@localhost:{world.node.tls_port}/", *files, "ping", agent.agent_id)
    assert named.returncode == 0, named.stderr
    nameless = qelctl(world.node.tls_url(), *files, "ping", agent.agent_id, timeout=2)
    assert nameless.returncode == 1
    with ManagementPlane(world.node.url()) as plane:
        properties, _ = plane.wait_and_take(agent.dead_letter_queue, agent)
    assert "does not say who sent it" in properties.headers["x-qel-reason"]


def test_qelctl_does_not_believe_another_authority(world, pki, tmp_path):
    stranger = Authority(tmp_path, name="stranger")
    done = qelctl(world.node.tls_url("guest", "guest"), "--ca-file", stranger.file, "ping", "x", timeout=2)
    assert done.returncode == 1
    assert f"comes from CN=ca, which is not in the CA file {stranger.file}" in done.stderr


def test_qelctl_names_files_that_cannot_be_used(world, pki):
    ours = pki.issue("operator-2")
    missing = qelctl(world.node.tls_url(), "--ca-file", "/nonexistent/ca.pem", "ping", "x")
    assert missing.returncode == 1
    assert "--ca-file /nonexistent/ca.pem cannot be read: No such file or directory" in missing.stderr
    wrong = qelctl(world.node.tls_url(), "--certificate-file", ours.file, "--key-file", pki.key, "ping", "x")
    assert wrong.returncode == 1
    assert f"--key-file {pki.key} does not belong to the certificate {ours.file}" in wrong.stderr
    alone = qelctl(world.node.tls_url(), "--certificate-file", ours.file, "ping", "x")
    assert alone.returncode == 2
    assert "--key-file" in alone.stderr


def test_doctor_looks_at_the_certificates(world, pki, tmp_path):
    holder = Holder(world, pki, "holder-doctor", start=False)
    command = [program("qelctl"), "doctor", "--json", "--config", holder.agent.config_file]
    refused = subprocess.run(command, capture_output=True, text=True, timeout=60, check=False)
    found = list(map(json.loads, refused.stdout.splitlines()))
    assert refused.returncode == 1
    [login] = [line for line in found if line["result"] == "FAIL"]
    assert login["check"] == "login", "the broker knows no user of this name yet"
    assert len([line for line in found if line["check"] == "TLS" and "is good until" in line["text"]]) == 3

    add_user(world.node, "holder-doctor")
    subprocess.run(command, capture_output=True, timeout=60, check=True)
    replace(holder.ca, Authority(tmp_path / "other").file)
    strange = subprocess.run([*command, "--timeout", "3"], capture_output=True, text=True, timeout=60, check=False)
    [tls] = [line for line in map(json.loads, strange.stdout.splitlines()) if line["result"] == "FAIL"]
    assert tls["check"] == "TLS" and "certificate" in tls["text"]


def test_the_documented_example_works(lonely_world, tmp_path):
    text = (ROOT / "docs" / "configuration.md").read_text(encoding="utf-8")
    section = text[text.index("### TLS"):]
    blocks = re.findall(r"```(sh|ini|toml)\n(.*?)```", section, re.S)
    (_, making), (_, broker_file), (_, letting_in), (_, agent_file) = blocks[:4]
    subprocess.run(["sh", "-e", "-c", making], cwd=tmp_path, check=True, capture_output=True)

    port = free_ports(1)[0]
    config = broker_file.replace("/etc/rabbitmq", str(tmp_path)).replace("= 5671", f"= 127.0.0.1:{port}")
    plugin = re.search(r"rabbitmq-plugins enable (\w+)", letting_in)[1]
    node = lonely_world.own_node(config_lines=config.splitlines(), plugins=[plugin])
    ctl = node.write_ctl_script(tmp_path / "rabbitmqctl")
    commands = letting_in.replace(f"rabbitmq-plugins enable {plugin}", "").replace("rabbitmqctl", str(ctl))
    subprocess.run(["sh", "-e", "-c", commands], check=True, capture_output=True)

    files = dict(re.findall(r'(\w+_file) = "/etc/qel/(.+)"', agent_file))
    assert set(files) == {"ca_file", "certificate_file", "key_file"}
    agent = lonely_world.agent({"broker.tls": {key: tmp_path / name for key, name in files.items()}},
                               urls=f"amqps://localhost:{port}/")
    assert {connection.user for connection in connections_of(node, agent)} == {"host-1"}
    assert not agent.log_lines("warning qel")
