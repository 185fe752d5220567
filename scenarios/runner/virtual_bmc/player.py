# SPDX-License-Identifier: Apache-2.0
"""Plays stories, each on a machine of its own.

A story begins on a board that has just booted, with the daemon not yet started:
one machine boots and keeps its state, and each story goes on from a copy of it.
A story whose first word is `boot` begins by switching a machine on.
"""

import concurrent.futures
import hashlib
import json
import shutil
import subprocess
import time
from dataclasses import dataclass

from .board import Board, Differs
from .guest import Guest, GuestError
from .printer import lines_of
from .timeline import Timeline

# How much of what happened is shown when a story went otherwise.
SHOWN = 60


@dataclass
class Outcome:
    name: str
    seconds: float
    failure: str
    shown: list


class Player:
    """files: a directory with Image and initrd; place: a directory for what the
    machines leave behind, and for the state to go on from."""

    def __init__(self, files, place, cpu):
        self.files = files
        self.place = place
        self.cpu = cpu
        self.state = None
        self.machines = []

    def machine(self, name, timeline):
        """A machine that is still to be switched on."""
        console = self.place / f"{name}.console"
        console.unlink(missing_ok=True)
        machine = Guest(
            self.files, console, timeline.take_journal, timeline.take_bus, self.cpu
        )
        self.machines.append((machine, timeline))
        return machine

    def prepare(self):
        """Makes the state that stories go on from, unless it is there."""
        self.state = self.place / f"state-{self._key()}"
        if self.state.exists():
            return
        for old in self.place.glob("state-*"):
            if old.is_dir():
                shutil.rmtree(old)
            else:  # an earlier version's
                old.unlink()
        new = self.state.with_suffix(".new")
        new.mkdir()
        with self.machine("prepare", Timeline()) as guest:
            guest.boot("systemd.unit=board.target", "board.hold", state=new)
            guest.run("rm /run/board/hold")
            guest.save(new)
        new.rename(self.state)

    def play(self, story):
        """Gives the Outcome."""
        began = time.monotonic()
        timeline = Timeline()
        failure = ""
        try:
            with self.machine(story.name, timeline) as guest:
                self._begin(guest, story)
                story.play(Board(guest, timeline))
        except (Differs, GuestError) as error:
            failure = str(error)
        self._keep(story.name, timeline)
        shown = self._lines(timeline)[-SHOWN:] if failure else []
        return Outcome(story.name, time.monotonic() - began, failure, shown)

    def play_all(self, stories, jobs, on_outcome):
        """Plays them, so many at the same time, and first what took longest when
        it was played last."""
        seconds = self._seconds()
        # One that is not known may be the longest.
        stories = sorted(stories, key=lambda story: -seconds.get(story.name, 3600))
        pool = concurrent.futures.ThreadPoolExecutor(jobs)
        try:
            played = [pool.submit(self.play, story) for story in stories]
            for one in concurrent.futures.as_completed(played):
                outcome = one.result()
                seconds[outcome.name] = outcome.seconds
                on_outcome(outcome)
            self._seconds_file().write_text(json.dumps(seconds), encoding="ascii")
        finally:
            # There is something to end only where this was interrupted.
            pool.shutdown(wait=False, cancel_futures=True)
            for machine, timeline in self.machines:
                timeline.end()
                machine.end()

    def _seconds_file(self):
        return self.place / "seconds.json"

    def _seconds(self):
        """What each story took when it was played last."""
        try:
            return json.loads(self._seconds_file().read_text(encoding="ascii"))
        except (OSError, ValueError):
            return {}

    def _begin(self, guest, story):
        if story.boots:
            guest.boot(
                "systemd.unit=multi-user.target",
                "systemd.wants=board.target",
                f"systemd.setenv=HOST_STATE={story.lines[0].values[0]}",
            )
        else:
            guest.resume(self.state)

    def _key(self):
        qemu = ["qemu-system-aarch64", "--version"]
        version = subprocess.run(qemu, capture_output=True, check=True).stdout
        digest = hashlib.sha256(version + self.cpu.encode())
        digest.update((self.files / "initrd").read_bytes())
        digest.update(str((self.files / "Image").resolve()).encode())
        return digest.hexdigest()[:16]

    def _keep(self, name, timeline):
        events = timeline.sorted()
        path = self.place / f"{name}.jsonl"
        with path.open("w", encoding="utf-8") as file:
            for event in events:
                file.write(event.as_json(events[0].at) + "\n")

    @staticmethod
    def _lines(timeline):
        events = timeline.sorted()
        return lines_of(events, events[0].at) if events else []
