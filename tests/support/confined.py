#!/usr/bin/python3
"""Runs a program as the packaged unit does, as far as that can be done without systemd: as a user without privileges,
without capabilities, with the unit's umask, and under its system call filter, where a call that the unit would refuse
kills the process.

    confined.py USER PROGRAM ARGUMENT...
"""

import os
import pathlib
import pwd
import sys

import seccomp

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1]))
from support.unit import Unit  # noqa: E402


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
    user, program, *arguments = sys.argv[1:]
    unit = Unit()
    allowed = unit.allowed_calls()
    account = pwd.getpwnam(user)
    os.umask(int(unit.get("UMask"), 8))
    os.setgroups([])
    os.setgid(account.pw_gid)
    os.setuid(account.pw_uid)
    load_filter(allowed)
    os.execv(program, [program, *arguments])


if __name__ == "__main__":
    main()
