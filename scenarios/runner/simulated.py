# SPDX-License-Identifier: Apache-2.0
"""The target `simulated`: morrow-board plays the scenario itself."""

import contextlib
import os
import subprocess

from .system import Failed


class SimulatedPlayer:
    """Plays each scenario on a board of its own."""

    name = "simulated"

    def __init__(self, program, place):
        self.program = program
        self.place = place
        self.jobs = 4 * os.cpu_count()  # they mostly wait
        self.place.mkdir(parents=True, exist_ok=True)

    def worker(self, _number):
        return contextlib.nullcontext()

    def play(self, _worker, scenario):
        """Plays it, and leaves its timeline.
        @raise Failed"""
        done = subprocess.run(
            [self.program, "--play", os.path.relpath(scenario.path),
             "--save", self.place / f"{scenario.name}.jsonl"],
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False,
        )  # fmt: skip
        if done.returncode != 0:
            *shown, last = done.stdout.splitlines()
            raise Failed(last.removeprefix("FAIL "), shown)
