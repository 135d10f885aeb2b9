"""How fast each client library takes messages, on one processor, with a handler that does nothing, and how long a
message waits for its verdict at 1,000 a second: the delivery's way to the handler and the verdict's way back, but for
the first half second, in which Node.js compiles. The agent's side is played by a program that only delivers and counts,
on the other processors, so that the client is what is measured.
"""

import json
import os
import subprocess
import tempfile

from support.examples import EXAMPLES, STUBS
from support.paths import PROTO_ROOT
from testbed.processes import end, spawn

from qelbench.results import Bars, Figure, Results, at_least, at_most

NAME = "clients"
TITLE = "Client libraries"
ORDER = 48

PYTHON = "import sys, qel_client; qel_client.Client('bench', socket=sys.argv[1]).run(lambda message: None)"
NODEJS = """const { Client } = require(process.argv[1]);
new Client('bench', { socket: process.argv[2] }).run(() => {});"""
RATE = 1000
LEAST_RATES = {"C++": at_least(50_000), "Python": at_least(10_000)}
MOST_WAIT = at_most(1000)


def commands(bench):
    """The command of each client; the socket is still to come."""
    return {"C++": [bench.program("bench/qel_client_consumer")],
            "Python": ["/usr/bin/python3", "-B", "-c", PYTHON],
            "Node.js": ["node", "-e", NODEJS, EXAMPLES / "nodejs/qel-client.js"]}


def load(bench, client, *amount):
    """One run: what the source has printed."""
    environment = {**os.environ, "PYTHONPATH": f"{STUBS}:{EXAMPLES / 'python'}", "QEL_PROTO": str(PROTO_ROOT)}
    with tempfile.TemporaryDirectory(dir=bench.folder) as folder:
        socket = f"{folder}/bench.sock"
        others = f"1-{os.cpu_count() - 1}" if os.cpu_count() > 1 else "0"
        source = spawn(["taskset", "-c", others, bench.program("bench/qel_delivery_source"), socket, *amount],
                       stdout=subprocess.PIPE)
        consumer = spawn(["taskset", "-c", "0", *client, socket], env=environment, stderr=subprocess.DEVNULL)
        try:
            return json.loads(source.communicate(timeout=600)[0])
        finally:
            end(consumer)
            end(source)


def one_turn(bench, name, client):
    """One run at full speed and one at the steady rate."""
    messages = bench.pick(300_000, 100_000) if name == "C++" else bench.pick(60_000, 30_000)
    rate = messages / load(bench, client, messages)["seconds"]
    paced = load(bench, client, bench.pick(10_000, 2_000), RATE)
    return {"rate": rate, "p50": paced["p50"], "p99": paced["p99"]}


def run(bench):
    turns = bench.interleave({name: lambda name=name, client=client: one_turn(bench, name, client)
                              for name, client in commands(bench).items()}, full=5)
    results = Results()
    for name, runs in turns.items():
        results.add(Figure(f"{name}: deliveries", "deliveries/s", [run["rate"] for run in runs], LEAST_RATES.get(name)))
        results.add(Figure(f"{name}: wait for the verdict, 50 %", "µs", [run["p50"] for run in runs]))
        results.add(Figure(f"{name}: wait for the verdict, 99 %", "µs", [run["p99"] for run in runs], MOST_WAIT))
    results.bars.append(Bars("rate", "Deliveries on one processor", [f"{name}: deliveries" for name in turns]))
    return results
