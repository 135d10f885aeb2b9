"""How long a persistent message of 256 bytes takes from its publisher to the application's hands at 1,000 messages a
second, and how much of that the agent adds: in turns to an application attached to the agent, and to a bare consumer
in C of the same queue. Publisher and consumer are one process, so one clock tells both times. What is added is the
difference of the two percentiles in a turn. At 99 % the broker's own runs differ by more than the target: that difference
is a sign, not a measure.
"""

import json
import signal
import subprocess

from testbed.processes import end, spawn

from qelbench.agents import new_agent, wait_until_live
from qelbench.results import Curve, Figure, Results, at_most, percentile

NAME = "latency"
TITLE = "Added latency"
ORDER = 40

APPLICATION = "bench"
RATE = 1000
WARM_UP = 500
TARGETS = {0.5: at_most(100), 0.99: at_most(300)}
SHARES = (0.01, 0.1, 0.25, 0.5, 0.75, 0.9, 0.95, 0.98, 0.99, 0.995, 0.999)


def measure(bench, agent, *socket, when_ready=lambda: None):
    """One run: the latencies in microseconds, by the agent's socket when there is one."""
    count = bench.pick(15_000, 2_000) + WARM_UP
    probe = spawn([bench.program("bench/qel_latency_probe"), bench.node().url(), agent.client_queue, count, RATE,
                   *socket], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
    try:
        if probe.stdout.readline() != "ready\n":
            raise RuntimeError(f"the probe has failed{agent.log_tail()}")
        when_ready()
        found = json.loads(probe.communicate("go\n", timeout=300)[0])
    finally:
        end(probe, signal.SIGKILL)
    if len(found) != count:
        raise RuntimeError(f"{len(found)} of {count} messages have arrived")
    return found[WARM_UP:]


def through_the_agent(bench, agent):
    agent.start()
    try:
        return measure(bench, agent, agent.socket(APPLICATION),
                       when_ready=lambda: wait_until_live(bench, agent, APPLICATION))
    finally:
        agent.stop()
        bench.wait_for_no_connection(bench.node())


def to_a_bare_consumer(bench, agent):
    found = measure(bench, agent)
    bench.wait_for_no_connection(bench.node())
    return found


def of_queue_type(bench, queue_type, results):
    agent = new_agent(bench, bench.scratch(f"latency-{queue_type}"), queue_type, {APPLICATION: {}})
    agent.start()  # declares the queue
    agent.stop()
    turns = bench.interleave({"agent": lambda: through_the_agent(bench, agent),
                              "bare": lambda: to_a_bare_consumer(bench, agent)}, full=5)
    for share, target in TARGETS.items():
        runs = {way: [percentile(run, share) for run in found] for way, found in turns.items()}
        label = f"{queue_type}, {100 * share:g} %"
        results.add(Figure(f"{label}: bare consumer", "µs", runs["bare"]))
        results.add(Figure(f"{label}: agent and application", "µs", runs["agent"]))
        results.add(Figure(f"{label}: added by the agent", "µs",
                           [mine - its for mine, its in zip(runs["agent"], runs["bare"])], target))
    together = {way: sum(found, []) for way, found in turns.items()}
    names = {"agent": "agent and application", "bare": "bare consumer"}
    results.curves.append(Curve(queue_type, f"Latency, {queue_type} queue", "share of the messages, %", "µs", {
        names[way]: [(100 * share, percentile(found, share)) for share in SHARES]
        for way, found in together.items()}, log_y=True))


def run(bench):
    results = Results()
    for queue_type in bench.pick(("classic", "quorum"), ("quorum",)):
        of_queue_type(bench, queue_type, results)
    return results
