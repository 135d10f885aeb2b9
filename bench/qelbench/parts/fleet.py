"""What many agents cost one broker, and how it bears their storms: the agent's own broker code, so many times in one process.
Each figure is a single run, and a node by itself breathes by tens of MiB, so that only the largest fleet tells an agent's memory.
`bench/fleet/run` measures larger fleets, classic queues and the same without the draw of moments; [scale.md](scale.md) says what
follows.
"""

import json
import subprocess
import sys

from qelbench.context import ROOT
from qelbench.results import Curve, Figure, Results

NAME = "fleet"
TITLE = "A fleet on one broker"
ORDER = 90

MIB = 1048576
#: From one dictionary of the driver's results: what it is called, its unit, and how to get it.
FIGURES = (
    ("broker's memory for each agent", "MiB",
     lambda row: (row["idle"]["rss"] - row["empty"]["rss"]) / MIB / row["agents"]),
    ("broker's processor for each idle agent", "% of a core",
     lambda row: 100 * row["idle"]["broker_cpu_seconds"] / row["idle"]["seconds"] / row["agents"]),
    ("all started until all consume", "s", lambda row: row["start"]["seconds"]),
    ("all pinged until all have replied", "s", lambda row: row["ping"]["seconds"]),
    ("broker up again until all consume", "s", lambda row: row["restart"]["back_after_boot_seconds"]),
    ("hint to all until all have moved", "s", lambda row: row["reassign"]["moved_seconds"]),
)


def run(bench):
    found = bench.scratch("fleet") / "fleet.json"
    sizes = bench.pick([30, 100, 300], [30])
    times = bench.pick(["--window", "30", "--idle-seconds", "30"], ["--quick"])
    subprocess.run([sys.executable, ROOT / "bench/fleet/run", "--build", bench.build, "--part", "fleet",
                    "--queue-type", "quorum", "--jittered-only", "--json", found, *times,
                    *(word for size in sizes for word in ("--agents", str(size)))],
                   check=True, stdout=subprocess.DEVNULL, timeout=3600)
    rows = json.loads(found.read_text(encoding="utf-8"))["fleets"]
    figures = [Figure(f"{row['agents']} agents: {name}", unit, [take(row)])
               for name, unit, take in FIGURES for row in rows]
    curves = [Curve("memory", "An idle fleet on one broker, quorum queues", "agents", "broker's memory, MiB",
                    {"resident": [(0, rows[0]["empty"]["rss"] / MIB)] +
                                 [(row["agents"], row["idle"]["rss"] / MIB) for row in rows]})]
    return Results(figures, curves)
