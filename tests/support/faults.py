"""What the fault tests do to processes, and what they measure of them."""

import contextlib
import datetime
import os
import re
import signal

CLOCK_TICKS = os.sysconf("SC_CLK_TCK")


@contextlib.contextmanager
def stopped(pid):
    """The process stands still inside: alive, its connections open, and mute."""
    os.kill(pid, signal.SIGSTOP)
    try:
        yield
    finally:
        os.kill(pid, signal.SIGCONT)


def cpu_seconds(pid):
    """The processor time that a process has used so far."""
    with open(f"/proc/{pid}/stat", encoding="ascii") as stat:
        fields = stat.read().rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / CLOCK_TICKS


def resident_mebibytes(pid):
    with open(f"/proc/{pid}/status", encoding="ascii") as status:
        return next(int(line.split()[1]) for line in status if line.startswith("VmRSS:")) / 1024


def most_lines_per_minute(lines):
    """Of the lines of an agent's log: (the most that come in any minute with the same text, that text)."""
    times = {}
    for line in lines:
        when, _, text = line.partition(" ")
        text = re.sub(r" \(\d+ more times since the last such line\)$", "", text)
        times.setdefault(text, []).append(datetime.datetime.fromisoformat(when).timestamp())
    most = [(sum(1 for time in all_of_it if start <= time < start + 60), text)
            for text, all_of_it in times.items() for start in all_of_it]
    return max(most, default=(0, ""))
