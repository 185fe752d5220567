# SPDX-License-Identifier: Apache-2.0
"""A machine with a systemd of its own: a container, booted from layers of
directories.

It has its own processes, mounts, network and broker, and shares the kernel
with the machine outside. What it writes is kept in memory and gone with it.
"""

import json
import os
import subprocess
import time
from pathlib import Path

# Longer than anything takes that is waited for.
LIMIT = 30

ENVIRONMENT = {
    "PATH": "/usr/sbin:/usr/bin:/sbin:/bin",
    "LC_ALL": "C",
    "SYSTEMD_COLORS": "0",
    "SYSTEMD_PAGER": "",
}


class Failed(Exception):
    """Something is not as it should be; the text says what."""


def wait_for(what, holds, limit=LIMIT):
    """Waits until holds() is true.
    @return what it gave"""
    end = time.monotonic() + limit
    while True:
        result = holds()
        if result:
            return result
        if time.monotonic() > end:
            raise Failed(f"no {what} within {limit} s")
        time.sleep(0.1)


def only_child(process):
    """The id of a process's child, or None while it has not just one."""
    text = Path(f"/proc/{process}/task/{process}/children").read_text()
    children = text.split()
    return int(children[0]) if len(children) == 1 else None


def own_cgroups(name):
    """Directories for control groups below this process's, one in each of the
    hierarchies in which a systemd keeps its services."""
    groups = {}
    for line in Path("/proc/self/cgroup").read_text().splitlines():
        _, controllers, group = line.split(":", 2)
        groups[controllers] = group.strip("/")
    directories = []
    for line in Path("/proc/self/mounts").read_text().splitlines():
        _, place, kind, options, *_ = line.split()
        if kind == "cgroup2":
            directories.append(Path(place) / groups[""] / name)
        elif kind == "cgroup" and "name=systemd" in options.split(","):
            directories.append(Path(place) / groups["name=systemd"] / name)
    return directories


class Machine:
    """Boots when it is entered and is off when it is left.

    To be made in a mount namespace that is thrown away."""

    def __init__(self, name, layers, units, scratch, log):
        """@param layers the directories that make its root, the upper first
        @param units what is enabled before it boots
        @param scratch a directory for it alone
        @param log a file for what it prints"""
        self.name = name
        self.layers = layers
        self.units = units
        self.root = scratch / "root"
        self.log = log
        self.cgroups = []
        self.container = None
        self.leader = None

    def __enter__(self):
        self._mount()
        command = [
            "systemd-nspawn", "--quiet", "--boot", "--console=pipe",
            f"--directory={self.root}", "--volatile=overlay",
            f"--machine=morrow-{os.getpid()}-{self.name}", "--register=no",
            "--private-network", "--bind=/dev/fuse",
        ]  # fmt: skip
        if not Path("/run/systemd/system").exists():
            # There is no systemd outside to give it a place of its own.
            command.append("--keep-unit")
            self.cgroups = own_cgroups(f"morrow-{os.getpid()}-{self.name}")
            for directory in self.cgroups:
                directory.mkdir()
            enter = "; ".join(f"echo 0 > {d}/cgroup.procs" for d in self.cgroups)
            command = ["sh", "-c", f'{enter}; exec "$@"', "sh", *command]
        self.container = subprocess.Popen(
            command,
            stdin=subprocess.DEVNULL,
            stdout=self.log,
            stderr=subprocess.STDOUT,
        )
        try:
            wait_for("boot of the container", self._has_booted)
        except BaseException:
            self.__exit__()
            raise
        return self

    def _mount(self):
        upper, work = self.root.with_name("upper"), self.root.with_name("work")
        for directory in (self.root, upper, work):
            directory.mkdir()
        layers = ":".join(map(str, self.layers))
        options = f"lowerdir={layers},upperdir={upper},workdir={work}"
        subprocess.run(
            ["mount", "-t", "overlay", "-o", options, "overlay", self.root], check=True
        )
        subprocess.run(
            ["systemctl", "--quiet", f"--root={self.root}", "enable", *self.units],
            check=True,
        )

    def __exit__(self, *_):
        # The second one does not wait for the services in it: there is nothing
        # to be kept.
        while self.container.poll() is None:
            self.container.terminate()
            time.sleep(0.2)
        for directory in self.cgroups:
            # The innermost first; a group is a directory that has only files.
            for group, _, _ in os.walk(directory, topdown=False):
                os.rmdir(group)

    def _has_booted(self):
        if self.container.poll() is not None:
            raise Failed("the container does not start: see the log")
        # Its first child goes when the second, which stays, is there.
        self.leader = only_child(self.container.pid)
        if self.leader is None:
            return False
        state = self.run("systemctl", "is-system-running", check=False).stdout
        return state.strip() in ("running", "degraded")

    def command(self, *arguments, user=None):
        """What runs these words in the machine."""
        words = ["nsenter", "--target", str(self.leader), "--all", "--"]
        if user is not None:
            words += ["setpriv", f"--reuid={user}", "--clear-groups", "--"]
        return words + [str(argument) for argument in arguments]

    def run(self, *arguments, check=True, user=None):
        """Runs a program in the machine.
        @return what subprocess says of it, with its output as text"""
        done = subprocess.run(
            self.command(*arguments, user=user),
            stdin=subprocess.DEVNULL,
            capture_output=True,
            text=True,
            check=False,
            env=ENVIRONMENT,
        )
        if check and done.returncode != 0:
            raise Failed(
                f"{' '.join(map(str, arguments))}: {done.stderr or done.stdout}".strip()
            )
        return done

    def write(self, path, text):
        """Writes a file in the machine."""
        file = Path(f"/proc/{self.leader}/root{path}")
        file.parent.mkdir(parents=True, exist_ok=True)
        file.write_text(text)

    def journal(self, *selection):
        """The journal's records, each as its fields."""
        self.run("journalctl", "--sync")
        text = self.run("journalctl", "-o", "json", "--no-pager", *selection).stdout
        return [json.loads(line) for line in text.splitlines()]

    def now(self):
        """Where the journal is, to be looked from."""
        records = self.journal("-n", "1")
        return records[-1]["__CURSOR"]
