"""What many agents cost one broker, and how it bears their storms: the agent's own broker code, so many times in one process.
Each figure is a single run, and a node by itself breathes by tens of MiB, so that only the larger fleet tells an agent's memory.
All start evenly over half a minute (a quick run: at once), and follow a hint within another. [scale.md](scale.md) says what
follows, and has the same without the draw of moments.
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
    ("first started until all consume", "s", lambda row: row["start"]["seconds"]),
    ("all pinged until all have replied", "s", lambda row: row["ping"]["seconds"]),
    ("broker up again until all consume", "s", lambda row: row["restart"]["back_after_boot_seconds"]),
    ("hint to all until all have moved", "s", lambda row: row["reassign"]["moved_seconds"]),
)


def run(bench):
    found = bench.scratch("fleet") / "fleet.json"
    size = bench.pick(["--agents", "100", "--agents", "300", "--agents", "1000", "--start-within", "30", "--window", "30",
                       "--idle-seconds", "30"],
                      ["--quick", "--agents", "30"])
    subprocess.run([sys.executable, ROOT / "bench/fleet/run", "--build", bench.build, "--part", "fleet",
                    "--jittered-only", "--json", found, *size], check=True, stdout=subprocess.DEVNULL, timeout=3600)
    rows = json.loads(found.read_text(encoding="utf-8"))["fleets"]
    figures = [Figure(f"{row['queue_type']}, {row['agents']:,} agents: {name}", unit, [take(row)])
               for name, unit, take in FIGURES for row in rows]
    memory = {}
    for row in rows:
        points = memory.setdefault(row["queue_type"], [(0, row["empty"]["rss"] / MIB)])
        points.append((row["agents"], row["idle"]["rss"] / MIB))
    return Results(figures, [Curve("memory", "An idle fleet on one broker", "agents", "broker's memory, MiB", memory)])
