"""What applications cost that are there but have no part in the work: the agent's client queue is filled while the agent is
halted, then emptied by attached applications that answer each message at once. Known applications have a drop-in, a socket
and a configuration with one topic; the attached ones get the messages in turns.
With fifty attached, fifty processes share the machine's cores, and hardly any message travels together with another of its
application: each has all the wake-ups on its way for itself. That is what it costs then, whatever number is known.
"""

from qelbench.crowd import Crowd
from qelbench.results import Curve, Figure, Results

NAME = "applications"
TITLE = "Growth: applications"
ORDER = 51

# (known, attached)
SCENES = ((1, 1), (50, 1), (500, 1), (50, 50), (500, 50))
QUICK_SCENES = ((1, 1), (50, 1), (50, 10))
FIGURES = {"rate": "messages/s", "cpu": "µs a message", "before": "MiB"}
NAMES = {"rate": "rate", "cpu": "processor time", "before": "memory before"}


def run(bench):
    scenes = bench.pick(SCENES, QUICK_SCENES)
    crowds = {scene: Crowd(bench, *scene, bench.pick(50000, 5000)) for scene in scenes}
    turns = bench.interleave({scene: crowd.through_the_agent for scene, crowd in crowds.items()}, full=5)
    results = Results()
    figures = {}
    for (known, attached), runs in turns.items():
        for what, unit in FIGURES.items():
            text = f"{known} known, {attached} attached: {NAMES[what]}"
            figures[known, attached, what] = results.add(Figure(text, unit, [run[what] for run in runs]))
    for known, attached in scenes[1:]:
        for what in ("rate", "cpu"):
            figures[known, attached, what].beside(figures[1, 1, what])
    add_memory(results, figures, scenes)
    costs = [(known, figures[known, attached, "cpu"].median) for known, attached in scenes if attached == 1]
    results.curves = [Curve("cost", "One application attached, others known", "applications known", "µs a message",
                            {"processor time": costs}, log_x=True)]
    return results


def add_memory(results, figures, scenes):
    """What a known application takes: the difference to one that is alone, shared out."""
    most = max(known for known, attached in scenes if attached == 1)
    grown = zip(figures[most, 1, "before"].runs, figures[1, 1, "before"].runs)
    results.add(Figure(f"memory of a known application, {most} of them", "KiB",
                       [(many - one) * 1024 / (most - 1) for many, one in grown]))
