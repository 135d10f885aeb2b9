"""How long nothing happened."""

import threading
import time


class Gaps:
    """The longest time between two events of a steady stream. For any thread."""

    def __init__(self):
        self._lock = threading.Lock()
        self._last = None
        self._since_taken = 0.0
        self.longest = 0.0

    def note(self):
        """One event."""
        with self._lock:
            self._measure(time.monotonic())

    def ignore(self):
        """The stream was stopped on purpose: what follows begins anew."""
        with self._lock:
            self._last = None

    def take(self):
        """The longest gap since this was last asked, the one that may still be open included."""
        with self._lock:
            if self._last is not None:
                self._measure(time.monotonic(), self._last)
            taken, self._since_taken = self._since_taken, 0.0
            return taken

    def _measure(self, now, last=None):
        if self._last is not None:
            gap = now - self._last
            self._since_taken = max(self._since_taken, gap)
            self.longest = max(self.longest, gap)
        self._last = now if last is None else last
