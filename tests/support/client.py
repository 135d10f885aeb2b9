"""The client for Python, with the messages that are generated for this run."""

import importlib
import sys

# Puts the messages where they are found.
from . import schema  # noqa: F401
from .examples import EXAMPLES

sys.path.append(str(EXAMPLES / "python"))
qel_client = importlib.import_module("qel_client")
