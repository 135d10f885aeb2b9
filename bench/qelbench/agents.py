"""Agents to measure, and whether their applications get their messages at once."""

import json
import subprocess

from support.agent import AgentProcess
from support.plane import ManagementPlane
from testbed.processes import wait_until


def new_agent(bench, folder, queue_type, applications, tls=False, **broker):
    """An agent on the parts' broker, as released but for what is given; not started. Named after its folder."""
    options = {"broker": {"queue_type": queue_type, **broker}, "log": {"level": 4}}
    if tls:
        options["broker.tls"] = {"ca_file": bench.authorities()}
    url = bench.node().tls_url() if tls else bench.node().url()
    return AgentProcess(folder / "agent", folder.name, url, options, applications)


def shown(bench, agent, application):
    """What the agent says of one of its applications."""
    listed = subprocess.run([bench.program("tools/qelctl/qelctl"), "apps", "--json", "--runtime-directory",
                             agent.runtime_directory], check=True, stdout=subprocess.PIPE, timeout=60).stdout
    return next(one for one in json.loads(listed) if one["name"] == application)


def wait_until_live(bench, agent, application):
    """Waits until messages go to the application at once, not by the parking queue that it begins with."""
    wait_until(lambda: shown(bench, agent, application)["flow"] == "live", f"{application} to get messages at once", 60,
               agent.log_tail)


def known_applications(count):
    """Drop-ins of so many applications."""
    return {f"app{number}": {} for number in range(count)}


def configure_all(bench, agent, count):
    """Gives each of them one topic, and waits until all are bound."""
    with ManagementPlane(bench.node().url()) as plane:
        for name in known_applications(count):
            plane.configure(agent, name, [f"topic.{name}"])
    wanted = {f"topic.{name}" for name in known_applications(count)}
    wait_until(lambda: wanted <= {key for _, _, key in bench.node().list_bindings()},
               f"{count} applications to be configured", 120, agent.log_tail)
