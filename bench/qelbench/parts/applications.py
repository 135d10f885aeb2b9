"""What applications cost that are there but have no part in the work: the agent's client queue is filled while the agent is
halted, then emptied by attached applications that answer each message at once. Known applications have a drop-in, a socket
and a configuration with one topic; the attached ones get the messages in turns.
"""

from qelbench.draining import DrainedAgent
from qelbench.results import Curve, Figure, Results

NAME = "applications"
TITLE = "Growth: applications"
ORDER = 51

# (known, attached)
SCENES = ((1, 1), (50, 1), (500, 1), (50, 50), (500, 50))
QUICK_SCENES = ((1, 1), (50, 1), (50, 10))
BODY = b"x" * 256


def run_scene(bench, known, attached, messages):
    """One run: messages a second, the agent's CPU microseconds a message, its MiB before anybody is attached."""
    with DrainedAgent(bench, f"agent-{known}-{attached}", known) as drained:
        idle = drained.resident_mib()
        one = drained.drain(attached, messages, BODY)
    bench.wait_for_no_connection(bench.node())
    return messages / one.seconds, 1e6 * one.cpu / messages, idle


def run(bench):
    messages = bench.pick(50000, 5000)
    scenes = bench.pick(SCENES, QUICK_SCENES)
    measured = bench.interleave(
        {scene: lambda scene=scene: run_scene(bench, *scene, messages) for scene in scenes}, bench.pick(5, 1))
    results = Results()
    figures = {}
    for (known, attached), runs in measured.items():
        text = f"{known} known, {attached} attached"
        rates, costs, idle = zip(*runs)
        figures[known, attached] = (results.add(Figure(f"{text}: rate", "messages/s", list(rates))),
                                    results.add(Figure(f"{text}: processor time", "µs a message", list(costs))),
                                    results.add(Figure(f"{text}: memory before", "MiB", list(idle))))
    for scene in scenes[1:]:
        for figure, alone in zip(figures[scene][:2], figures[1, 1]):
            figure.beside(alone)
    add_memory(results, figures, scenes)
    alone = [scene for scene in scenes if scene[1] == 1]
    results.curves = [Curve("cost", "One application attached, others known", "applications known", "µs a message",
                            {"processor time": [(scene[0], figures[scene][1].median) for scene in alone]}, log_x=True)]
    return results


def add_memory(results, figures, scenes):
    """What a known application takes: the difference to one that is alone, shared out."""
    most = max(known for known, attached in scenes if attached == 1)
    grown = zip(figures[most, 1][2].runs, figures[1, 1][2].runs)
    results.add(Figure(f"memory of a known application, {most} of them", "KiB",
                       [(many - one) * 1024 / (most - 1) for many, one in grown]))
