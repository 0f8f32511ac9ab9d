"""Reads a unit of systemd with its drop-ins, as far as the units of this package go."""

import fnmatch
import re
from pathlib import Path

FOLDERS = (Path("/etc/systemd/system"), Path("/usr/lib/systemd/system"), Path("/lib/systemd/system"))

# What does nothing that could be carried out without systemd: limits on devices, clocks, keys and the like.
LEFT_TO_SYSTEMD = {
    "DevicePolicy", "KeyringMode", "LockPersonality", "NotifyAccess", "PrivateDevices", "ProcSubset", "ProtectClock",
    "ProtectControlGroups", "ProtectHome", "ProtectHostname", "ProtectKernelLogs", "ProtectKernelModules",
    "ProtectKernelTunables", "ProtectProc", "RemoveIPC", "Restart", "RestartPreventExitStatus", "RestartSec",
    "RestrictRealtime", "RestrictSUIDSGID", "SystemCallArchitectures"}
CARRIED_OUT = {
    "AmbientCapabilities", "CapabilityBoundingSet", "ExecReload", "ExecStart", "ExecStartPre", "ExecStop", "Group",
    "KillMode", "LimitNOFILE", "LogsDirectory", "LogsDirectoryMode", "MemoryDenyWriteExecute", "NoNewPrivileges",
    "PrivateTmp", "ProtectSystem", "RestrictAddressFamilies", "RestrictNamespaces", "StateDirectory",
    "StateDirectoryMode", "SystemCallErrorNumber", "SystemCallFilter", "Type", "UMask", "User", "WatchdogSec"}


class Unit:
    """The section [Service] of one instance: each setting with its values, specifiers replaced."""

    def __init__(self, name):
        self.name = name
        found = re.fullmatch(r"([^@]+@)([^@]+)\.service", name)
        if not found:
            raise ValueError(f"{name} is no instance of a template")
        self.instance = found.group(2)
        template = f"{found.group(1)}.service"
        files = [folder / template for folder in FOLDERS if (folder / template).exists()]
        if not files:
            raise FileNotFoundError(f"Unit {name} not found.")
        self.values = {}
        self._read(files[0])
        for drop_in in sorted(Path(f"/etc/systemd/system/{name}.d").glob("*.conf")):
            self._read(drop_in)
        if strange := set(self.values) - LEFT_TO_SYSTEMD - CARRIED_OUT:
            raise ValueError(f"{name} has settings that are not known here: {', '.join(sorted(strange))}")

    def _read(self, file):
        section = None
        for line in file.read_text(encoding="utf-8").splitlines():
            if line.startswith("["):
                section = line
            elif section == "[Service]" and "=" in line and not line.startswith(("#", ";")):
                key, _, value = line.partition("=")
                value = value.replace("%i", self.instance)
                if key.startswith("Exec") or key == "SystemCallFilter":
                    self.values.setdefault(key, []).append(value)
                else:
                    self.values[key] = [value]

    def one(self, key, default=None):
        """The value of a setting that has one; those of words are kept as a text."""
        return self.values.get(key, [default])[-1]

    def commands(self, key):
        """Each as a list of words; none of them needs quotes."""
        return [line.split() for line in self.values.get(key, [])]

    def seconds(self, key):
        text = self.one(key)
        return None if text is None else float(re.fullmatch(r"([\d.]+)s", text).group(1))


def instances(pattern, folder):
    """The names of files in a folder that match the pattern of a unit's name."""
    return sorted(path.name for path in folder.glob("*") if fnmatch.fnmatch(path.name, pattern))
