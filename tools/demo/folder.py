"""The folder of one run below .run: its own, so that two runs at once do not meet, and short, for the sockets' sake."""

import fcntl
import itertools
import os
import pathlib
import shutil

ROOT = pathlib.Path(__file__).resolve().parents[2]
LONGEST_SOCKET_PATH = 107


class RunFolder:
    """Makes .run/N for the first N that nobody uses; removes it in the end but for a failure, to be looked at.

    A lock file says that a run is alive; the kernel lets go of the lock however a run ends. What dead runs left behind
    is removed here.
    """

    def __init__(self):
        self.path = None
        self._lock = None

    def __enter__(self):
        base = ROOT / ".run"
        base.mkdir(exist_ok=True)
        for number in itertools.count(1):
            self.path = base / str(number)
            self._lock = open(base / f"{number}.lock", "w", encoding="ascii")
            try:
                fcntl.flock(self._lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
                break
            except BlockingIOError:
                self._lock.close()
        shutil.rmtree(self.path, ignore_errors=True)
        self.path.mkdir(mode=0o700)
        return self

    def __exit__(self, failure, *_):
        if failure in (None, KeyboardInterrupt):
            shutil.rmtree(self.path, ignore_errors=True)
        self._lock.close()


def check_socket_path(path):
    """@raises ValueError when the system does not take such a long path for a socket."""
    length = len(os.fsencode(path))
    if length > LONGEST_SOCKET_PATH:
        raise ValueError(f"the path {path} has {length} bytes and the system takes at most {LONGEST_SOCKET_PATH} for a "
                         f"socket: move the repository to a path that is {length - LONGEST_SOCKET_PATH} bytes shorter")
