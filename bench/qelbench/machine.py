"""Where and with what was measured."""

import json
import os
import pathlib
import platform
import re
import subprocess

from .context import ROOT

PACKAGES = {"RabbitMQ": "rabbitmq-server", "Erlang": "erlang-base", "rabbitmq-c": "librabbitmq-dev",
            "gRPC": "libgrpc++-dev", "Protocol Buffers": "libprotobuf-dev", "Boost": "libboost-dev", "OpenSSL": "libssl-dev",
            "Google Benchmark": "libbenchmark-dev", "pika": "python3-pika",
            "amqp091-go": "golang-github-rabbitmq-amqp091-go-dev"}
PROGRAMS = {"g++": ["g++", "-dumpfullversion"], "Python": ["/usr/bin/python3", "--version"],
            "Node.js": ["node", "--version"], "Go": ["go", "version"]}


def _output(command):
    try:
        return subprocess.run(command, capture_output=True, text=True, check=False).stdout.strip()
    except FileNotFoundError:
        return ""


def _version(text):
    found = re.search(r"\d+(\.\d+)+", text)
    return found.group() if found else "not installed"


def commit():
    """The commit that was measured; "dirty" when the tree had changes other than the pages that we write."""
    git = ["git", "-C", ROOT]
    changed = _output([*git, "status", "--porcelain", "--untracked-files=no", "--", ":/", ":(exclude)docs/benchmarks*"])
    return _output([*git, "describe", "--always", "--exclude", "*"]) + ("-dirty" if changed else "")


def load():
    return round(os.getloadavg()[0], 1)


def _processor():
    found = re.search(r"model name\s*: (.*)", pathlib.Path("/proc/cpuinfo").read_text(encoding="utf-8"))
    return found.group(1) if found else platform.machine()


def _memory():
    total = re.search(r"MemTotal:\s*(\d+)", pathlib.Path("/proc/meminfo").read_text(encoding="ascii")).group(1)
    return f"{int(total) / 1024 / 1024:.0f} GiB"


def _system():
    found = re.search(r'PRETTY_NAME="(.*)"', pathlib.Path("/etc/os-release").read_text(encoding="utf-8"))
    return found.group(1) if found else platform.system()


def facts():
    """{what: text} about the machine and the versions."""
    versions = {name: _version(_output(["dpkg-query", "-W", "-f=${Version}", package]))
                for name, package in PACKAGES.items()}
    versions.update({name: _version(_output(command)) for name, command in PROGRAMS.items()})
    versions.update(json.loads((ROOT / "bench/peers/node/package.json").read_text(encoding="utf-8"))["dependencies"])
    return {"processor": f"{_processor()}, {os.cpu_count()} cores, {platform.machine()}", "memory": _memory(),
            "system": f"{_system()}, Linux {platform.release()}",
            "versions": ", ".join(f"{name} {version}" for name, version in versions.items())}
