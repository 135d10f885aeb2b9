#!/usr/bin/python3
"""What the agent needs when nothing happens, and what a configuration of many topics costs it.

Memory is the resident set of the whole process; times are the agent's and the broker's together, and the broker has most
of them: one bind after the other.

Nothing is written but the table on the standard output.
"""

import argparse
import os
import pathlib
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parents[1]
sys.path[:0] = [str(ROOT / "tools"), str(ROOT / "tests")]
sys.dont_write_bytecode = True

from support.agent import AgentProcess  # noqa: E402
from support.application import GrpcApplication  # noqa: E402
from support.plane import ManagementPlane  # noqa: E402
from testbed.rabbitnode import RabbitNode  # noqa: E402

APPLICATION = "bench"
PATIENCE = 1800


def resident_mib(agent):
    """The memory of the process that is in RAM."""
    status = pathlib.Path(f"/proc/{agent.pid}/status").read_text(encoding="ascii")
    return int(status.split("VmRSS:")[1].split()[0]) / 1024


def timed(action):
    began = time.monotonic()
    action()
    return time.monotonic() - began


def measure(options, node, folder):
    agent = AgentProcess(folder / "agent", "bench", node.url(), {"log": {"level": 4}}, {APPLICATION: {}})
    try:
        print(f"start to ready, no routes           {timed(agent.start):8.2f} s")
        print(f"memory, no routes                   {resident_mib(agent):8.1f} MiB")
        topics = [f"bench.topic.{number}" for number in range(options.topics)]
        with ManagementPlane(node.url()) as plane, GrpcApplication(agent, APPLICATION) as application:
            application.wait_for_welcome()

            def configure():
                plane.configure(agent, APPLICATION, topics=topics)
                application.wait_for_state("APPLIED", patience=PATIENCE)

            print(f"configuration of {options.topics:<6} topics      {timed(configure):8.2f} s")
        print(f"memory, {options.topics:<6} routes               {resident_mib(agent):8.1f} MiB")
        agent.stop()
        print(f"start to ready, {options.topics:<6} routes       {timed(lambda: agent.start(PATIENCE)):8.2f} s")
        print(f"memory after that                   {resident_mib(agent):8.1f} MiB")
    finally:
        agent.stop()


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", type=pathlib.Path, default=ROOT / "build/release", help="folder of the build")
    parser.add_argument("--topics", type=int, default=10000, help="topics of the configuration")
    options = parser.parse_args()
    os.environ["QEL_AGENT"] = str(options.build.resolve() / "src/agent/qel-agent")
    with tempfile.TemporaryDirectory(prefix="qel-", dir="/tmp") as folder:
        with RabbitNode(pathlib.Path(folder) / "rabbit") as node:
            measure(options, node, pathlib.Path(folder))
    print(f"{os.cpu_count()} cores, load {os.getloadavg()[0]:.1f}")


if __name__ == "__main__":
    main()
