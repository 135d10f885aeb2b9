"""What a start after a crash, an edited folder of applications, a damaged journal or a full disk finds and does."""

import contextlib
import os
import signal
import subprocess

import pytest

REQUEST = "com.brelix.vtx.messaging.appinit.AppInitRequestMsg"
CANNOT_BE_WRITTEN = "cannot be written"
COMPLETE_AGAIN = "is complete again"


def bindings(world, agent):
    """The bindings on the agent's exchange as {(queue, topic)}."""
    return {(queue, topic) for exchange, queue, topic in world.node.list_bindings() if exchange == agent.exchange}


def wait_for_bindings(world, agent, wanted, patience=60):
    agent.wait_until(lambda: bindings(world, agent) == wanted, f"the bindings to be {wanted}", patience)


def apply(agent, plane, application, topics=(), queues=()):
    """Configures an attached application and waits until it is told so."""
    plane.configure(agent, application.name, topics, queues)
    application.wait_for_state("APPLIED", [topic if isinstance(topic, str) else topic[0] for topic in topics])


def reload(agent):
    """SIGHUP; returns when the agent has read everything again."""
    before = len(agent.log())
    agent.signal(signal.SIGHUP)
    agent.wait_for_log("configuration read again", start=before)


def remove_application(agent, name):
    (agent.applications_directory / f"{name}.toml").unlink()


# --- routes


def test_a_backlog_finds_the_routes_of_before_the_crash(world):
    agent, plane = world.agent(), world.plane()
    alpha, beta = world.attach(agent, "alpha"), world.attach(agent, "beta")
    work = f"work.{agent.agent_id}"
    apply(agent, plane, alpha, ["a.*", ("shared", 1)])
    apply(agent, plane, beta, ["shared"], [work])
    before = bindings(world, agent)
    agent.kill()

    for number in range(50):
        plane.publish(agent.exchange, "a.topic", f"topic {number:02}".encode())
        plane.publish(agent.exchange, "shared", f"shared {number:02}".encode())
        plane.publish("", work, f"queue {number:02}".encode())
    agent.start()
    alpha, beta = world.attach(agent, "alpha"), world.attach(agent, "beta")
    of = {kind: [f"{kind} {number:02}".encode() for number in range(50)] for kind in ("topic", "shared", "queue")}
    assert sorted(alpha.take(100)) == sorted(of["topic"] + of["shared"])
    assert sorted(beta.take(100)) == sorted(of["shared"] + of["queue"])
    assert alpha.pending() == beta.pending() == 0
    assert plane.count(agent.dead_letter_queue) == 0
    assert bindings(world, agent) == before


def test_the_bindings_of_an_application_removed_while_the_agent_was_down_disappear(world):
    agent, plane = world.agent(), world.plane()
    alpha, beta = world.attach(agent, "alpha"), world.attach(agent, "beta")
    work = f"work.{agent.agent_id}"
    apply(agent, plane, alpha, ["alphas", "shared"])
    apply(agent, plane, beta, ["betas", "shared", ("urgent", 1)], [work])
    assert agent.stop() == 0
    remove_application(agent, "beta")
    agent.start()
    wait_for_bindings(world, agent, {(agent.client_queue, "alphas"), (agent.client_queue, "shared")})
    assert work not in world.node.list_consumers()
    assert not agent.socket("beta").exists()
    alpha = world.attach(agent, "alpha")
    plane.publish(agent.exchange, "shared", b"for alpha")
    assert alpha.take() == [b"for alpha"]

    # Nothing of it is left anywhere: an application of the same name later begins without routes.
    assert agent.stop() == 0
    agent.add_application("beta")
    agent.start()
    beta = world.attach(agent, "beta")
    beta.wait_for_state("MISSING", [])
    assert bindings(world, agent) == {(agent.client_queue, "alphas"), (agent.client_queue, "shared")}
    assert work not in world.node.list_consumers()


def test_sighup_removes_an_application_and_adds_another(world):
    agent, plane = world.agent(), world.plane()
    alpha, beta = world.attach(agent, "alpha"), world.attach(agent, "beta")
    work = f"work.{agent.agent_id}"
    apply(agent, plane, alpha, ["alphas", "shared"])
    apply(agent, plane, beta, ["betas", "shared", ("urgent", 1)], [work])
    remove_application(agent, "beta")
    agent.add_application("gamma")
    reload(agent)

    wait_for_bindings(world, agent, {(agent.client_queue, "alphas"), (agent.client_queue, "shared")})
    agent.wait_until(lambda: work not in world.node.list_consumers(), "the queue to be consumed no longer")
    beta.wait_until_ended()
    assert not agent.socket("beta").exists()
    gamma = world.attach(agent, "gamma")
    apply(agent, plane, gamma, ["gammas", "shared"])
    plane.publish(agent.exchange, "shared", b"shared")
    plane.publish(agent.exchange, "gammas", b"gamma's own")
    assert alpha.take() == [b"shared"]
    assert gamma.take(2) == [b"shared", b"gamma's own"]


# --- the journal


@contextlib.contextmanager
def small_disk(agent):
    """The agent's state directory on a disk of its own with little room; yields its folder."""
    folder = agent.folder / "state"
    subprocess.run(["mount", "-t", "tmpfs", "-o", "size=512k", "none", str(folder)], check=True)
    try:
        yield folder
    finally:
        agent.kill()
        subprocess.run(["umount", str(folder)], check=True)


def fill(disk):
    """Leaves no free byte on the disk; returns the file to remove."""
    ballast = disk / "ballast"
    with open(ballast, "wb", buffering=0) as file, contextlib.suppress(OSError):
        while file.write(b"x" * 512):
            pass
    status = os.statvfs(disk)
    assert status.f_bavail == 0
    return ballast


def topics_of(prefix, count=1500):
    """Enough topics to need more room in the journal than it has had so far."""
    return [f"{prefix}.{number:04}.{'x' * 100}" for number in range(count)]


def test_a_damaged_journal_is_set_aside_and_the_configuration_asked_for(world):
    requests = f"requests.{world.folder.name}"
    agent = world.agent({"management": {"routing_key": requests}}, start=False)
    plane = world.plane()
    plane.declare_queue(requests)
    agent.start()
    alpha = world.attach(agent, "alpha")
    plane.wait_and_take(requests, agent)
    apply(agent, plane, alpha, ["a.one"])
    agent.kill()
    plane.channel.queue_purge(requests)
    journal = agent.folder / "state" / "journal.sqlite"
    for file in (journal, journal.with_name(journal.name + "-wal")):
        file.write_bytes(b"garbage " * 4096)

    agent.start()
    assert agent.log_lines(r"journal begun anew.*journal\.sqlite\.corrupt")
    assert journal.with_name(journal.name + ".corrupt").read_bytes().startswith(b"garbage")
    alpha = world.attach(agent, "alpha")
    properties, _ = plane.wait_and_take(requests, agent)
    assert (properties.type, properties.app_id, properties.reply_to) == (REQUEST, "alpha", agent.client_queue)
    apply(agent, plane, alpha, ["a.one", "a.two"])
    plane.publish(agent.exchange, "a.two", b"through")
    assert alpha.take() == [b"through"]
    before = bindings(world, agent)
    agent.kill()
    agent.start()
    alpha = world.attach(agent, "alpha")
    alpha.wait_for_state("APPLIED", ["a.one", "a.two"])
    assert bindings(world, agent) == before


def test_a_full_disk_is_said_and_changes_nothing_else(world):
    agent, plane = world.agent(start=False), world.plane()
    with small_disk(agent) as disk:
        agent.start()
        alpha = world.attach(agent, "alpha")
        apply(agent, plane, alpha, ["before"])
        ballast = fill(disk)
        large = topics_of("large", 3000)
        plane.configure(agent, "alpha", large)
        alpha.wait_for_state("APPLIED", large, patience=120)
        assert len(agent.log_lines(CANNOT_BE_WRITTEN)) == 1
        wait_for_bindings(world, agent, {(agent.client_queue, topic) for topic in large})
        plane.publish(agent.exchange, large[-1], b"through")
        assert alpha.take() == [b"through"]

        ballast.unlink()
        assert COMPLETE_AGAIN not in agent.log()
        apply(agent, plane, alpha, ["after", ("urgent", 1)])
        agent.wait_for_log(COMPLETE_AGAIN)
        assert len(agent.log_lines(CANNOT_BE_WRITTEN)) == 1
        agent.kill()
        agent.start()
        alpha = world.attach(agent, "alpha")
        alpha.wait_for_state("APPLIED", ["after", "urgent"])
        assert bindings(world, agent) == {(agent.client_queue, "after"), (agent.priority_queue, "urgent")}


@pytest.mark.parametrize("crashed", [False, True])
def test_a_disk_that_is_full_at_the_start_costs_no_route(world, crashed):
    agent, plane = world.agent(start=False), world.plane()
    with small_disk(agent) as disk:
        agent.start()
        alpha = world.attach(agent, "alpha")
        apply(agent, plane, alpha, ["kept"])
        end(agent, crashed)
        fill(disk)
        plane.publish(agent.exchange, "kept", b"while away")
        agent.start()
        check_goes_on_without_room(world, agent, plane)


@pytest.mark.parametrize("crashed", [False, True])
def test_a_read_only_disk_is_said_and_costs_no_route(world, crashed):
    agent, plane = world.agent(start=False), world.plane()
    with small_disk(agent) as disk:
        agent.start()
        alpha = world.attach(agent, "alpha")
        apply(agent, plane, alpha, ["kept"])
        end(agent, crashed)
        subprocess.run(["mount", "-o", "remount,ro", str(disk)], check=True)
        plane.publish(agent.exchange, "kept", b"while away")
        agent.start()
        check_goes_on_without_room(world, agent, plane)
        assert agent.log_lines(CANNOT_BE_WRITTEN)

        subprocess.run(["mount", "-o", "remount,rw", str(disk)], check=True)
        alpha = world.attach(agent, "alpha")
        apply(agent, plane, alpha, ["after"])
        agent.wait_for_log(COMPLETE_AGAIN)
        agent.kill()
        agent.start()
        world.attach(agent, "alpha").wait_for_state("APPLIED", ["after"])


def end(agent, crashed):
    if crashed:
        agent.kill()
    else:
        assert agent.stop() == 0


def check_goes_on_without_room(world, agent, plane):
    """The routes of before are there, the journal has not been thrown away, and a configuration is carried out."""
    assert not (agent.folder / "state" / "journal.sqlite.corrupt").exists()
    alpha = world.attach(agent, "alpha")
    assert alpha.take() == [b"while away"]
    alpha.wait_for_state("APPLIED", ["kept"])
    large = topics_of("new")
    plane.configure(agent, "alpha", large)
    alpha.wait_for_state("APPLIED", large, patience=120)
    assert agent.log_lines(CANNOT_BE_WRITTEN)
    wait_for_bindings(world, agent, {(agent.client_queue, topic) for topic in large})
    plane.publish(agent.exchange, large[0], b"through")
    assert alpha.take() == [b"through"]
    assert plane.count(agent.dead_letter_queue) == 0
    alpha.close()


# --- after a refused unbind


def test_the_successor_of_a_refused_unbind_does_not_end_again_and_converges(world):
    url, user = world.broker_user()
    agent, plane = world.agent(urls=url), world.plane()
    alpha, beta = world.attach(agent, "alpha"), world.attach(agent, "beta")
    apply(agent, plane, alpha, ["old.topic"])
    world.node.ctl("set_topic_permissions", user, agent.exchange, ".*", r"^new\..*")
    # A refused bind closes the channel, which remembers what its user may do.
    plane.configure(agent, "beta", topics=["refused.topic"])
    beta.wait_for_state("FAILED")
    plane.configure(agent, "alpha", topics=["new.topic"])
    assert agent.wait_for_exit() == 0

    before = len(agent.log())
    agent.start()
    alpha = world.attach(agent, "alpha")
    alpha.wait_for_state("APPLIED", ["new.topic"])
    refused = "nobody uses topic old.topic any more, but it stays bound"
    agent.wait_until(lambda: agent.log()[before:].count(refused) >= 2, "the second attempt at the orphan", 60)
    assert agent.running()
    plane.publish(agent.exchange, "new.topic", b"meanwhile")
    assert alpha.take() == [b"meanwhile"]
    assert bindings(world, agent) == {(agent.client_queue, "old.topic"), (agent.client_queue, "new.topic")}

    world.node.ctl("clear_topic_permissions", user, agent.exchange)
    wait_for_bindings(world, agent, {(agent.client_queue, "new.topic")}, patience=120)
    assert agent.stop() == 0
    before = len(agent.log())
    agent.start()
    world.attach(agent, "alpha").wait_for_state("APPLIED", ["new.topic"])
    assert "old.topic" not in agent.log()[before:]
    # The one that began it all was refused; the other was carried out in the end.
    assert [properties.app_id for properties, _ in iter(lambda: plane.take(agent.dead_letter_queue), None)] == ["beta"]
