"""Child processes that end with their owner, free ports, bounded waits."""

import random
import signal
import socket
import subprocess
import time


class ProcessFailed(Exception):
    """A process did not do what was waited for; the text says which, what, and shows the end of its log."""


def spawn(command, **options):
    """Starts `command` in a session of its own; the kernel kills it when the thread that called us ends.

    A terminal's Ctrl-C therefore does not reach it, and a killed owner leaves nothing behind.
    """
    options.setdefault("stdin", subprocess.DEVNULL)
    guarded = ["setpriv", "--pdeathsig", "KILL", *map(str, command)]
    return subprocess.Popen(guarded, start_new_session=True, **options)


def end(process, how=signal.SIGTERM, patience=30.0):
    """Signals a process and waits for its end; kills it when it does not end in `patience` seconds.

    Returns the exit status, or None when it had to be killed although something milder was asked for.
    """
    if process.poll() is not None:
        return process.returncode
    process.send_signal(how)
    try:
        return process.wait(patience)
    except subprocess.TimeoutExpired:
        process.kill()
        process.wait()
        return None


def free_ports(count):
    """Distinct loopback ports that nobody listens on.

    They lie below the range from which the kernel takes ports for outgoing connections, so that a server that is
    down for a while gets its port back.
    """
    with open("/proc/sys/net/ipv4/ip_local_port_range", encoding="ascii") as limits:
        first_ephemeral = int(limits.read().split()[0])
    probes = []
    try:
        while len(probes) < count:
            probe = socket.socket()
            try:
                probe.bind(("127.0.0.1", random.randrange(10240, max(first_ephemeral, 20480))))
            except OSError:
                probe.close()
                continue
            probes.append(probe)
        return [probe.getsockname()[1] for probe in probes]
    finally:
        for probe in probes:
            probe.close()


def listening(port, host="127.0.0.1"):
    """Whether somebody accepts connections on the port."""
    try:
        with socket.create_connection((host, port), timeout=1.0):
            return True
    except OSError:
        return False


def wait_until(condition, what, patience=30.0, diagnose=None):
    """Polls until `condition()` is true-ish and returns its value.

    @raises ProcessFailed after `patience` seconds, naming `what`, with the text that `diagnose()` returns.
    """
    deadline = time.monotonic() + patience
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            details = "\n" + diagnose() if diagnose else ""
            raise ProcessFailed(f"waited {patience:.0f} s in vain for {what}{details}")
        time.sleep(0.02)


def tail(path, lines=40):
    """The last lines of a text file, for error messages; a text that says so when there is no such file."""
    try:
        with open(path, encoding="utf-8", errors="replace") as text:
            return "".join(text.readlines()[-lines:])
    except OSError as error:
        return f"({error})\n"
