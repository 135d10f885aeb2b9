"""What an operator sees of a running agent: the admin endpoint."""

import hashlib
import http.client
import json
import re
import stat
import subprocess

import pytest
from prometheus_client.parser import text_string_to_metric_families

from support.admin import Admin
from support.paths import ROOT, program
from support.schema import configuration


def lane(status, name):
    return next(each for each in status["lanes"] if each["name"] == name)


def short_hash(body):
    return hashlib.sha256(body).hexdigest()[:16]


def test_it_answers_on_a_socket_for_its_user_and_group(world):
    admin = Admin(world.agent())
    assert stat.S_IMODE(admin.path.stat().st_mode) == 0o660
    assert admin.get("/livez")[::2] == (200, "live\n")
    assert admin.get("/nothing")[0] == 404
    code, headers, text = admin.request("POST", "/status", body="x")
    assert (code, headers["Allow"]) == (405, "GET, HEAD")
    assert "error" in json.loads(text)
    code, headers, text = admin.request("HEAD", "/metrics")
    assert (code, text) == (200, "") and int(headers["Content-Length"]) > 1000


def test_status_is_as_documented(world):
    agent = world.agent()
    status = Admin(agent).wait_until_ready().status()
    assert status["ready"] is True and status["reasons"] == []
    assert status["agent"]["id"] == agent.agent_id
    assert status["agent"]["processId"] == agent.pid
    connection = status["connection"]
    assert connection["state"] == "consuming" and connection["ageSeconds"] >= 0
    assert "guest" not in connection["url"]
    assert status["loopProbe"]["state"] == "fresh"
    assert status["loopProbe"]["roundTripSeconds"] > 0
    assert [each["name"] for each in status["lanes"]] == ["control", "configuration", "priority", "normal"]
    assert [each["name"] for each in status["applications"]] == ["alpha", "beta"]
    assert status["applications"][0]["configuration"]["state"] == "missing"
    process = status["process"]
    assert process["residentBytes"] > 1 << 20 and process["threads"] > 5
    assert 5 < process["openFiles"] < process["maxFiles"]


def test_messages_are_counted_by_lane_outcome_and_application(world):
    agent, plane = world.agent(), world.plane()
    admin = Admin(agent)
    app = world.attach(agent, "alpha")
    agent.wait_until(lambda: admin.application("alpha")["flow"] == "live", "alpha to be live")
    before = lane(admin.status(), "normal")
    for number in range(3):
        plane.publish("", agent.client_queue, str(number).encode(), app_id="alpha")
    plane.publish("", agent.client_queue, b"for nobody", app_id="nobody")
    first, second, third = (app.next() for _ in range(3))
    in_flight = admin.application("alpha")["inFlight"]
    app.verdict(first, "done")
    app.verdict(second, "dead", "bad")
    app.verdict(third, "retry")
    app.verdict(app.next(), "done")

    def settled():
        now = lane(admin.status(), "normal")
        return now if now["inFlight"] == 0 and now["settled"]["done"] == before["settled"]["done"] + 2 else None

    normal = agent.wait_until(settled, "everything to be settled")
    status = admin.status()
    alpha = admin.application("alpha")
    assert in_flight == 3
    assert normal["received"] == before["received"] + 4
    assert normal["settled"]["dead"] == before["settled"]["dead"] + 2
    assert normal["latency"]["count"] == sum(normal["settled"].values())
    assert alpha["verdicts"] == {"done": 2, "retry": 1, "dead": 1} and alpha["tries"] == 4
    assert status["deadLetters"]["application"] == 1 and status["deadLetters"]["noApplication"] == 1


def test_configurations_are_told_by_hash_state_and_error(world):
    agent, plane = world.agent(), world.plane()
    admin = Admin(agent)
    body = configuration(["a", "b"], ["jobs." + agent.agent_id])
    plane.configure(agent, "alpha", body=body)
    agent.wait_until(lambda: admin.application("alpha")["configuration"]["state"] == "applied", "the configuration")
    in_force = admin.application("alpha")["configuration"]
    assert in_force["hash"] == short_hash(body)
    assert (in_force["topics"], in_force["queues"], in_force["error"]) == (2, 1, "")
    assert in_force["durationSeconds"] > 0 and in_force["lastFailure"] is None

    plane.configure(agent, "alpha", body=b"\xff\xff garbage")
    agent.wait_until(lambda: admin.status()["configurations"]["failed"] == 1, "the failure")
    after = admin.application("alpha")["configuration"]
    assert after["state"] == "applied" and after["hash"] == short_hash(body)
    assert after["lastFailure"]["hash"] == short_hash(b"\xff\xff garbage")
    assert after["lastFailure"]["error"] == "the body is no configuration"

    reserved = configuration(["c"], [agent.client_queue])
    plane.configure(agent, "alpha", body=reserved)
    agent.wait_until(lambda: admin.application("alpha")["configuration"]["state"] == "failed", "the refusal")
    failed = admin.application("alpha")["configuration"]
    assert failed["hash"] == short_hash(reserved) and failed["error"] and failed["topics"] == 0
    recent = admin.status()["configurations"]["recent"]
    assert [each["succeeded"] for each in recent][-2:] == [False, True]
    assert recent[-1] == {**recent[-1], "application": "alpha", "topics": 2, "queues": 1}


def test_a_ping_tells_what_is_in_force(world):
    agent, plane = world.agent(), world.plane()
    admin = Admin(agent).wait_until_ready()
    body = configuration(["a"])
    plane.configure(agent, "alpha", body=body)
    agent.wait_until(lambda: admin.application("alpha")["configuration"]["state"] == "applied", "the configuration")
    properties, text, _ = plane.ping(agent)
    reply = json.loads(text)
    assert properties.content_type == "application/json"
    assert reply["agent"] == agent.agent_id and reply["ready"] is True and reply["uptimeSeconds"] > 0
    assert reply["version"] == admin.status()["agent"]["version"]
    assert reply["omitted"] == 0
    assert reply["applications"] == [{"name": "beta", "state": "missing", "hash": ""},
                                     {"name": "alpha", "state": "applied", "hash": short_hash(body)}]
    # It counts when the broker has confirmed the reply, which may already be here.
    agent.wait_until(lambda: admin.status()["pings"]["answered"] == 1, "the ping to count")
    assert admin.status()["pings"]["latency"]["count"] == 1


def test_a_restarted_agent_knows_the_hash_of_what_is_in_force(world):
    agent, plane = world.agent(), world.plane()
    admin = Admin(agent)
    body = configuration(["a", "b.#"], ["jobs." + agent.agent_id])
    plane.configure(agent, "alpha", body=body)
    agent.wait_until(lambda: admin.application("alpha")["configuration"]["state"] == "applied", "the configuration")
    agent.kill()
    agent.start()
    again = admin.application("alpha")["configuration"]
    assert (again["state"], again["hash"], again["topics"]) == ("applied", short_hash(body), 2)

    agent.kill()
    saved = agent.folder / "state" / "configurations.json"
    # As if the journal had gone another way: a hash that does not belong to the routes must not be shown.
    saved.write_text(re.sub(r'"routes": "[0-9a-f]*"', '"routes": "0000"', saved.read_text()))
    agent.start()
    assert admin.application("alpha")["configuration"] == {**again, "hash": "", "at": None}


def test_routes_are_searched_and_paged(world):
    agent, plane = world.agent(), world.plane()
    admin = Admin(agent)
    plane.configure(agent, "alpha", [f"news.{number:02}" for number in range(30)] + [("urgent.x", 1)])
    agent.wait_until(lambda: admin.application("alpha")["configuration"]["state"] == "applied", "the configuration")
    page = admin.routes("?search=news.&offset=10&limit=5")
    assert (page["matching"], page["offset"], page["limit"]) == (30, 10, 5)
    assert [each["name"] for each in page["routes"]] == [f"news.{number:02}" for number in range(10, 15)]
    urgent = admin.routes("?search=urgent.x")["routes"]
    assert urgent == [{"kind": "topic", "name": "urgent.x", "queue": agent.priority_queue, "state": "inForce",
                       "applications": ["alpha"]}]
    assert admin.status()["routes"]["bindings"] == {"intended": 0, "inForce": 31, "leaving": 0}


def test_the_log_level_changes_until_the_next_reload(world):
    agent = world.agent()
    admin = Admin(agent)
    assert admin.request("PUT", "/log-level", "2")[::2] == (200, "2\n")
    assert admin.status()["agent"]["logLevel"] == 2
    assert admin.request("PUT", "/log-level", "9")[0] == 400


def test_without_a_broker_it_lives_and_says_why_it_is_not_ready(lonely_world):
    world = lonely_world
    node = world.own_node()
    agent = world.agent()
    admin = Admin(agent).wait_until_ready()
    node.stop()
    agent.wait_until(admin.reasons, "the loss to be noticed")
    reason, = admin.reasons()
    assert reason.startswith("not connected to the broker: ")
    assert admin.get("/livez")[0] == 200
    code, _, text = admin.get("/readyz", Accept="application/json")
    assert code == 503 and json.loads(text)["ready"] is False
    node.start()
    admin.wait_until_ready(120)
    causes = admin.status()["connection"]["reconnects"]
    assert causes["broker"] == 1 and sum(causes.values()) == 1


def test_a_consumer_that_gets_nothing_is_found_out(world):
    agent = world.agent(options={"broker": {"loop_probe_seconds": 1, "loop_probe_deadline_seconds": 1}})
    admin = Admin(agent).wait_until_ready()
    agent.stop()
    # The queues have a single active consumer: as long as this one is there, the agent's gets nothing.
    thief = world.plane()
    thief.channel.basic_consume(agent.client_queue, lambda *_: None, auto_ack=True)
    agent.start()
    reasons = agent.wait_until(lambda: [each for each in admin.reasons() if "has not come back within" in each],
                               "the probe to fail")
    assert agent.client_queue in reasons[0]
    agent.wait_until(lambda: admin.status()["connection"]["reconnects"]["probe"] > 0, "the agent to connect anew")
    assert f"consuming queue {agent.client_queue} anew" in agent.log()
    thief.close()
    admin.wait_until_ready()
    assert admin.status()["loopProbe"]["failuresInARow"] == 0


def test_a_queue_that_goes_without_a_word_is_made_again(world, node):
    # Classic: what is left of a quorum queue on the broker would keep the next one of its name from being made.
    agent = world.agent(options={"broker": {"queue_type": "classic", "loop_probe_seconds": 1,
                                            "loop_probe_deadline_seconds": 1}})
    admin = Admin(agent).wait_until_ready()
    # Unlike delete_queue this tells no consumer; the broker does so when the making of a queue took it too long.
    node.ctl("eval", f"rabbit_amqqueue:internal_delete(rabbit_misc:r(<<\"/\">>, queue, <<\"{agent.client_queue}\">>), "
                     "<<\"test\">>).")
    agent.wait_until(lambda: admin.status()["connection"]["reconnects"]["probe"] > 0, "the agent to connect anew")
    assert f"the loop probe finds no queue {agent.client_queue}" in agent.log()
    admin.wait_until_ready()
    assert agent.client_queue in node.list_queues()


def test_the_probe_can_be_turned_off(world):
    agent = world.agent(options={"broker": {"loop_probe_seconds": 0}})
    admin = Admin(agent).wait_until_ready()
    assert admin.status()["loopProbe"]["state"] == "off"


def test_the_probe_reaches_no_application_and_counts_in_no_lane(world):
    agent = world.agent(options={"broker": {"loop_probe_seconds": 1}})
    admin = Admin(agent).wait_until_ready()
    agent.wait_until(lambda: admin.status()["loopProbe"]["returned"] >= 3, "three probes")
    status = admin.status()
    assert sum(each["received"] for each in status["lanes"]) == 0
    assert sum(status["deadLetters"].values()) == 0


@pytest.mark.parametrize("address", ["0.0.0.0:9477", "192.0.2.1:9477"])
def test_an_address_of_the_network_is_refused(world, address):
    agent = world.agent(options={"admin": {"listen": address}}, start=False)
    check = subprocess.run([program("qel-agent"), "check", "--config", agent.config_file],
                           capture_output=True, text=True, check=False, timeout=60)
    assert check.returncode == 78
    assert "loopback" in check.stderr and "admin.listen" in check.stderr


def test_it_also_listens_on_the_loopback_interface(world):
    import http.client
    agent = world.agent(options={"admin": {"listen": "127.0.0.1:0"}})
    port = int(re.search(r"listens on TCP port (\d+)", agent.log()).group(1))
    connection = http.client.HTTPConnection("127.0.0.1", port, timeout=30)
    connection.request("GET", "/livez")
    assert connection.getresponse().read() == b"live\n"
    connection.request("PUT", "/log-level", "7")
    answer = connection.getresponse()
    answer.read()
    assert answer.status == 403
    connection.request("GET", "/status", headers={"Host": "evil.example"})
    assert connection.getresponse().status == 421
    connection.close()


ABBREVIATIONS = {"ms", "millis", "milliseconds", "us", "ns", "minutes", "hours", "kb", "mb", "percent", "sec", "secs"}
"""What Prometheus' conventions do not allow in names: units are the base ones, in full."""


def scrape(admin):
    """The families of a scrape by their names as they stand in the text."""
    code, headers, text = admin.get("/metrics")
    assert code == 200 and headers["Content-Type"].startswith("text/plain; version=0.0.4")
    families = list(text_string_to_metric_families(text))
    # The parser takes the ending off a counter's name.
    named = {family.name + ("_total" if family.type == "counter" else ""): family for family in families}
    assert len(named) == len(families), "a family comes twice"
    assert text.count("# HELP ") == text.count("# TYPE ") == len(families)
    return named


def test_metrics_keep_to_the_conventions(world):
    agent = world.agent()
    families = scrape(Admin(agent).wait_until_ready())
    for name, family in families.items():
        assert re.fullmatch(r"qel_[a-z]+(_[a-z]+)*", name), name
        assert not ABBREVIATIONS & set(name.split("_")), name
        assert family.type in ("counter", "gauge", "histogram"), name
        assert (family.type == "counter") == name.endswith("_total"), name
        assert family.documentation.endswith("."), name
        assert all(re.fullmatch(r"[a-z]+", label) for each in family.samples for label in each.labels), name
        seen = [(each.name, tuple(sorted(each.labels.items()))) for each in family.samples]
        assert len(seen) == len(set(seen)), name
        assert all(each.value >= 0 for each in family.samples), name
        if family.type == "histogram":
            assert name.endswith("_seconds"), name
            check_buckets(family)


def check_buckets(family):
    """Buckets add up, series by series, to the count."""
    counts = {tuple(sorted(each.labels.items())): each.value for each in family.samples if each.name.endswith("_count")}
    assert counts
    for labels, count in counts.items():
        buckets = [each for each in family.samples if each.name.endswith("_bucket")
                   and tuple(sorted((k, v) for k, v in each.labels.items() if k != "le")) == labels]
        values = [each.value for each in buckets]
        assert buckets[-1].labels["le"] == "+Inf" and values[-1] == count and values == sorted(values)


def test_every_metric_is_documented_with_its_labels(world):
    agent = world.agent()
    families = scrape(Admin(agent).wait_until_ready())
    rows = re.findall(r"^\| `(qel_\w+)` \| (\w+) \| (.*?) \| (.+) \|$", (ROOT / "docs/metrics.md").read_text("utf-8"), re.M)
    documented = {name: (kind, labels, meaning) for name, kind, labels, meaning in rows}
    assert documented.keys() == families.keys()
    known = {"application": {"alpha", "beta"}, "lane": {"control", "configuration", "priority", "normal"}}
    for name, family in families.items():
        kind, labels, meaning = documented[name]
        assert (kind, meaning) == (family.type, family.documentation), name
        allowed = {}
        for label in filter(None, labels.split("; ")):
            key, _, values = label.partition("`: ")
            allowed[key.strip("`")] = set(values.split(", ")) if values else known.get(key.strip("`"))
        for sample in family.samples:
            present = {key: value for key, value in sample.labels.items() if key != "le"}
            assert present.keys() == allowed.keys(), name
            assert all(allowed[key] is None or value in allowed[key] for key, value in present.items()), sample


def test_metrics_say_what_status_says(world):
    agent, plane = world.agent(), world.plane()
    admin = Admin(agent).wait_until_ready()
    plane.ping(agent)
    plane.publish("", agent.client_queue, b"for nobody", app_id="nobody")
    plane.configure(agent, "alpha", ["a"])
    agent.wait_until(lambda: admin.application("alpha")["configuration"]["state"] == "applied", "the configuration")
    agent.wait_until(lambda: not sum(each["inFlight"] for each in admin.status()["lanes"]), "everything to be settled")
    families, status = scrape(admin), admin.status()

    def value(name, **labels):
        return next(each.value for each in families[name].samples if each.labels == labels)

    assert value("qel_ready") == 1
    for each in status["lanes"]:
        assert value("qel_lane_received_total", lane=each["name"]) == each["received"]
        for outcome, count in each["settled"].items():
            assert value("qel_lane_settled_total", lane=each["name"], outcome=outcome) == count
    assert value("qel_pings_total", result="answered") == 1
    assert value("qel_dead_letters_total", reason="no_application") == 1
    assert value("qel_configurations_total", result="applied") == 1
    assert value("qel_bindings", state="in_force") == 1
    assert value("qel_application_configuration_state", application="alpha", state="applied") == 1
    assert value("qel_application_configuration_state", application="alpha", state="missing") == 0
    assert value("qel_process_start_time_seconds") > 1e9
