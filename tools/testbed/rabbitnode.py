"""A private RabbitMQ node: own data folder, loopback only, free ports, no system service, nothing left behind."""

import collections
import glob
import json
import os
import pathlib
import shlex
import signal
import subprocess
import urllib.parse

from .processes import ProcessFailed, end, free_ports, listening, spawn, tail, wait_until

NODE_NAME = "qel@localhost"
START_ATTEMPTS = 5
TOOL_PATIENCE = 120.0


def programs_folder():
    """Where the package keeps the scripts that run as the caller; those in /usr/sbin switch to a system user."""
    found = sorted(glob.glob("/usr/lib/rabbitmq/lib/*/sbin"))
    if not found:
        raise ProcessFailed("no RabbitMQ below /usr/lib/rabbitmq (tools/setup installs the package rabbitmq-server)")
    return pathlib.Path(found[-1])


def _erlang(value):
    """A number, text or bytes as Erlang writes it."""
    if isinstance(value, int):
        return str(value)
    octets = value.encode() if isinstance(value, str) else value
    return f"<<{','.join(map(str, octets))}>>"


class RabbitNode:
    """One RabbitMQ node that lives in `folder` and ends with us.

    with RabbitNode("/tmp/x") as node:
        pika.BlockingConnection(pika.URLParameters(node.url()))

    Start it from a thread that lives as long as the node shall: the kernel kills the node and its epmd when that thread
    ends, however it ends. Stopped and started again it keeps its ports and its data.

    folder       created when missing; neither spaces nor other characters that need quoting (Erlang's start scripts)
    listeners    how many plain ports to listen on; `ports` has them, `port` is the first
    config_lines further lines for rabbitmq.conf
    tls          the folder with ca.pem, server.pem and server-key.pem: adds a TLS listener on `tls_port`, which takes
                 clients without a certificate and those with one that the authority has issued
    plugins      the broker's plugins to enable, with what they need
    Errors are ProcessFailed with the end of the node's log.
    """

    def __init__(self, folder, listeners=1, config_lines=(), tls=None, plugins=()):
        self.folder = pathlib.Path(folder).absolute()
        if shlex.quote(str(self.folder)) != str(self.folder):
            raise ValueError(f"the folder of a RabbitMQ node may not need quoting: {self.folder}")
        self.programs = programs_folder()
        self.name = NODE_NAME
        self.address = "127.0.0.1"
        self.ports = []
        self.tls_port = None
        self._listeners = listeners
        self._config_lines = list(config_lines)
        self._tls = pathlib.Path(tls).absolute() if tls else None
        self._plugins = list(plugins)
        self._epmd = None
        self._server = None
        self._completed_before = 0
        self._cookie = os.urandom(16).hex()
        self._environment = {}

    def __enter__(self):
        self.start()
        return self

    def __exit__(self, *_):
        self.stop()

    @property
    def port(self):
        return self.ports[0]

    @property
    def pid(self):
        """The pid of the Erlang machine, for signals; None while the node is down."""
        return self._server.pid if self._server else None

    def url(self, user="guest", password="guest", vhost="/", port=None):
        """The AMQP URL of the first (or the given) plain listener."""
        quoted = [urllib.parse.quote(part, safe="") for part in (user, password, vhost)]
        path = "" if vhost == "/" else quoted[2]
        return f"amqp://{quoted[0]}:{quoted[1]}@{self.address}:{port or self.port}/{path}"

    def tls_url(self, user=None, password=None, host="localhost"):
        """The AMQP URL of the TLS listener, with a login or none."""
        login = f"{user}:{password}@" if user else ""
        return f"amqps://{login}{host}:{self.tls_port}/"

    def start(self, patience=60.0):
        """Starts the node and returns when it accepts connections."""
        if self.ports:
            self.launch()
            self.wait_until_up(patience)
            return
        for attempt in range(1, START_ATTEMPTS + 1):
            self._choose_ports()
            try:
                self.launch()
                self.wait_until_up(patience)
                return
            except ProcessFailed:
                # Somebody else may take a port between our probe and the node's own bind.
                if attempt == START_ATTEMPTS or "eaddrinuse" not in self.log_tail(1000):
                    raise

    def launch(self):
        """Starts the node's processes without waiting for anything."""
        if self._server:
            raise ProcessFailed("the node is already running")
        self._completed_before = self._completed_starts()
        with open(self.folder / "out", "ab") as output:
            # Ours, so that the node does not leave a detached one behind.
            self._epmd = self._spawn(["epmd", "-port", self._environment["ERL_EPMD_PORT"], "-address", self.address],
                                     output)
            self._server = self._spawn([self.programs / "rabbitmq-server"], output)

    def wait_until_up(self, patience=60.0):
        """Waits until the launched node accepts connections; kills it when it does not."""
        wanted = self.ports + ([self.tls_port] if self._tls else [])
        try:
            # Both: a listener on our port alone may be somebody else's.
            wait_until(lambda: self._ended() or self._completed_starts() > self._completed_before
                       and all(listening(port, self.address) for port in wanted),
                       f"the RabbitMQ node {self.name} to listen", patience, self.log_tail)
            if self._ended():
                raise ProcessFailed(f"the RabbitMQ node {self.name} ended while it started\n{self.log_tail()}")
        except BaseException:
            self.kill()
            raise

    def stop(self, patience=30.0):
        """Stops the node in order. Harmless when it is down."""
        self._end(signal.SIGTERM, patience)

    def kill(self):
        """Ends the node as a crash of the machine would: SIGKILL."""
        self._end(signal.SIGKILL, 30.0)

    def write_down(self):
        """Makes the node write down which quorum queues there are, which it does about once a second by itself.

        One that was made just before a crash comes out of it without a leader, for good; no client can help that.
        """
        self.ctl("eval", "[dets:sync(Table) || Table <- dets:all()].")

    def restart(self):
        """Stops in order and starts again, same ports, same data."""
        self.stop()
        self.start()

    def ctl(self, *arguments, check=True):
        """Runs rabbitmqctl against this node and returns what it printed (0.4 s each: use sparingly).

        With check false the completed process is returned and its status is the caller's business.
        """
        done = self.tool("rabbitmqctl", "-q", *arguments)
        if not check:
            return done
        if done.returncode != 0:
            raise ProcessFailed(f"rabbitmqctl {' '.join(map(str, arguments))} ended with {done.returncode}: "
                                f"{done.stdout}{done.stderr}")
        return done.stdout

    def tool(self, program, *arguments):
        """Runs one of RabbitMQ's command line tools against this node and returns the completed process.

        @raises ProcessFailed when it does not end
        """
        try:
            return subprocess.run(
                list(map(str, self._placed([self.programs / program, "-n", self.name, *arguments]))),
                env=self._environment, stdin=subprocess.DEVNULL, capture_output=True, text=True,
                timeout=TOOL_PATIENCE, check=False)
        except subprocess.TimeoutExpired:
            raise ProcessFailed(f"{program} {' '.join(map(str, arguments))} did not end within {TOOL_PATIENCE:.0f} s\n"
                                f"{self.log_tail()}") from None

    def publish(self, exchange, routing_key, *bodies, vhost="/", **properties):
        """Publishes persistent messages inside of the node, for when it takes none from outside (an alarm)."""
        listed = ",".join(f"{{{name},{_erlang(value)}}}" for name, value in {"delivery_mode": 2, **properties}.items())
        self.ctl("eval", f"[rabbit_basic:publish(rabbit_misc:r({_erlang(vhost)},exchange,{_erlang(exchange)}),"
                         f"{_erlang(routing_key)},[{listed}],Body) || Body <- [{','.join(map(_erlang, bodies))}]].")

    def write_ctl_script(self, path):
        """Writes a program that runs rabbitmqctl for this node, for callers that are not Python. Returns its path."""
        exports = "".join(f"export {name}={shlex.quote(value)}\n" for name, value in sorted(self._environment.items()))
        script = pathlib.Path(path)
        command = shlex.join(map(str, self._placed([self.programs / "rabbitmqctl", "-q", "-n", self.name])))
        script.write_text(f'#!/bin/sh\n{exports}exec {command} "$@"\n', encoding="utf-8")
        script.chmod(0o755)
        return script

    def list_bindings(self, vhost="/"):
        """The bindings as a set of (exchange, queue, routing key), without those of the default exchange."""
        rows = self._table("list_bindings", vhost, "source_name", "destination_name", "routing_key")
        return {(row["source_name"], row["destination_name"], row["routing_key"]) for row in rows
                if row["source_name"]}

    def list_consumers(self, vhost="/"):
        """How many consumers each queue has that has any; exact, unlike the column of list_queues for quorum queues."""
        rows = self._table("list_consumers", vhost, "queue_name")
        return dict(collections.Counter(row["queue_name"] for row in rows))

    def list_queues(self, vhost="/", columns=("name", "messages")):
        """The queues as a dictionary: name to a dictionary of the columns."""
        return {row["name"]: row for row in self._table("list_queues", vhost, *{"name", *columns})}

    def log_tail(self, lines=40):
        """The end of the node's output and log, for error messages."""
        texts = [f"--- {path.name}\n{tail(path, lines)}"
                 for path in [self.folder / "out", *sorted((self.folder / "log").glob("*.log"))]]
        return "".join(texts)

    def _table(self, command, vhost, *columns):
        return json.loads(self.ctl(command, "-p", vhost, "--formatter", "json", *columns) or "[]")

    def _free_ports(self, count):
        return free_ports(count)

    def _choose_ports(self):
        chosen = self._free_ports(self._listeners + 4)
        epmd_port, dist_port, ctl_port, self.tls_port = chosen[:4]
        self.ports = chosen[4:]
        self._prepare_folder()
        self._environment = {
            "PATH": os.environ.get("PATH", "/usr/bin:/bin"),
            "LANG": "C.UTF-8",
            "HOME": str(self.folder / "home"),
            "ERL_CRASH_DUMP": str(self.folder / "erl_crash.dump"),
            "ERL_EPMD_PORT": str(epmd_port),
            "ERL_EPMD_ADDRESS": self.address,
            "RABBITMQ_NODENAME": self.name,
            "RABBITMQ_DIST_PORT": str(dist_port),
            "RABBITMQ_CTL_DIST_PORT_MIN": str(ctl_port),
            "RABBITMQ_CTL_DIST_PORT_MAX": str(ctl_port + 50),
            "RABBITMQ_MNESIA_BASE": str(self.folder / "mnesia"),
            "RABBITMQ_LOG_BASE": str(self.folder / "log"),
            "RABBITMQ_PID_FILE": str(self.folder / "pid"),
            "RABBITMQ_CONFIG_FILE": str(self.folder / "rabbitmq.conf"),
            "RABBITMQ_ENABLED_PLUGINS_FILE": str(self.folder / "enabled_plugins"),
            "RABBITMQ_ADVANCED_CONFIG_FILE": str(self.folder / "none"),
            "RABBITMQ_CONF_ENV_FILE": str(self.folder / "env.conf"),
            # The start script then becomes the Erlang machine instead of watching over it: one process, one pid.
            "RABBITMQ_ALLOW_INPUT": "true",
            "RABBITMQ_SERVER_ADDITIONAL_ERL_ARGS":
                f"-noinput -kernel inet_dist_use_interface {{{self.address.replace('.', ',')}}}",
        }

    def _prepare_folder(self):
        home = self.folder / "home"
        home.mkdir(parents=True, exist_ok=True)
        cookie = home / ".erlang.cookie"
        if not cookie.exists():
            cookie.write_text(self._cookie, encoding="ascii")
            cookie.chmod(0o600)
        (self.folder / "enabled_plugins").write_text(f"[{','.join(self._plugins)}].\n", encoding="ascii")
        (self.folder / "env.conf").write_text("", encoding="ascii")
        lines = [f"listeners.tcp.{index} = {self.address}:{port}" for index, port in enumerate(self.ports, 1)]
        if self._tls:
            lines += [f"listeners.ssl.1 = {self.address}:{self.tls_port}",
                      f"ssl_options.cacertfile = {self._tls / 'ca.pem'}",
                      f"ssl_options.certfile = {self._tls / 'server.pem'}",
                      f"ssl_options.keyfile = {self._tls / 'server-key.pem'}",
                      "ssl_options.verify = verify_peer", "ssl_options.fail_if_no_peer_cert = false"]
        (self.folder / "rabbitmq.conf").write_text("\n".join(lines + self._config_lines) + "\n", encoding="utf-8")

    def _spawn(self, command, output):
        return spawn(self._placed(command), env=self._environment, stdout=output, stderr=output)

    def _placed(self, command):
        """The command that runs `command` where the node is."""
        return command

    def _completed_starts(self):
        """How many starts the node's output tells of."""
        try:
            return (self.folder / "out").read_bytes().count(b" completed with ")
        except FileNotFoundError:
            return 0

    def _ended(self):
        return self._server.poll() is not None

    def _end(self, how, patience):
        for process in (self._server, self._epmd):
            if process:
                end(process, how, patience)
        self._server = self._epmd = None
