"""A host in a folder, with the package as built from this tree, and a broker for it."""

import os
import pathlib
import subprocess
import sys
import tempfile

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path[:0] = [str(ROOT / "tools"), str(ROOT / "tests")]

from testbed.rabbitnode import RabbitNode  # noqa: E402


@pytest.fixture(scope="session")
def packages():
    """The folder with the built package and its log."""
    folder = pathlib.Path(os.environ.get("QEL_PACKAGES", ROOT / "build/packages"))
    subprocess.run([ROOT / "packaging/build", folder], check=True)
    return folder


@pytest.fixture(scope="session")
def folder():
    # Short, because the path of a socket has 107 bytes at most.
    with tempfile.TemporaryDirectory(prefix="qel-", dir="/tmp") as made:
        pathlib.Path(made).chmod(0o755)
        yield pathlib.Path(made)


@pytest.fixture(scope="session")
def node(folder):
    with RabbitNode(folder / "rabbit") as started:
        yield started
