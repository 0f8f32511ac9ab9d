#!/usr/bin/env python3
"""Carries out one command with the user, the capabilities, the limits, the file systems and the system calls that a unit
gives it.

    unshare --mount sandbox.py prepare UNIT COMMAND...
                                         as root: mounts, user, capabilities, limits
    sandbox.py filter UNIT COMMAND...    as the user: system calls
"""

import errno
import os
import resource
import shutil
import socket
import subprocess
import sys
from pathlib import Path

from service_unit import Unit

OWN = os.path.abspath(__file__)
PROT_WRITE, PROT_EXEC = 2, 4
CLONE_NAMESPACES = 0x7E020080


def folders(unit):
    """What the unit may write to."""
    return [(os.path.join(parent, unit.one(key)), int(unit.one(f"{key}Mode"), 8))
            for key, parent in (("StateDirectory", "/var/lib"), ("LogsDirectory", "/var/log"))]


def mount(*arguments):
    subprocess.run(["mount", *arguments], check=True)


def hide_file_systems(unit):
    """What the unit says of files; the process has mounts of its own already."""
    for folder, mode in folders(unit):
        os.makedirs(folder, exist_ok=True)
        shutil.chown(folder, unit.one("User"), unit.one("Group"))
        os.chmod(folder, mode)
    if unit.one("ProtectSystem") == "strict":
        for folder, _ in folders(unit):
            mount("--bind", folder, folder)
        mount("-o", "remount,bind,ro", "/")
    if unit.one("PrivateTmp") == "yes":
        mount("-t", "tmpfs", "-o", "mode=1777", "tmpfs", "/tmp")


def prepare(unit, command):
    allowed_calls(unit)
    hide_file_systems(unit)
    # Not every machine for tests lets its root raise the limit, as systemd could.
    limit = min(int(unit.one("LimitNOFILE")), resource.getrlimit(resource.RLIMIT_NOFILE)[1])
    resource.setrlimit(resource.RLIMIT_NOFILE, (limit, limit))
    os.umask(int(unit.one("UMask"), 8))
    environment = {"PATH": "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin", "LANG": "C.UTF-8",
                   "USER": unit.one("User")}
    for name in ("NOTIFY_SOCKET", "WATCHDOG_USEC"):
        if name in os.environ:
            environment[name] = os.environ[name]

    def only(key):
        return ",".join(["-all", *("+" + name.removeprefix("CAP_").lower() for name in unit.one(key).split())])

    words = ["setpriv", "--reuid", unit.one("User"), "--regid", unit.one("Group"), "--init-groups",
             "--bounding-set", only("CapabilityBoundingSet"), "--inh-caps", only("AmbientCapabilities"),
             "--ambient-caps", only("AmbientCapabilities")]
    if unit.one("NoNewPrivileges") == "yes":
        words.append("--no-new-privs")
    os.execvpe("setpriv", [*words, sys.executable, OWN, "filter", unit.name, *command], environment)


def names_of(group):
    """The system calls of a group of systemd's, with those of the groups in it; a call is named by itself."""
    if not group.startswith("@"):
        return {group}
    said = subprocess.run(["systemd-analyze", "syscall-filter", group], stdout=subprocess.PIPE, text=True, check=True)
    names = set()
    for line in said.stdout.splitlines()[1:]:
        word = line.strip()
        if word.startswith("@"):
            names |= names_of(word)
        elif word and not word.startswith("#"):
            names.add(word)
    return names


def allowed_calls(unit):
    """Asked of systemd-analyze once, by root: that takes its time."""
    known = Path(f"/run/units/{unit.name}.calls")
    if known.exists():
        return set(known.read_text(encoding="ascii").split())
    allowed = set()
    for line in unit.values["SystemCallFilter"]:
        named = set().union(*(names_of(group) for group in line.removeprefix("~").split()))
        allowed = allowed - named if line.startswith("~") else allowed | named
    known.write_text(" ".join(allowed), encoding="ascii")
    return allowed


def restrict_calls(unit):
    import seccomp

    refuse = seccomp.ERRNO(getattr(errno, unit.one("SystemCallErrorNumber")))
    rules = seccomp.SyscallFilter(refuse)
    families = {int(getattr(socket, name)) for name in unit.one("RestrictAddressFamilies").split()}
    special = {"socket", "clone", "clone3", "unshare", "setns", "mmap", "mprotect", "pkey_mprotect", "shmat"}
    for name in allowed_calls(unit) - special | {"execve"}:
        try:
            rules.add_rule(seccomp.ALLOW, name)
        except RuntimeError:
            pass  # of another processor
    for family in families:
        rules.add_rule(seccomp.ALLOW, "socket", seccomp.Arg(0, seccomp.EQ, family))
    # RestrictNamespaces: none is made and none entered. The arguments of clone3 cannot be seen, so there it is said not to
    # exist, and clone is used.
    rules.add_rule(seccomp.ALLOW, "clone", seccomp.Arg(0, seccomp.MASKED_EQ, CLONE_NAMESPACES, 0))
    rules.add_rule(seccomp.ERRNO(errno.ENOSYS), "clone3")
    # MemoryDenyWriteExecute: no memory that is both, and none that becomes executable.
    rules.add_rule(seccomp.ALLOW, "mmap", seccomp.Arg(2, seccomp.MASKED_EQ, PROT_EXEC, 0))
    rules.add_rule(seccomp.ALLOW, "mmap", seccomp.Arg(2, seccomp.MASKED_EQ, PROT_WRITE | PROT_EXEC, PROT_EXEC))
    rules.add_rule(seccomp.ALLOW, "mprotect", seccomp.Arg(2, seccomp.MASKED_EQ, PROT_EXEC, 0))
    rules.load()


def main():
    step, unit, command = sys.argv[1], Unit(sys.argv[2]), sys.argv[3:]
    if step == "prepare":
        prepare(unit, command)
    restrict_calls(unit)
    os.execv(command[0], command)


if __name__ == "__main__":
    main()
