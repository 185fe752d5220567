# SPDX-License-Identifier: Apache-2.0
"""Tells the stories in containers and says how each went.

    python3 -m service LOWER UPPER LOG [WORD...]
    python3 -m service --list

LOWER is the directory of a Debian system, UPPER that of the installed daemon
and board, to be laid over it; LOG is the file for what containers and boards
print. With WORDs, only stories whose function has one of them in its name are
told. The exit status is 0 when all went as told.

To be run in a mount namespace that is thrown away.
"""

import contextlib
import queue
import subprocess
import sys
import tempfile
import threading
import time
from pathlib import Path

from bus_peer import SOCKET, as_user
from service.board import Board
from service.machine import ENVIRONMENT, Failed, Machine, wait_for
from service.service import UNIT, Service
from service.stories import STORIES

# The unit that each broker comes with.
BROKERS = {
    "dbus-daemon": "/usr/lib/systemd/system/dbus.service",
    "dbus-broker": "/usr/lib/systemd/system/dbus-broker.service",
}

# For each broker. Stories mostly wait.
MACHINES = 2

# What the host-state service's package would bring.
HOST_POLICY = """\
<busconfig>
  <policy user="root">
    <allow own="xyz.openbmc_project.State.Host0"/>
  </policy>
  <policy context="default">
    <allow send_destination="xyz.openbmc_project.State.Host0"/>
  </policy>
</busconfig>
"""

# As strict as distributions for such boards are.
START_LIMIT = """\
[Manager]
DefaultStartLimitIntervalSec=30s
DefaultStartLimitBurst=2
"""

WELL = (
    "controller 0 well",
    "controller 1 well",
    "endpoint 0 answering",
    "endpoint 1 answering",
    "host answers",
    "host goes-to Off",
)


class World:
    """All that a story may use."""

    def __init__(self, machine, board):
        self.machine = machine
        self.board = board
        self.service = Service(machine)

    def make_well(self):
        self.service.systemctl("stop", UNIT)
        self.service.systemctl("reset-failed")
        self.board.reconnect()
        self.board.tell(*WELL)

    def broker(self):
        """The broker's process, 0 while there is none."""
        shown = self.service.systemctl("show", "-P", "MainPID", "dbus.service")
        return int(shown.stdout)

    def on_bus(self, user, action):
        """@return what the action returns for a connection of this user"""
        socket = Path(f"/proc/{self.machine.leader}/root{SOCKET}")
        return as_user(user, action, socket)

    def signal_broker(self, signal):
        self.service.systemctl("kill", f"--signal={signal}", "dbus.service")

    def kill_broker(self):
        """As if it had crashed; returns when systemd has seen it."""
        before = self.broker()
        self.signal_broker("KILL")
        wait_for("end of the broker", lambda: self.broker() != before)

    @contextlib.contextmanager
    def drop_in(self, *lines):
        """Settings for the service, as by systemctl edit."""
        directory = f"/run/systemd/system/{UNIT}.d"
        text = "\n".join(("[Service]", *lines, ""))
        self.machine.write(f"{directory}/story.conf", text)
        self.service.systemctl("daemon-reload")
        try:
            yield
        finally:
            self.machine.run("rm", "-r", directory)
            self.service.systemctl("daemon-reload")

    @contextlib.contextmanager
    def client_of_stopped_broker(self):
        """Somebody who has connected to the broker's socket and waits to be
        let in, which the broker will not do any more."""
        self.signal_broker("STOP")
        client = subprocess.Popen(
            self.machine.command("busctl", "list"),
            stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL,
            env=ENVIRONMENT,
        )
        try:
            time.sleep(1)
            if client.poll() is not None:
                raise Failed("the broker was not stopped")
            yield
        finally:
            client.kill()
            client.wait()


def write_settings(root, broker):
    """What a machine has besides a Debian system and the daemon."""
    files = {
        "etc/dbus-1/system.d/host.conf": HOST_POLICY,
        "etc/systemd/system.conf.d/start-limit.conf": START_LIMIT,
    }
    for name, text in files.items():
        (root / name).parent.mkdir(parents=True, exist_ok=True)
        (root / name).write_text(text)
    # Both brokers are there; this is the name that units know them by.
    alias = root / "etc/systemd/system/dbus.service"
    alias.parent.mkdir(parents=True)
    alias.symlink_to(BROKERS[broker])


def tell(story, world):
    """Tells one story.
    @return why it did not go as told, or None"""
    try:
        world.make_well()
        story(world)
    except (Failed, OSError) as failure:
        return str(failure) or repr(failure)
    return None


class Telling:
    """The stories for one broker, told on several machines at a time."""

    def __init__(self, broker, stories, layers, scratch, log):
        self.broker = broker
        self.waiting = queue.SimpleQueue()
        for story in stories:
            self.waiting.put(story)
        self.layers = layers
        self.scratch = scratch
        self.log = log
        self.passed = 0
        self.failed = 0
        self.threads = [
            threading.Thread(target=self._tell_all, args=(str(number),))
            for number in range(min(MACHINES, len(stories)))
        ]

    def _tell_all(self, number):
        scratch = self.scratch / f"{self.broker}-{number}"
        settings = scratch / "settings"
        settings.mkdir(parents=True)
        write_settings(settings, self.broker)
        layers = (settings, *self.layers)
        try:
            with (
                Machine(scratch.name, layers, [UNIT], scratch, self.log) as machine,
                Board(machine, self.log) as board,
            ):
                machine.write("/run/platform/io/CPU_VENDOR", "0\n")
                world = World(machine, board)
                while not self.waiting.empty():
                    with contextlib.suppress(queue.Empty):
                        self._tell(self.waiting.get_nowait(), world)
        except (Failed, OSError, subprocess.SubprocessError) as error:
            self._say(f"FAILED {self.broker}: no machine to tell it on: {error}")
            self.failed += 1

    def _tell(self, story, world):
        begin = time.monotonic()
        cursor = world.machine.now()
        why = tell(story, world)
        took = time.monotonic() - begin
        name = f"{took:3.0f} s  {self.broker}: {story.__doc__.strip()}"
        if why is None:
            self.passed += 1
            self._say(f"ok     {name}")
            return
        self.failed += 1
        journal = world.machine.run(
            "journalctl", "--no-pager", "-o", "short-precise",
            "--after-cursor", cursor,
        ).stdout  # fmt: skip
        journal = "\n".join(journal.splitlines()[-60:])
        self._say(f"FAILED {name}\n{story.__name__}: {why}\n{journal}")

    @staticmethod
    def _say(text):
        print(text, flush=True)


@contextlib.contextmanager
def in_memory(directory):
    """What is written below it is gone afterwards."""
    made = not Path(directory).exists()
    Path(directory).mkdir(parents=True, exist_ok=True)
    subprocess.run(["mount", "-t", "tmpfs", "tmpfs", directory], check=True)
    try:
        yield
    finally:
        subprocess.run(["umount", "--recursive", "--lazy", directory], check=True)
        if made:
            Path(directory).rmdir()


def main(lower, upper, log_path, *words):
    chosen = [s for s in STORIES if not words or any(w in s.__name__ for w in words)]
    if not chosen:
        print(f"no story has {' or '.join(words)} in its name", file=sys.stderr)
        return 2
    with (
        open(log_path, "w", encoding="utf-8") as log,
        tempfile.TemporaryDirectory(prefix="morrow-service-") as scratch,
        in_memory(scratch),
        in_memory("/run/systemd/nspawn"),
    ):
        tellings = [
            Telling(broker, chosen, (Path(upper), Path(lower)), Path(scratch), log)
            for broker in BROKERS
        ]
        threads = [thread for telling in tellings for thread in telling.threads]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
    passed = sum(telling.passed for telling in tellings)
    failed = sum(telling.failed for telling in tellings)
    print(f"{passed} stories passed, {failed} failed")
    return 1 if failed or passed != len(chosen) * len(BROKERS) else 0


def show():
    for story in STORIES:
        print(f"{story.__name__:40}{story.__doc__.strip()}")
    return 0


if __name__ == "__main__":
    sys.exit(show() if sys.argv[1:] == ["--list"] else main(*sys.argv[1:]))
