#!/usr/bin/python3
"""How fast a client takes messages, each on one processor: deliveries a second with a handler that does nothing, and how
long a message waits for its verdict at 1000 a second (the delivery's way to the handler and the verdict's way back).

The agent's side is played by a program that only delivers and counts, on the other processors, so that the client is
what is measured. Medians of the runs; expect 50,000 deliveries a second of the C++ client and 10,000 of Python's, and a
p99 below 1 ms on a machine that is otherwise quiet.

Nothing is written but the table on the standard output.
"""

import argparse
import datetime
import json
import os
import pathlib
import platform
import statistics
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parents[1]
sys.path[:0] = [str(ROOT / "tools"), str(ROOT / "tests")]
sys.dont_write_bytecode = True

from support.examples import EXAMPLES, STUBS  # noqa: E402
from support.paths import PROTO_ROOT  # noqa: E402
from testbed.processes import end, spawn  # noqa: E402

PYTHON = "import sys, qel_client; qel_client.Client('bench', socket=sys.argv[1]).run(lambda message: None)"
NODEJS = """const { Client } = require(process.argv[1]);
new Client('bench', { socket: process.argv[2] }).run(() => {});"""
MESSAGES = {"C++": 300_000, "Python": 60_000, "Node.js": 60_000}
RATE = 1000
PACED_MESSAGES = 5000


def commands(build):
    """The command of each client; the socket is still to come."""
    return {"C++": [build / "bench/qel_client_consumer"],
            "Python": ["/usr/bin/python3", "-B", "-c", PYTHON],
            "Node.js": ["node", "-e", NODEJS, EXAMPLES / "nodejs/qel-client.js"]}


def run(build, client, *load):
    """One run: what the source has printed."""
    environment = {**os.environ, "PYTHONPATH": f"{STUBS}:{EXAMPLES / 'python'}", "QEL_PROTO": str(PROTO_ROOT)}
    with tempfile.TemporaryDirectory(prefix="qel-", dir="/tmp") as folder:
        socket = f"{folder}/bench.sock"
        others = f"1-{os.cpu_count() - 1}" if os.cpu_count() > 1 else "0"
        source = spawn(["taskset", "-c", others, build / "bench/qel_delivery_source", socket, *load],
                       stdout=subprocess.PIPE)
        consumer = spawn(["taskset", "-c", "0", *client, socket], env=environment, stderr=subprocess.DEVNULL)
        try:
            return json.loads(source.communicate(timeout=600)[0])
        finally:
            end(consumer)
            end(source)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n", maxsplit=1)[0])
    parser.add_argument("--build", type=pathlib.Path, default=ROOT / "build/release", help="the build directory")
    parser.add_argument("--runs", type=int, default=5)
    options = parser.parse_args()
    rows = []
    for name, client in commands(options.build.absolute()).items():
        rates = [MESSAGES[name] / run(options.build, client, MESSAGES[name])["seconds"] for _ in range(options.runs)]
        paced = [run(options.build, client, PACED_MESSAGES, RATE) for _ in range(options.runs)]
        rows.append(f"{name:8} {statistics.median(rates):14.0f} {min(rates):9.0f} {max(rates):9.0f} "
                    f"{statistics.median(one['p50'] for one in paced):9.0f} "
                    f"{statistics.median(one['p99'] for one in paced):9.0f}")
    commit = subprocess.run(["git", "-C", ROOT, "describe", "--always", "--dirty"], capture_output=True, text=True,
                            check=False).stdout.strip()
    print(f"messages of 256 bytes, medians of {options.runs} runs; {datetime.date.today()}, commit {commit}, "
          f"{os.cpu_count()} cores, {platform.machine()}, load {os.getloadavg()[0]:.1f}")
    print(f"{'client':8} {'deliveries/s':>14} {'least':>9} {'most':>9} {'p50 us':>9} {'p99 us':>9}")
    print("\n".join(rows))


if __name__ == "__main__":
    main()
