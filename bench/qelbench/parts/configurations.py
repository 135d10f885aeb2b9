"""What a configuration costs a topic. From the management plane's message to the application's knowledge that it is in force,
through the agent on a real broker, beside a program that does nothing but bind the same number of topics with the blocking
calls of rabbitmq-c, each after the answer to the one before; both by turns, the one that begins changing. Then what a
replacement costs: all topics, one in a hundred (of ten, one), none. The broker's bindings are compared with what was asked for.

Below that the agent's own share, inside of the process, with a broker that answers at once, in processor time; and the
journal's share of that: the difference to a journal that cannot be written.
"""

from qelbench import googlebenchmark
from qelbench.configuring import BareBinds, ConfiguredAgent
from qelbench.results import Curve, Figure, Results, at_most

NAME = "configurations"
TITLE = "Growth: configurations"
ORDER = 53

QUEUE_TYPE = "classic"
MOST_BESIDE_BARE = 1.1
INSIDE = {"ConfigureAnew": "new topics", "ConfigureAnewWithoutJournal": "new topics, journal unwritable",
          "ConfigureOthers": "other topics instead", "ConfigureOnePercent": "1 % replaced",
          "ConfigureTheSame": "the same again", "JournalAtOnce": "journal alone, all in one transaction",
          "JournalEach": "journal alone, each in one of its own"}


class Turn:
    """One turn with one number of topics: configured and bare, everything bound and everything gone again."""

    def __init__(self, configured, bare, count, number):
        self._configured, self._bare = configured, bare
        self._count, self._number = count, number
        self._seconds, self._cpu = {}, {}

    def run(self):
        """Seconds and CPU seconds (the agent's, the bare loop's) by what was done."""
        topics = self._topics()
        steps = [lambda: self._by_agent("anew", topics), lambda: self._by_hand("bare", "bind")]
        for step in steps if self._number % 2 == 0 else reversed(steps):
            step()
        self._configured.expect_bindings(topics, topics)
        self._by_hand("bare unbind", "unbind")
        self._by_agent("same", topics)
        self._by_agent("one percent", self._topics(max(1, self._count // 100)))
        self._configured.expect_bindings(self._topics(max(1, self._count // 100)), [])
        self._by_agent("others", self._topics(2 * self._count))
        self._configured.expect_bindings(self._topics(2 * self._count), [])
        self._by_agent("none", [])
        self._configured.expect_bindings([], [])
        return {"seconds": self._seconds, "cpu": self._cpu}

    def _topics(self, first=0):
        return [f"plant.{self._number}.{number}" for number in range(first, first + self._count)]

    def _by_agent(self, what, topics):
        self._seconds[what], self._cpu[what] = self._configured.configure(topics)

    def _by_hand(self, what, action):
        self._seconds[what], self._cpu[what] = self._bare.run(f"plant.{self._number}.", self._count, action)


def on_a_broker(bench, results):
    """Every size in turns with the bare loop. Returns the points of the curves."""
    # A turn of 100,000 would take the broker a quarter of an hour.
    sizes = {count: bench.turns(full)
             for count, full in bench.pick({10: 7, 1000: 7, 10000: 3}, {10: 1, 200: 1}).items()}
    points = {"agent": [], "bare loop": [], "all replaced": [], "1 % replaced": [], "the same again": []}
    with ConfiguredAgent(bench.scratch("configurations"), bench.node(), QUEUE_TYPE) as configured:
        bare = BareBinds(bench.program("bench/qel_bare_binds"), configured, QUEUE_TYPE)
        for count, turns in sizes.items():
            runs = []
            for number in range(turns):
                runs.append(Turn(configured, bare, count, number).run())
                bench.progress(f"{count} topics {number + 1}/{turns}: {runs[-1]['seconds']}")
            for name, median in add_figures(results, count, runs):
                points[name].append((count, median))
    return points


def add_figures(results, count, runs):
    """The figures of one size; yields (name of the curve, milliseconds a topic)."""
    def figure(name, what, kind="seconds", scale=1e3, unit="ms a topic"):
        return results.add(Figure(f"{count:,} topics, {name}", unit, [scale * run[kind][what] / count for run in runs]))

    bare = figure("bare loop", "bare")
    agent = figure("agent", "anew").beside(bare, at_most(MOST_BESIDE_BARE) if count >= 200 else None)
    gone = figure("bare loop, unbinding", "bare unbind")
    others = figure("agent, all replaced", "others")
    part = figure("agent, 1 % replaced", "one percent").beside(others)
    same = figure("agent, the same again", "same").beside(others)
    figure("agent, all removed", "none").beside(gone)
    bare_cpu = figure("bare loop's processor time", "bare", "cpu", 1e6, "µs a topic")
    figure("agent's processor time", "anew", "cpu", 1e6, "µs a topic").beside(bare_cpu)
    yield from (("agent", agent.median), ("bare loop", bare.median), ("all replaced", others.median),
                ("1 % replaced", part.median), ("the same again", same.median))


def memory(bench, results):
    """What the process grows by with one configuration, of which it had none before."""
    count = bench.pick(20000, 1000)
    with ConfiguredAgent(bench.scratch("configured-memory"), bench.node(), QUEUE_TYPE) as configured:
        before = configured.resident_mib()
        configured.configure([f"telemetry.site-{number % 1000}.device-{number}.state" for number in range(count)])
        grown = configured.resident_mib() - before
        results.add(Figure(f"resident memory of the agent, {count:,} topics", "bytes a topic",
                           [grown * 1024 * 1024 / count]))
        configured.configure([])


def inside_the_process(bench, results):
    """The agent's own part, from Google Benchmark. Returns the points of the curves."""
    only = bench.pick("", "/(10|1000)$")
    runs = [googlebenchmark.run(bench.program("bench/qel_configuration_bench"), only, bench.pick(0.2, 0.05))
            for _ in range(bench.turns(full=3))]
    points = {}
    for name in runs[0]:
        base, _, argument = name.partition("/")
        count = int(argument)
        if base == "ConfigureOnePercent" and count < 100:
            continue
        own = results.add(Figure(f"inside, {count:,} topics, {INSIDE[base]}", "µs of processor a topic",
                                 [run[name]["cpu"] / 1e3 / count for run in runs]))
        points.setdefault(INSIDE[base], []).append((count, own.median))
        if base == "ConfigureAnew":
            without = [run[f"ConfigureAnewWithoutJournal/{argument}"]["cpu"] for run in runs]
            results.add(Figure(f"inside, {count:,} topics, the journal's share of new topics", "µs of processor a topic",
                               [(run[name]["cpu"] - other) / 1e3 / count for run, other in zip(runs, without)]))
            results.add(Figure(f"inside, {count:,} topics, memory", "bytes a topic",
                               [run[name]["bytes_per_topic"] for run in runs]))
    return points


def run(bench):
    results = Results()
    outside = on_a_broker(bench, results)
    memory(bench, results)
    own = inside_the_process(bench, results)
    results.curves = [
        Curve("broker", "Time of a configuration", "topics", "ms a topic", outside, log_x=True, log_y=True),
        Curve("inside", "The agent's own part", "topics", "µs a topic", own, log_x=True, log_y=True)]
    return results
