"""From the package to a first configured application by the documentation's own commands, an upgrade with messages in
flight, and back to nothing.

The tests are the life of one host, in their order.
"""

import contextlib
import json
import os
import re
import shutil
import subprocess
import threading

import grpc
import pytest
from conftest import ROOT
from host import Host
from support.application import GrpcApplication
from support.pages import commands
from support.plane import ManagementPlane
from testbed.processes import wait_until

APPLICATION = "example"
UNIT = "qel-agent.service"
# Pages whose commands need another scene: the tests that follow them.
ELSEWHERE = {"applications.md": "test_examples.py, test_dev.py", "configuration.md": "test_tls.py",
             "cluster.md": "test_cluster.py"}

# What the administrator does in the editor.
EDITOR = """#!/bin/sh
exec sed -i 's|^urls = .*|urls = ["{url}"]|' "$1"
"""
SUDO = """#!/bin/sh
exec "$@"
"""


@pytest.fixture(scope="module")
def package(packages):
    [found] = packages.glob("qel-agent_*.deb")
    return found


@pytest.fixture(scope="module")
def host(folder, node):
    made = Host(folder / "host", node)
    yield made
    made.close()


@pytest.fixture(scope="module")
def plane(node):
    with ManagementPlane(node.url()) as made:
        yield made


class Reader:
    """Types what the pages say, with our node in the place of their broker, and remembers what was typed."""

    def __init__(self, host, node):
        self.untyped = {place: script for place, script in commands().items() if place[0] not in ELSEWHERE}
        self._host = host
        self._node = node

    def follow(self, page, chapter, package=None):
        script = self.untyped.pop((page, chapter))
        return self._host.follow(re.sub(r"amqps://(\w+@)?broker-1\.example:5671",
                                        rf"amqp://\g<1>{self._node.address}:{self._node.port}", script), package)


@pytest.fixture(scope="module")
def reader(host, node):
    host.put_script("sudo", SUDO)
    host.put_script("editor", EDITOR.format(url=f"amqp://{node.address}:{node.port}"))
    return Reader(host, node)


@pytest.mark.parametrize("name", ["qel-agent", "libqel-client-dev"])
def test_lintian_finds_no_error(packages, name):
    [package] = packages.glob(f"{name}_*.deb")
    done = subprocess.run(["lintian", "--fail-on", "error", "--allow-root", package], capture_output=True, text=True,
                          check=False)
    assert done.returncode == 0, done.stdout + done.stderr


def test_installed_is_not_started(host, package):
    host.follow(f"apt-get install -q --no-install-recommends ./{package.name}", package)
    assert host.owner("/etc/qel") == "root:qel 750"
    assert host.owner("/etc/qel/apps.d") == "root:qel 750"
    assert host.path(f"etc/systemd/system/multi-user.target.wants/{UNIT}").is_symlink()
    assert any(UNIT in request and "start" in request for request in host.requests)
    # There is no configuration yet.
    assert host.supervisor is None


PROGRAMS = ("usr/sbin/qel-agent", "usr/bin/qelctl")


def readelf(option, program):
    return subprocess.run(["readelf", "--wide", option, program], check=True, stdout=subprocess.PIPE, text=True).stdout


@pytest.mark.parametrize("name", PROGRAMS)
def test_the_programs_are_hardened(host, name):
    program = host.path(name)
    assert re.search(r"\(FLAGS_1\).*\bNOW\b.*\bPIE\b", readelf("--dynamic", program))
    assert not re.search(r"\((RPATH|RUNPATH|TEXTREL)\)", readelf("--dynamic", program))
    segments = readelf("--segments", program)
    assert "GNU_RELRO" in segments
    assert re.search(r"GNU_STACK .* RW +0x", segments)
    symbols = readelf("--dyn-syms", program)
    assert "__stack_chk_fail" in symbols
    assert re.search(r"__\w+_chk@", symbols), "no fortified call"


def test_everything_was_compiled_hardened(packages):
    compilations = [line for line in (packages / "build.log").read_text(encoding="utf-8").splitlines()
                    if re.search(r"/c\+\+ .* -c \S+$", line)]
    assert len(compilations) > 100
    for flag in ("-fstack-protector-strong", "-fstack-clash-protection", "-fcf-protection", "-D_FORTIFY_SOURCE=2",
                 "-D_GLIBCXX_ASSERTIONS", "-Werror=format-security", "-ffile-prefix-map="):
        assert [line.split()[-1] for line in compilations if f" {flag}" not in line] == [], flag


@pytest.mark.parametrize("name", PROGRAMS)
def test_the_programs_do_not_tell_where_they_were_built(host, packages, name):
    """The least of what two builds in different folders need to be the same; packaging/reproducible makes both."""
    contents = host.path(name).read_bytes()
    for folder in (packages, ROOT):
        assert str(folder.resolve()).encode() not in contents


def checked_bill(file, package, kind, version):
    """{name: component} of a bill of materials that is in order and names what is installed here."""
    bill = json.loads(file.read_text(encoding="utf-8"))
    assert (bill["bomFormat"], bill["specVersion"], bill["version"]) == ("CycloneDX", "1.5", 1)
    assert re.fullmatch(r"urn:uuid:[0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12}", bill["serialNumber"])
    ours = bill["metadata"]["component"]
    assert (ours["type"], ours["name"], ours["version"]) == (kind, package, version)
    components = {each["name"]: each for each in bill["components"]}
    for each in components.values():
        assert each["version"] == subprocess.run(["dpkg-query", "-W", "-f", "${Version}\\n", each["name"]], check=True,
                                                 stdout=subprocess.PIPE, text=True).stdout.splitlines()[0]
        assert re.fullmatch(r"pkg:deb/debian/[\w%.-]+@[\w%.:~-]+\?arch=(amd64|arm64|all)", each["purl"])
    [needs] = bill["dependencies"]
    assert needs == {"ref": ours["bom-ref"], "dependsOn": [each["bom-ref"] for each in bill["components"]]}
    return components


def test_the_bill_of_materials_names_what_the_package_needs(host):
    components = checked_bill(host.path("usr/share/doc/qel-agent/sbom.cdx.json"), "qel-agent", "application",
                              host.run("dpkg-query", "-W", "-f", "${Version}", "qel-agent"))
    linked = {name for name, each in components.items() if each["scope"] == "required"}
    depends = host.run("dpkg-query", "-W", "-f", "${Depends}", "qel-agent")
    provided = host.run("dpkg-query", "-W", "-f", "${Provides} ", *linked)
    assert linked | set(re.findall(r"\blib[\w.+-]+", provided)) >= set(re.findall(r"\blib[\w.+-]+", depends))
    assert {"libcli11-dev", "nlohmann-json3-dev", "libboost-dev"} <= set(components) - linked


@pytest.fixture(scope="module")
def library(packages, folder):
    """The contents of the package for developers; what it depends on is installed here."""
    [package] = packages.glob("libqel-client-dev_*.deb")
    subprocess.run(["dpkg-deb", "--extract", package, folder / "library"], check=True)
    return folder / "library", package


def test_the_bill_of_materials_of_the_library_names_what_it_depends_on(library):
    root, package = library
    fields = subprocess.run(["dpkg-deb", "--show", "--showformat=${Version}\t${Depends}", package], check=True,
                            stdout=subprocess.PIPE, text=True).stdout
    version, depends = fields.split("\t")
    [file] = root.glob("usr/share/doc/libqel-client-dev/sbom.*.cdx.json")
    components = checked_bill(file, "libqel-client-dev", "library", version)
    assert {name: each["scope"] for name, each in components.items()} == dict.fromkeys(depends.split(", "), "required")


def test_a_program_is_compiled_with_the_library_as_documented(library, folder):
    root, _ = library
    [command] = re.findall(r"`(g\+\+ [^`]+)`", (ROOT / "docs/applications.md").read_text(encoding="utf-8"))
    [pc_file] = root.glob("usr/lib/*/pkgconfig/qel-client.pc")
    examples = root / "usr/share/doc/libqel-client-dev/examples/cpp"
    subprocess.run(["sh", "-ec", command], cwd=examples, check=True,
                   env={**os.environ, "PKG_CONFIG_PATH": str(pc_file.parent)})
    # There is no agent, which it says, and goes on.
    with subprocess.Popen([examples / "consumer", "web"], stderr=subprocess.PIPE, text=True,
                          env={**os.environ, "QEL_RUNTIME_DIRECTORY": str(folder)}) as consumer:
        assert "web: not attached: " in consumer.stderr.readline()
        consumer.terminate()
        assert consumer.wait(60) == 0


def test_the_documentation_leads_to_a_running_agent(host, reader):
    reader.follow("install.md", "On the broker")
    reader.follow("install.md", "First configuration")
    assert host.supervisor.is_running()
    assert host.owner("/etc/qel/broker.password") == "root:qel 640"
    assert host.owner("/var/lib/qel") == "qel:qel 700"
    assert host.owner("/run/qel") == "qel:qel 755"
    assert host.owner("/run/qel/apps/example.sock") == "qel:qel 660"


def test_and_to_a_first_configured_application(reader):
    assert 'orders.created: "hello"' in reader.follow("install.md", "The first configured application")


def test_the_other_pages_can_be_followed(reader):
    """In their order, each after the one before, on the host that they have led to."""
    for page, chapter in list(reader.untyped):
        if page not in ("install.md", "upgrade.md"):
            reader.follow(page, chapter)


class Agent:
    """What the application needs to know of the host's agent."""

    client_queue = "qel.client.host-1"

    def __init__(self, host):
        self._host = host

    def socket(self, name):
        return self._host.path(f"run/qel/apps/{name}.sock")

    def log_tail(self):
        return self._host.supervisor.log_tail()


class LoyalApplication(threading.Thread):
    """Takes every message, and attaches again whenever the agent goes away."""

    def __init__(self, agent):
        super().__init__(daemon=True)
        self.seen = set()
        self._agent = agent
        self._stopping = threading.Event()

    def run(self):
        while not self._stopping.is_set():
            with contextlib.suppress(grpc.RpcError, AssertionError), GrpcApplication(self._agent, APPLICATION) as one:
                while not one.ended and not self._stopping.is_set():
                    self.seen.update(one.take(patience=0.2))

    def stop(self):
        self._stopping.set()
        self.join(60)
        assert not self.is_alive()


class Publisher(threading.Thread):
    """Publishes numbered messages, each with a confirm, until it is stopped."""

    def __init__(self, url):
        super().__init__(daemon=True)
        self.confirmed = []
        self._url = url
        self._stopping = threading.Event()

    def run(self):
        with ManagementPlane(self._url) as plane:
            while not self._stopping.is_set():
                body = str(len(self.confirmed)).encode()
                plane.publish("qel", "orders.created", body)
                self.confirmed.append(body)

    def stop(self):
        self._stopping.set()
        self.join(60)
        assert not self.is_alive()


def newer(package, folder):
    """The package with a higher version."""
    tree = folder / "newer"
    subprocess.run(["dpkg-deb", "--raw-extract", package, tree], check=True)
    control = tree / "DEBIAN/control"
    control.write_text(re.sub(r"(?m)^(Version: .*)$", r"\1+1", control.read_text(encoding="utf-8")), encoding="utf-8")
    made = folder / package.name.replace("_", "_1+", 1)
    subprocess.run(["dpkg-deb", "--build", "--root-owner-group", tree, made], check=True, stdout=subprocess.DEVNULL)
    shutil.rmtree(tree)
    return made


def test_an_upgrade_loses_nothing(host, package, folder, node, plane, reader):
    agent = Agent(host)
    application, publisher = LoyalApplication(agent), Publisher(node.url())
    starts = host.supervisor.starts
    application.start()
    plane.configure(agent, APPLICATION, topics=["orders.created"])
    wait_until(lambda: "orders.created" in {key for _, _, key in node.list_bindings()}, "the topic to be bound")
    publisher.start()
    try:
        wait_until(lambda: len(application.seen) > 100, "messages to flow", 60, agent.log_tail)
        reader.follow("upgrade.md", "One host", newer(package, folder))
        assert host.supervisor.starts == starts + 1
        so_far = len(application.seen)
        wait_until(lambda: len(application.seen) > so_far + 100, "messages to flow again", 60, agent.log_tail)
    finally:
        publisher.stop()
    wait_until(lambda: application.seen >= set(publisher.confirmed), "every confirmed message", 60, agent.log_tail)
    application.stop()
    print(f"{len(publisher.confirmed)} messages confirmed across the upgrade, all taken")
    assert plane.count("qel.client.host-1.dead") == 0


def test_the_way_back_is_the_same(host, package, reader):
    reader.follow("upgrade.md", "Back", package)
    assert host.supervisor.is_running()
    reader.follow("upgrade.md", "A fleet", package)


def test_removed_is_stopped_and_keeps_its_configuration(host, reader):
    reader.follow("install.md", "Removing")
    assert not reader.untyped
    host.run("apt-get", "remove", "-y", "-q", "qel-agent")
    assert not host.supervisor.is_running()
    assert set(host.supervisor.statuses) == {0}
    assert host.path("etc/qel/qel.toml").exists()
    assert host.path("var/lib/qel/journal.sqlite").exists()


def test_purged_leaves_nothing(host):
    host.run("apt-get", "purge", "-y", "-q", "qel-agent")
    for path in ("etc/qel", "var/lib/qel", f"etc/systemd/system/multi-user.target.wants/{UNIT}"):
        assert not host.path(path).exists() and not host.path(path).is_symlink(), path
