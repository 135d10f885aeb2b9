"""The same work by consumers in other languages and libraries, each a small program written to be fast
(`bench/peers`): take from the same queue with the same prefetch (1000), tell by the message's type, hand the body to
another process over a Unix socket, wait for its verdict, then acknowledge that message. Messages are on their way
side by side: nobody waits for one verdict before handing over the next message.

Before anything is measured, each program is given messages of which the other process answers only some: exactly
those may be acknowledged, and one message of another type may not be handed over.

The agent does this work with an attached application as the other process, so its protocol on the socket is gRPC
where the peers' is four bytes of length, the body and one byte of verdict; and it acknowledges in batches, after the
verdicts. Only the consuming process's time counts, not that of the process behind the socket.
"""

import os
import subprocess

from qelbench.context import ROOT
from qelbench.drain import Drain
from qelbench.results import Bars, Figure, Results

NAME = "peers"
TITLE = "The same work by others"
ORDER = 30

PEERS = ROOT / "bench/peers"
# Debian's packages of Go libraries are sources in this folder, for builds without modules.
GO = {"GO111MODULE": "off", "GOPATH": "/usr/share/gocode"}


def commands(bench):
    """{name: command}; builds what has to be built."""
    go_peer = bench.build / "bench/go_peer"
    subprocess.run(["go", "build", "-o", go_peer, "."], cwd=PEERS / "go", check=True,
                   env={**os.environ, **GO, "GOCACHE": str(bench.build / "bench/go-cache")})
    found = {"rabbitmq-c (C++)": [bench.program("bench/qel_rabbitmqc_peer")],
             "amqp091-go (Go)": [go_peer],
             "amqplib (Node.js)": ["node", PEERS / "node/amqplib_peer.js"],
             "pika (Python)": ["/usr/bin/python3", "-B", PEERS / "python/pika_peer.py"]}
    # It stands upon amqplib: in a hurry that one tells enough.
    return found if bench.quick else {**found, "rascal (Node.js)": ["node", PEERS / "node/rascal_peer.js"]}


def of_queue_type(bench, queue_type, peers, results):
    drain = Drain(bench, queue_type, bench.pick(60_000, 15_000))
    for name, command in peers.items():
        drain.check_peer(command)
        bench.progress(f"{name} acknowledges what has a verdict, and nothing else")
    ways = {"qel's agent": drain.through_the_agent,
            **{name: lambda command=command: drain.peer(command) for name, command in peers.items()}}
    turns = bench.interleave(ways, full=5)
    for what, unit, suffix in (("rate", "messages/s", ""), ("cpu", "µs a message", ", processor time")):
        figures = [results.add(Figure(f"{queue_type}: {name}{suffix}", unit, [run[what] for run in runs]))
                   for name, runs in turns.items()]
        for figure in figures[1:]:
            figure.beside(figures[0])
        results.bars.append(Bars(f"{queue_type}-{what}", f"{queue_type} queue", [figure.name for figure in figures]))


def run(bench):
    results = Results()
    peers = commands(bench)
    for queue_type in ("classic",) if bench.quick else ("classic", "quorum"):
        of_queue_type(bench, queue_type, peers, results)
    return results
