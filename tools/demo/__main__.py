"""The guided tour behind ./run: QEL_AGENT and QELCTL name the programs, --once ends it after the last step."""

import contextlib
import pathlib
import signal
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1]))

from demo.folder import RunFolder  # noqa: E402
from demo.stage import Stage  # noqa: E402
from demo.tour import StepFailed, Tour  # noqa: E402
from testbed.processes import ProcessFailed  # noqa: E402


def relay(stage):
    """Shows what the applications get, until Ctrl-C."""
    shown = {application.name: len(application.deliveries()) for application in stage.applications}
    while True:
        stage.check_alive()
        for application in stage.applications:
            for delivery in application.deliveries()[shown[application.name]:]:
                shown[application.name] += 1
                print(f"   {application.name} got {application.describe(delivery)}", flush=True)
        time.sleep(0.2)


def play(once):
    """Runs the tour; the exit status."""
    with RunFolder() as folder:
        with Stage(folder.path) as stage:
            tour = Tour(stage)
            tour.play()
            if once:
                tour.finish()
            else:
                tour.print_commands()
                with contextlib.suppress(KeyboardInterrupt):
                    relay(stage)
                print("\nStopping ...", flush=True)
    return 0


def interrupt(*_):
    """A stop from outside unwinds like Ctrl-C: everything is ended in order."""
    raise KeyboardInterrupt


def main():
    if sys.argv[1:] not in ([], ["--once"]):
        print("usage: ./run [--once]", file=sys.stderr)
        return 2
    # Ctrl-C, too: whoever starts us in the background may have had it ignored.
    signal.signal(signal.SIGINT, interrupt)
    signal.signal(signal.SIGTERM, interrupt)
    try:
        return play(once=bool(sys.argv[1:]))
    except KeyboardInterrupt:
        print("run: stopped before the last step", file=sys.stderr)
        return 130
    except (StepFailed, ProcessFailed, OSError, ValueError) as failure:
        print(f"run: {failure}", file=sys.stderr)
        return 1


if __name__ == "__main__":
    sys.exit(main())
