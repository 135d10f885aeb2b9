"""Where the repository and the built programs are."""

import os
import pathlib

ROOT = pathlib.Path(__file__).resolve().parents[2]
PROTO_ROOT = ROOT / "proto"
SOURCE_ROOT = ROOT / "src"


def program(name):
    """A built program: from the environment (QEL_AGENT, QELCTL), else from the build directory of the preset dev."""
    variable = name.upper().replace("-", "_")
    if variable in os.environ:
        return pathlib.Path(os.environ[variable]).absolute()
    relative = {"qel-agent": "src/agent/qel-agent", "qelctl": "tools/qelctl/qelctl"}[name]
    return ROOT / "build" / "dev" / relative
