"""What an operator on the host asks: qelctl's verbs on the admin socket."""

import json
import os
import subprocess

from support.admin import Admin
from support.paths import ROOT, program
from support.plane import CONFIGURATION, PING
from support.schema import configuration

NO_AGENT = 3


def qelctl(agent, *arguments, status=0):
    """The output of a verb that ends with this status."""
    done = subprocess.run([program("qelctl"), *arguments, "--runtime-directory", agent.runtime_directory],
                          capture_output=True, text=True, timeout=60, check=False)
    assert done.returncode == status, done.stdout + done.stderr
    return done.stdout if status == 0 else done.stderr


def configured(world):
    agent, plane = world.agent(), world.plane()
    alpha = world.attach(agent, "alpha")
    plane.configure(agent, "alpha", topics=["a.one", "a.two"], queues=[f"q.{agent.agent_id}"])
    alpha.wait_for_state("APPLIED", ["a.one", "a.two"])
    plane.publish(agent.exchange, "a.one", b"one")
    assert alpha.take() == [b"one"]
    return agent


def test_status(world):
    agent = configured(world)
    facts = [line.split(maxsplit=1) for line in qelctl(agent, "status").splitlines()]
    assert ["agent", agent.agent_id] in facts
    assert ["ready", "yes"] in facts
    assert ["bindings", "2 in force, 0 leaving"] in facts
    state = json.loads(qelctl(agent, "status", "--json"))
    assert state["agent"]["id"] == agent.agent_id
    assert state["routes"]["bindings"]["inForce"] == 2


def test_apps(world):
    agent = configured(world)
    rows = [line.split() for line in qelctl(agent, "apps").splitlines()]
    [alpha] = [row for row in rows if row[0] == "alpha"]
    assert alpha[1] == "1" and "applied" in alpha
    applications = {one["name"]: one for one in json.loads(qelctl(agent, "apps", "--json"))}
    assert applications["alpha"]["configuration"]["topics"] == 2
    assert applications["beta"]["configuration"]["state"] == "missing"


def test_routes(world):
    agent = configured(world)
    text = qelctl(agent, "routes")
    assert "a.one" in text and "a.two" in text and f"q.{agent.agent_id}" in text
    found = json.loads(qelctl(agent, "routes", "two", "--json"))
    assert [route["name"] for route in found["routes"]] == ["a.two"]
    assert found["total"] == 3 and found["matching"] == 1
    assert "1 of 3" in qelctl(agent, "routes", "--limit", "1")


def explained(agent, *arguments):
    """The answer of explain as {queue: copy}."""
    answer = json.loads(qelctl(agent, "explain", *arguments, "--json"))
    return {copy["queue"]: copy for copy in answer["copies"]} or answer["why"]


def test_explain_says_who_gets_a_message_and_why(world):
    agent, plane = world.agent(), world.plane()
    alpha, beta = world.attach(agent, "alpha"), world.attach(agent, "beta")
    queue = f"q.{agent.agent_id}"
    plane.configure(agent, "alpha", topics=["a.*", ("a.hot", 1)], queues=[queue])
    alpha.wait_for_state("APPLIED", ["a.*", "a.hot"])
    plane.configure(agent, "beta", topics=["#", "b"])
    beta.wait_for_state("APPLIED", ["#", "b"])

    copies = explained(agent, "a.cold")
    assert list(copies) == [agent.client_queue]
    copy = copies[agent.client_queue]
    assert copy["goesTo"] == "applications" and not copy["named"]
    assert {binding["topic"]: (binding["state"], binding["applications"]) for binding in copy["bindings"]} == {
        "a.*": ("inForce", ["alpha"]), "#": ("inForce", ["beta"])}
    assert {(one["application"], one["instances"], one["why"]) for one in copy["receivers"]} == {
        ("alpha", 1, "its topic a.*"), ("beta", 1, "its topic #")}
    assert copy["route"] == {"key": agent.client_queue, "kind": "own"}
    plane.publish(agent.exchange, "a.cold", b"as explained")
    assert alpha.take() == beta.take() == [b"as explained"]

    hot = explained(agent, "a.hot")
    assert [one["application"] for one in hot[agent.priority_queue]["receivers"]] == ["alpha"]
    assert hot[agent.priority_queue]["route"] == {"key": "a.hot", "kind": "topic"}
    assert [one["application"] for one in hot[agent.client_queue]["receivers"]] == ["beta"]
    assert list(explained(agent, "a.hot", "--queue", agent.priority_queue)) == [agent.priority_queue]

    own = explained(agent, queue)
    assert own[queue]["named"] and own[queue]["route"] == {"key": queue, "kind": "queue"}
    assert [(one["application"], one["why"]) for one in own[queue]["receivers"]] == [("alpha", "its queue")]

    named = explained(agent, agent.client_queue, "--app-id", "beta")[agent.client_queue]
    assert [(one["application"], one["why"]) for one in named["receivers"]] == [("beta", "the app-id names it")]
    text = qelctl(agent, "explain", "a.cold")
    assert "alpha (live, 1 instance)" in text and "topic a.*" in text


def test_explain_says_why_nobody_gets_a_message(world):
    agent, plane = world.agent({"broker": {"control_users": ["guest"]}}), world.plane()
    alpha = world.attach(agent, "alpha")
    plane.publish("", agent.client_queue, configuration(["a.one"]), type=CONFIGURATION, app_id="alpha", user_id="guest")
    alpha.wait_for_state("APPLIED", ["a.one"])

    assert "no application's topic fits" in explained(agent, "a.two")
    assert "nobody gets it: " in qelctl(agent, "explain", "a.two")
    assert "no such queue" in explained(agent, "a.one", "--queue", "elsewhere")
    stranger = explained(agent, agent.client_queue, "--app-id", "stranger")[agent.client_queue]
    assert stranger["goesTo"] == "deadLetters" and "there is no application stranger" in stranger["why"]
    ping = explained(agent, agent.client_queue, "--type", PING)[agent.client_queue]
    assert ping["goesTo"] == "agent" and "control_users: guest" in ping["why"]
    wrong = explained(agent, agent.client_queue, "--type", CONFIGURATION, "--app-id", "x")[agent.client_queue]
    assert wrong["goesTo"] == "deadLetters" and "no application x" in wrong["why"]


def plan(agent, name, application, content, tmp_path, status=0):
    """What plan says of a configuration: {(change, kind, name): (from, to)}, the rest."""
    file = tmp_path / "plan.json"
    file.write_text(json.dumps(content), encoding="utf-8")
    done = subprocess.run([program("qelctl"), "plan", name, application, file, "--json", "--runtime-directory",
                           agent.runtime_directory], capture_output=True, text=True, timeout=60, check=False)
    assert done.returncode == status, done.stdout + done.stderr
    if not done.stdout:
        return done.stderr
    said = json.loads(done.stdout)
    return {(one["change"], one["kind"], one["name"]): (one.get("from"), one.get("to")) for one in said["changes"]}, said


def test_plan_shows_what_a_configuration_would_change(world, tmp_path):
    agent, broker = world.agent(), world.plane()
    alpha, beta = world.attach(agent, "alpha"), world.attach(agent, "beta")
    broker.configure(agent, "alpha", topics=["goes", "moves", "stays"], queues=[f"old.{agent.agent_id}"])
    alpha.wait_for_state("APPLIED", ["goes", "moves", "stays"])
    broker.configure(agent, "beta", topics=["goes"], queues=[f"betas.{agent.agent_id}"])
    beta.wait_for_state("APPLIED", ["goes"])
    before = Admin(agent).routes()
    wanted = {"topicInfo": [{"topic": "stays"}, {"topic": "moves", "priority": 3}, {"topic": "comes"}],
              "queueName": [f"new.{agent.agent_id}"]}
    changes, said = plan(agent, agent.agent_id, "alpha", wanted, tmp_path)
    normal, priority = agent.client_queue, agent.priority_queue
    assert changes == {("add", "topic", "comes"): (None, normal), ("remove", "topic", "goes"): (normal, None),
                       ("move", "topic", "moves"): (normal, priority),
                       ("add", "queue", f"new.{agent.agent_id}"): (None, None),
                       ("remove", "queue", f"old.{agent.agent_id}"): (None, None)}
    assert said["unchanged"] == 1 and said["refusals"] == []
    assert Admin(agent).routes() == before, "nothing is done"
    text = qelctl(agent, "plan", agent.agent_id, "alpha", str(tmp_path / "plan.json"))
    assert "+ topic comes -> " in text and "2 to add, 2 to remove, 1 to move, 1 as they are" in text

    broker.configure(agent, "alpha", topics=["stays", ("moves", 3), "comes"], queues=[f"new.{agent.agent_id}"])
    alpha.wait_for_state("APPLIED", ["comes", "moves", "stays"])
    assert plan(agent, agent.agent_id, "alpha", wanted, tmp_path)[0] == {}, "it has come as planned"

    taken = {"queueName": [f"betas.{agent.agent_id}", priority]}
    _, said = plan(agent, agent.agent_id, "alpha", taken, tmp_path, status=1)
    assert said["refusals"] == [f"queue {priority} is the agent's own", f"queue betas.{agent.agent_id} belongs to beta"]
    _, said = plan(agent, agent.agent_id, "gamma", {"topicInfo": []}, tmp_path, status=1)
    assert said["refusals"] == ["there is no application gamma on this host"]
    assert "this host's agent is" in plan(agent, "elsewhere", "alpha", wanted, tmp_path, status=NO_AGENT)
    assert "topicInfos: is not known" in plan(agent, agent.agent_id, "alpha", {"topicInfos": []}, tmp_path, status=1)
    agent.stop()
    assert "no agent answers" in plan(agent, agent.agent_id, "alpha", wanted, tmp_path, status=NO_AGENT)


def test_health(lonely_world):
    node = lonely_world.own_node()
    agent = lonely_world.agent()
    agent.wait_until(lambda: "ready" in subprocess.run(
        [program("qelctl"), "health", "--runtime-directory", agent.runtime_directory], capture_output=True, text=True,
        check=False).stdout, "the agent to be healthy")
    node.stop()
    agent.wait_for_log("ended: ")
    assert "not ready" in qelctl(agent, "health", status=1)
    agent.stop()
    assert "no agent answers" in qelctl(agent, "health", status=NO_AGENT)


def doctor(agent, *options, status=0):
    """What doctor finds, as {check: [line]}."""
    done = subprocess.run([program("qelctl"), "doctor", "--config", agent.config_file, "--json", *options],
                          capture_output=True, text=True, timeout=120, check=False)
    assert done.returncode == status, done.stdout + done.stderr
    found = {}
    for line in map(json.loads, done.stdout.splitlines()):
        assert (line["result"] == "OK") == (line["cure"] == "") or line["check"] == "configuration", line
        found.setdefault(line["check"], []).append(line)
    return found


def results(found, check):
    return {line["result"] for line in found[check]}


def test_doctor_finds_nothing_wrong_with_a_sound_agent(world, tmp_path):
    secret = tmp_path / "password"
    secret.write_text("guest\n", encoding="ascii")
    secret.chmod(0o600)
    agent = world.agent({"broker": {"user": "guest", "password_file": secret}},
                        urls=world.url.replace("guest:guest@", ""))
    Admin(agent).wait_until_ready()
    found = doctor(agent)
    assert set(found) == {"configuration", "agent", "files", "directories", "sockets", "disk", "clock", "name",
                          "connection", "login", "exchange", "queues", "rights"}
    # Whether somebody keeps the clock and how much room there is are matters of the machine.
    assert {line["result"] for check in set(found) - {"clock", "disk"} for line in found[check]} == {"OK"}
    assert len(found["queues"]) == 3 and len(found["rights"]) == 2 and len(found["sockets"]) == 3
    text = subprocess.run([program("qelctl"), "doctor", "--config", agent.config_file], capture_output=True, text=True,
                          timeout=60, check=True).stdout
    assert all(line.split()[0] in ("OK", "WARN", "FAIL") for line in text.splitlines())


def test_doctor_without_an_agent_leaves_the_broker_as_it_was(world):
    agent = world.agent(start=False)
    found = doctor(agent)
    assert results(found, "agent") == {"WARN"}
    assert "sockets" not in found
    assert {"is not there yet" in line["text"] for check in ("exchange", "queues") for line in found[check]} == {True}
    assert agent.client_queue not in world.node.list_queues()


def test_doctor_finds_what_is_wrong_on_the_host(world, tmp_path):
    url, user = world.broker_user()
    secret = tmp_path / "password"
    secret.write_text("wrong\n", encoding="ascii")
    secret.chmod(0o666)
    agent = world.agent({"broker": {"user": user, "password_file": secret},
                         "management": {"routing_key": f"plane.{user}"}},
                        urls=[url, "amqp://nowhere.invalid:5672", "amqp://127.0.0.1:1"], start=False)
    agent.runtime_directory.rmdir()
    (agent.folder / "state").chmod(0o777)
    found = doctor(agent, status=1)
    assert [line["text"] for line in found["configuration"] if str(secret) in line["text"]]
    assert any("everybody may write" in line["text"] for line in found["files"])
    assert results(found, "directories") == {"FAIL", "WARN"}
    [name] = [line for line in found["name"] if line["result"] == "FAIL"]
    assert "nowhere.invalid has no address" in name["text"]
    [connection] = [line for line in found["connection"] if line["result"] == "FAIL"]
    assert "127.0.0.1 (Connection refused)" in connection["text"]
    [login] = found["login"]
    assert login["result"] == "FAIL" and "ACCESS_REFUSED" in login["text"] and "wrong" not in login["text"]

    right = tmp_path / "right"
    right.write_text("secret\n", encoding="ascii")
    found = doctor(agent, "--password-file", right, status=1)
    assert results(found, "login") == {"OK"}
    [management] = found["management"]
    assert management["result"] == "FAIL" and "NOT_FOUND" in management["text"]

    (agent.folder / "state").rmdir()
    agent.config_file.write_text("[agent]\nid = 5\n", encoding="ascii")
    [found] = [line for line in doctor(agent, status=1)["configuration"] if "must be a text" in line["text"]]
    assert f"{agent.config_file}:2:" in found["text"]


def test_doctor_finds_what_is_wrong_on_the_broker(world):
    url, user = world.broker_user()
    agent, plane = world.agent(urls=url, start=False), world.plane()
    plane.channel.exchange_declare(agent.exchange, "direct", durable=True)
    plane.declare_queue(agent.client_queue, **{"x-queue-type": "classic"})
    plane.declare_queue(agent.dead_letter_queue, **{"x-queue-type": "quorum"})
    plane.publish("", agent.dead_letter_queue, b"nobody's")
    found = doctor(agent, status=1)
    [exchange] = found["exchange"]
    assert exchange["result"] == "FAIL" and "PRECONDITION_FAILED" in exchange["text"]
    [queue] = [line for line in found["queues"] if line["result"] == "FAIL"]
    assert agent.client_queue in queue["text"] and "inequivalent arg" in queue["text"]
    [dead] = [line for line in found["queues"] if line["result"] == "WARN"]
    assert "1 message that nobody took" in dead["text"] and "dead-letters list" in dead["cure"]
    assert plane.count(agent.dead_letter_queue) == 1

    world.node.ctl("set_permissions", user, "^$", "^$", ".*")
    found = doctor(agent, status=1)
    assert {line["result"] for check in ("exchange", "rights") for line in found[check]} == {"FAIL"}
    assert all("ACCESS_REFUSED" in line["text"] for line in found["rights"])


def test_log_level(world):
    agent = world.agent()
    assert qelctl(agent, "log-level") == "6\n"
    assert qelctl(agent, "log-level", "3") == "3\n"
    assert json.loads(qelctl(agent, "log-level", "--json")) == {"logLevel": 3}
    assert "LEVEL" in qelctl(agent, "log-level", "8", status=2)


def test_diagnostics_hold_the_state_and_no_secret(world, tmp_path):
    url, user = world.broker_user()
    agent = world.agent(urls=url)
    file = tmp_path / "bundle.json"
    qelctl(agent, "diagnostics", str(file))
    bundle = json.loads(file.read_text(encoding="utf-8"))
    assert bundle["status"]["agent"]["id"] == agent.agent_id
    assert "qel_" in bundle["metrics"]
    assert "secret" not in file.read_text(encoding="utf-8"), f"the password of {user}"
    assert "exists" in qelctl(agent, "diagnostics", str(file), status=1)


def completions(*words):
    """What bash offers for the last word of a command line."""
    script = ('source "$1"; shift; COMP_WORDS=(qelctl "$@"); COMP_CWORD=$#; _qelctl; printf "%s\\n" "${COMPREPLY[@]}"')
    environment = {**os.environ, "PATH": f"{program('qelctl').parent}:{os.environ['PATH']}"}
    done = subprocess.run(["bash", "-c", script, "bash", ROOT / "packaging/completions/qelctl", *words], check=True,
                          capture_output=True, text=True, env=environment)
    return done.stdout.split()


def test_bash_completes_verbs_and_options():
    assert {"status", "ping", "dead-letters", "--json"} <= set(completions(""))
    assert completions("sta") == ["status"]
    assert {"explain", "plan", "doctor"} <= set(completions(""))
    assert completions("routes", "--lim") == ["--limit"]
    assert completions("explain", "a.key", "--que") == ["--queue"]
    assert completions("doctor", "--conf") == ["--config"]
    assert completions("dead-letters", "re") == ["replay"]
    assert "--count" in completions("ping", "--")
    assert "--count" not in completions("status", "--")
