"""Programs of Google Benchmark: what is measured inside of a process."""

import json
import subprocess


def run(program, only="", seconds=0.5):
    """One run of the benchmarks whose names fit: {"Name/argument": {"cpu": nanoseconds, counter: value, ...}}."""
    done = subprocess.run([program, "--benchmark_format=json", f"--benchmark_filter={only}",
                           f"--benchmark_min_time={seconds}"], check=True, stdout=subprocess.PIPE, timeout=3600)
    results = {}
    for row in json.loads(done.stdout)["benchmarks"]:
        if row.get("error_occurred"):
            raise RuntimeError(f"{row['name']}: {row['error_message']}")
        nanoseconds = row["cpu_time"] * {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}[row["time_unit"]]
        counters = {name: value for name, value in row.items() if isinstance(value, float)}
        results[row["name"]] = {**counters, "cpu": nanoseconds}
    return results
