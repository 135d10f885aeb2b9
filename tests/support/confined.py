#!/usr/bin/python3
"""Runs a program as the packaged unit does, as far as that can be done without systemd: as a user without privileges,
without capabilities, with the unit's umask, and under its system call filter, where a call that the unit would refuse
kills the process.

    confined.py UNIT USER PROGRAM ARGUMENT...
"""

import os
import pwd
import subprocess
import sys

import seccomp


def unit_settings(path):
    """The lines of the section Service, as {name: [value, ...]} in their order."""
    settings = {}
    section = None
    with open(path, encoding="utf-8") as unit:
        for line in map(str.strip, unit):
            if line.startswith("["):
                section = line
            elif section == "[Service]" and "=" in line and not line.startswith("#"):
                name, _, value = line.partition("=")
                settings.setdefault(name, []).append(value)
    return settings


def calls_of(name):
    """The system calls of a name or, recursively, of a group, as systemd knows them."""
    if not name.startswith("@"):
        return {name}
    listed = subprocess.run(["systemd-analyze", "syscall-filter", "--no-pager", name], check=True, capture_output=True,
                            text=True).stdout.split("\n")
    entries = [line.strip() for line in listed[1:] if line.startswith("    ") and not line.strip().startswith("#")]
    return set().union(*map(calls_of, entries))


def allowed_calls(lines):
    """What the SystemCallFilter lines allow: the first says whether it is a list of what is allowed."""
    allowed = set()
    for line in lines:
        calls = set().union(*map(calls_of, line.lstrip("~").split()))
        allowed = allowed - calls if line.startswith("~") else allowed | calls
    return allowed


def load_filter(names):
    """From here on every other call kills the process."""
    calls = seccomp.SyscallFilter(defaction=seccomp.KILL_PROCESS)
    for name in names:
        try:
            calls.add_rule(seccomp.ALLOW, name)
        except (RuntimeError, ValueError):
            # A call of another architecture or of a newer kernel than the library knows.
            continue
    calls.load()


def main():
    unit, user, program, *arguments = sys.argv[1:]
    settings = unit_settings(unit)
    allowed = allowed_calls(settings["SystemCallFilter"])
    account = pwd.getpwnam(user)
    os.umask(int(settings["UMask"][-1], 8))
    os.setgroups([])
    os.setgid(account.pw_gid)
    os.setuid(account.pw_uid)
    load_filter(allowed)
    os.execv(program, [program, *arguments])


if __name__ == "__main__":
    main()
