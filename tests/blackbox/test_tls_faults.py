"""Brokers that are not to be believed, in ways that TLS has to find out: each is named with its cure, none is told
anything, and nothing else than TLS 1.2 or newer is spoken. No real broker is needed for that."""

import os
import subprocess
import uuid

import pytest

from support.certificates import LOCAL, Authority, openssl
from support.paths import program
from support.recorder import HEADER, START, Recorder, offered_versions, server_context
from testbed.processes import end, free_ports, listening, spawn, wait_until

USER, PASSWORD = "host-one", "very-secret-word"
NEVER = (USER.encode(), PASSWORD.encode(), b"PLAIN")


@pytest.fixture(scope="module")
def pki(session_folder):
    """The authority that the agents trust."""
    return Authority(session_folder / "pki", days=400)


class Guest:
    """An agent that has a password and a broker's URL to bring it to."""

    def __init__(self, world, url, tls=None):
        password = world.folder / f"password-{uuid.uuid4().hex[:8]}"
        password.write_text(PASSWORD, encoding="ascii")
        password.chmod(0o600)
        options = {"broker": {"user": USER, "password_file": password}, "broker.tls": tls or {}}
        self.agent = world.agent(options, applications=(), urls=url, start=False)
        self.agent.launch()

    def complaint(self, *texts):
        """The line that says why there is no connection, which has to have all these texts."""
        def line():
            return next((found for found in self.agent.log_lines("Cannot connect") if all(
                text in found for text in texts)), None)

        return self.agent.wait_until(line, f"the log to complain of {texts}")


def refuses(world, recorder, tls, *texts, host="localhost"):
    """An agent comes to the recorder several times, says each time why it goes, and has told nothing."""
    guest = Guest(world, f"amqps://{host}:{recorder.port}/", tls)
    line = guest.complaint(*texts)
    assert f"amqps://{host}:{recorder.port}/" in line
    recorder.wait_for_connections(2)
    assert b"".join(recorder.told) == b"", "something was told behind a handshake that should have failed"
    assert not any(secret in recorder.everything() for secret in NEVER)
    for hello in recorder.hellos:
        assert not hello or offered_versions(hello) == {0x0303, 0x0304}
    assert guest.agent.running()
    assert PASSWORD not in guest.agent.log()
    return line


def test_a_broker_that_is_to_be_believed_is_told_the_password(lonely_world, pki):
    """What the others stand against: the recorder does hear it when TLS finds no fault."""
    with Recorder(server_context(pki.issue("good"))) as recorder:
        guest = Guest(lonely_world, f"amqps://localhost:{recorder.port}/", {"ca_file": pki.file})
        wait_until(lambda: PASSWORD.encode() in recorder.everything(), "the password", diagnose=guest.agent.log_tail)
        assert recorder.told[0].startswith(HEADER)
        assert b"\0" + USER.encode() + b"\0" + PASSWORD.encode() in recorder.told[0]
        assert PASSWORD.encode() not in b"".join(recorder.hellos)


def test_another_authority(lonely_world, pki, tmp_path):
    stranger = Authority(tmp_path, name="stranger").issue("server")
    with Recorder(server_context(stranger)) as recorder:
        refuses(lonely_world, recorder, {"ca_file": pki.file}, "comes from CN=stranger, which is not in the CA file",
                str(pki.file), "put its certificate there")


def test_an_authority_of_the_same_name_with_another_key(lonely_world, pki, tmp_path):
    with Recorder(server_context(Authority(tmp_path, name="ca").issue("server"))) as recorder:
        refuses(lonely_world, recorder, {"ca_file": pki.file}, "CN=ca", f"the CA file {pki.file}")


def test_a_certificate_that_vouches_for_itself(lonely_world, pki, tmp_path):
    with Recorder(server_context(Authority(tmp_path, name="localhost"))) as recorder:
        refuses(lonely_world, recorder, {"ca_file": pki.file}, "comes from CN=localhost, which is not in the CA file")


def test_the_systems_authorities_do_not_know_ours(lonely_world, pki):
    with Recorder(server_context(pki.issue("server"))) as recorder:
        refuses(lonely_world, recorder, {}, "comes from CN=ca, which is not in the system's authorities")


def test_an_expired_certificate(lonely_world, pki):
    with Recorder(server_context(pki.issue("expired", days=10, days_ago=400))) as recorder:
        line = refuses(lonely_world, recorder, {"ca_file": pki.file}, f"the certificate of localhost:{recorder.port}",
                       "expired on 20", "have it renewed")
        assert "authority" not in line


def test_an_expired_authority(lonely_world, tmp_path):
    authority = Authority(tmp_path, name="bygone", days=10, days_ago=400)
    with Recorder(server_context(authority.issue("server"))) as recorder:
        refuses(lonely_world, recorder, {"ca_file": authority.file},
                "the authority CN=bygone that vouches for the certificate of localhost", "expired on 20")


def test_a_certificate_that_is_not_valid_yet(lonely_world, pki):
    with Recorder(server_context(pki.issue("early", days_ago=-300))) as recorder:
        refuses(lonely_world, recorder, {"ca_file": pki.file}, "is not valid before 20", "compare the clocks")


@pytest.mark.parametrize("host, names", [
    ("localhost", "DNS:elsewhere.example"),
    ("localhost", "IP:127.0.0.1"),
    ("localhost", "DNS:*.localhost,DNS:localhost.example"),
    ("127.0.0.1", "DNS:localhost,IP:127.0.0.9"),
])
def test_the_certificate_of_another_host(lonely_world, pki, host, names):
    with Recorder(server_context(pki.issue("elsewhere", names))) as recorder:
        refuses(lonely_world, recorder, {"ca_file": pki.file}, f"and not for {host}: write one of these into the URL",
                f"is for {names.split(',', maxsplit=1)[0].replace('IP:', 'IP Address:')}", host=host)


@pytest.mark.parametrize("answer", [HEADER, START, b"HTTP/1.1 400 Bad Request\r\n\r\n"],
                         ids=["amqp", "login", "http"])
def test_a_port_that_answers_in_plain(lonely_world, pki, answer):
    with Recorder(answer=answer) as recorder:
        guest = Guest(lonely_world, f"amqps://localhost:{recorder.port}/", {"ca_file": pki.file})
        guest.complaint(f"localhost:{recorder.port} does not speak TLS: use the broker's TLS port")
        recorder.wait_for_connections(2)
        assert all(told[:1] == b"\x16" for told in recorder.told), "something else than a ClientHello"
        assert HEADER not in recorder.everything()
        assert not any(secret in recorder.everything() for secret in NEVER)
        # What it says to the wrong answer is a TLS alert of 7 bytes at most.
        assert all(len(told) <= len(hello) + 7 for told, hello in zip(recorder.told, recorder.hellos))


def test_a_port_that_says_nothing(lonely_world, pki):
    with Recorder(answer=b"") as recorder:
        guest = Guest(lonely_world, f"amqps://localhost:{recorder.port}/", {"ca_file": pki.file})
        guest.complaint(f"localhost:{recorder.port} did not answer the handshake within 5 s")
        recorder.wait_for_connections(1)
        assert recorder.told[0] == recorder.hellos[0]
        assert offered_versions(recorder.hellos[0]) == {0x0303, 0x0304}


def test_a_port_that_hangs_up(lonely_world, pki):
    port = free_ports(1)[0]
    hang_up = f"""
import socket
listener = socket.create_server(("127.0.0.1", {port}))
while True:
    client, _ = listener.accept()
    client.recv(65536)
    client.close()
"""
    server = spawn(["/usr/bin/python3", "-c", hang_up])
    try:
        wait_until(lambda: listening(port), "the server")
        guest = Guest(lonely_world, f"amqps://localhost:{port}/", {"ca_file": pki.file})
        guest.complaint(f"TLS: localhost:{port} ended the connection", "does it speak TLS on this port?")
    finally:
        end(server)


def test_plain_amqp_to_a_tls_port(lonely_world, pki):
    with Recorder(server_context(pki.issue("server"))) as recorder:
        guest = Guest(lonely_world, f"amqp://localhost:{recorder.port}/")
        guest.complaint("speak TLS on this port? Then its URL begins with amqps://")
        recorder.wait_for_connections(2)
        assert set(recorder.hellos) <= {HEADER, b""}
        assert b"".join(recorder.told) == b""


class OldServer:
    """`openssl s_server` that speaks nothing newer than TLS 1.1."""

    def __init__(self, certificate):
        self.port = free_ports(1)[0]
        self._server = spawn(["openssl", "s_server", "-accept", f"127.0.0.1:{self.port}", "-cert", certificate.file,
                              "-key", certificate.key, "-tls1_1", "-cipher", "ALL:@SECLEVEL=0", "-quiet"],
                             stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        wait_until(lambda: listening(self.port), "openssl s_server to listen")

    def stop(self):
        """Ends it; all that it was told."""
        end(self._server)
        return self._server.stdout.read()


def test_a_server_of_tls_1_1_only(lonely_world, pki):
    server = OldServer(pki.issue("old"))
    try:
        guest = Guest(lonely_world, f"amqps://localhost:{server.port}/", {"ca_file": pki.file})
        guest.complaint(f"localhost:{server.port} does not speak TLS 1.2 or newer", "older ones are not spoken")
        guest.agent.stop()
        # It works for those who do speak it, and writes down what they tell.
        willing = subprocess.run(
            ["openssl", "s_client", "-connect", f"127.0.0.1:{server.port}", "-CAfile", pki.file, "-tls1_1", "-cipher",
             "ALL:@SECLEVEL=0", "-quiet", "-no_ign_eof"], input=b"spoken to", capture_output=True, timeout=60,
            check=False)
        assert b"verify return:1" in willing.stderr
    finally:
        told = server.stop()
    assert told == b"spoken to"


def test_the_host_name_is_named_to_the_broker(lonely_world, pki):
    """A server for many hosts shows the certificate of the one that it is asked for (SNI)."""
    default, ours = pki.issue("default", "DNS:elsewhere.example"), pki.issue("ours", LOCAL)
    context = server_context(default)
    asked = []

    def choose(connection, name, _):
        asked.append(name)
        if name == "localhost":
            connection.context = server_context(ours)

    context.sni_callback = choose
    with Recorder(context) as recorder:
        guest = Guest(lonely_world, f"amqps://localhost:{recorder.port}/", {"ca_file": pki.file})
        wait_until(lambda: HEADER in recorder.told, "a handshake", diagnose=guest.agent.log_tail)
        assert set(asked) == {"localhost"}


def test_a_broker_that_wants_a_client_certificate_and_gets_none(lonely_world, pki):
    with Recorder(server_context(pki.issue("server"), authority=pki)) as recorder:
        guest = Guest(lonely_world, f"amqps://localhost:{recorder.port}/", {"ca_file": pki.file})
        guest.complaint(f"localhost:{recorder.port} refuses us", "wants a client certificate and we have none")
        recorder.wait_for_connections(2)
        assert not any(secret in recorder.everything() for secret in NEVER)


def test_a_broker_that_does_not_accept_our_certificate(lonely_world, pki, tmp_path):
    ours = Authority(tmp_path, name="private").issue("client")
    with Recorder(server_context(pki.issue("server"), authority=pki)) as recorder:
        guest = Guest(lonely_world, f"amqps://localhost:{recorder.port}/",
                      {"ca_file": pki.file, "certificate_file": ours.file, "key_file": ours.key})
        guest.complaint(f"localhost:{recorder.port} does not accept our certificate {ours.file}", "unknown CA")
        recorder.wait_for_connections(2)
        assert not any(secret in recorder.everything() for secret in NEVER)


def test_an_expired_certificate_of_ours(lonely_world, pki):
    ours = pki.issue("late", days=10, days_ago=400)
    with Recorder(server_context(pki.issue("server"), authority=pki)) as recorder:
        guest = Guest(lonely_world, f"amqps://localhost:{recorder.port}/",
                      {"ca_file": pki.file, "certificate_file": ours.file, "key_file": ours.key})
        guest.complaint(f"does not accept our certificate {ours.file} (certificate expired)")
        assert guest.agent.log_lines(f"the client certificate {ours.file} expired on 20")


def test_a_certificate_is_never_replaced_by_the_password(lonely_world, pki):
    """A broker that offers a login by password only does not get one from an agent that has a certificate."""
    ours = pki.issue("client")
    plain_only = START.replace(b"PLAIN AMQPLAIN EXTERNAL", b"PLAIN AMQPLAIN PLAINER!")
    assert plain_only != START
    with Recorder(server_context(pki.issue("server"), authority=pki), answer=plain_only) as recorder:
        guest = Guest(lonely_world, f"amqps://localhost:{recorder.port}/",
                      {"ca_file": pki.file, "certificate_file": ours.file, "key_file": ours.key})
        guest.complaint("does not offer the login mechanism EXTERNAL", "rabbitmq_auth_mechanism_ssl")
        recorder.wait_for_connections(2)
        assert set(recorder.told) == {HEADER}


def start_with(world, tls):
    """The status and the words with which an agent ends that is given these files."""
    agent = world.agent({"broker.tls": tls}, applications=(), urls="amqps://localhost:1/", start=False)
    agent.launch()
    return agent.wait_for_exit(), agent.log()


@pytest.mark.parametrize("key, wrong, why", [
    ("ca_file", "absent", "cannot be read: No such file or directory"),
    ("certificate_file", "absent", "cannot be read: No such file or directory"),
    ("key_file", "absent", "cannot be read: No such file or directory"),
    ("ca_file", "words", "holds no sound certificate"),
    ("certificate_file", "words", "holds no sound certificate"),
    ("key_file", "words", "holds no private key"),
    ("key_file", "other-key.pem", "does not belong to the certificate"),
    ("key_file", "locked", "is protected by a passphrase"),
    ("key_file", "folder", "cannot be read: it has to be a file"),
])
def test_files_that_cannot_be_used_end_the_start(lonely_world, pki, tmp_path, key, wrong, why):
    ours, other = pki.issue("client"), pki.issue("other")
    (tmp_path / "words").write_text("nothing of that kind", encoding="ascii")
    (tmp_path / "folder").mkdir()
    openssl("pkey", "-in", ours.key, "-aes256", "-passout", "pass:hidden", "-out", tmp_path / "locked")
    tls = {"ca_file": pki.file, "certificate_file": ours.file, "key_file": ours.key}
    tls[key] = other.key if wrong == other.key.name else tmp_path / wrong
    status, said = start_with(lonely_world, tls)
    assert status == 78
    assert f"broker.tls.{key} names {tls[key]}, which {why}" in said


def test_a_certificate_without_its_key_ends_the_start(lonely_world, pki):
    status, said = start_with(lonely_world, {"certificate_file": pki.issue("client").file})
    assert status == 78
    assert "broker.tls needs both certificate_file and key_file, or neither" in said


def test_a_key_that_may_not_be_read_ends_the_start(lonely_world, pki):
    ours = pki.issue("client")
    ours.key.chmod(0)
    agent = lonely_world.agent({"broker.tls": {"certificate_file": ours.file, "key_file": ours.key}}, applications=(),
                               urls="amqps://localhost:1/", start=False)
    # Root may read everything unless it is told that it may not.
    plain_user = [] if os.geteuid() else ["setpriv", "--bounding-set=-dac_override,-dac_read_search"]
    done = subprocess.run([*plain_user, program("qel-agent"), "run", "--config", agent.config_file],
                          stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=60, check=False)
    assert done.returncode == 78
    assert f"broker.tls.key_file names {ours.key}, which cannot be read: Permission denied" in done.stderr
    assert f"readable for the user with the id {os.geteuid()}" in done.stderr


def test_a_key_that_everybody_may_read_is_warned_of(lonely_world, pki):
    ours = pki.issue("client")
    ours.key.chmod(0o644)
    agent = lonely_world.agent({"broker.tls": {"certificate_file": ours.file, "key_file": ours.key}}, applications=(),
                               urls="amqps://localhost:1/", start=False)
    agent.launch()
    agent.wait_for_log(f"{ours.key} can be read by everybody")
