"""What tests measure and do not assert: times, counts. Shown at the end of the run."""

_noted = []


def note(row, text):
    """Notes a figure under the name of what it is about."""
    _noted.append(f"{row}: {text}")


def noted():
    return list(_noted)
