# SPDX-License-Identifier: Apache-2.0
"""A copy of the tree with a build of its own, in which mutants are built and
tested one after the other. The original tree is never changed.
"""

import json
import os
import shutil
import signal
import subprocess
import time
from pathlib import Path

# The limit for a test program: so many times its time without a mutant, and so
# many seconds more.
TIME_FACTOR = 10
TIME_RESERVE_SECONDS = 15

# The timeout of a test's wait. Most mutants prevent the event, so a long one
# makes the run long.
WAIT_SECONDS = 5

# For the compiler, which a mutant can send into an endless evaluation.
BUILD_SECONDS = 300


class ScratchError(Exception):
    """Why a scratch copy cannot be used, in one line."""


class Scratch:
    """Used by one thread at a time."""

    def __init__(self, original, place):
        self.original = original
        self.tree = place / "tree"
        self.build = place / "build"
        self.programs = {}
        self.processes = set()
        self.stopped = False

    def prepare(self):
        """Copies what is new, builds it, and runs the tests on it."""
        self._copy()
        self._configure()
        self.programs = self._unit_tests()
        for program in self.programs.values():
            if not self._make(program):
                log = self.build / "mutate.log"
                log.write_text(self.output)
                raise ScratchError(f"{program.name}: does not build: see {log}")
            started = time.monotonic()
            failed = program.failing_test(self, BUILD_SECONDS)
            if failed:
                raise ScratchError(
                    f"{program.name}: {failed} fails without a mutant: fix that first"
                )
            program.limit = TIME_FACTOR * (time.monotonic() - started)
            program.limit += TIME_RESERVE_SECONDS

    def try_out(self, mutant, order):
        """Builds a mutant and runs the test programs in this order until one
        fails. @return the outcome, and the program and test that killed it"""
        file = self.tree / mutant.path
        original = file.read_text()
        file.write_text(mutant.text)
        try:
            for name in order:
                program = self.programs[name]
                if not self._make(program):
                    return "not compiling", ""
                failed = program.failing_test(self, program.limit)
                if failed == TIMED_OUT:
                    return "timed out", name
                if failed:
                    return "killed", f"{name}: {failed}"
            return "survived", ""
        finally:
            file.write_text(original)

    def run(self, command, limit, environment=()):
        """Runs a command with all that it starts.
        @return exit status and output; no status when it took too long"""
        process = subprocess.Popen(
            command,
            cwd=self.build,
            env={**os.environ, **dict(environment)},
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            start_new_session=True,
            text=True,
            errors="replace",
        )
        self.processes.add(process)
        try:
            if self.stopped:
                end_session(process)
            output, _ = process.communicate(timeout=limit)
            return process.returncode, output
        except subprocess.TimeoutExpired:
            end_session(process)
            process.communicate()
            return None, ""
        finally:
            self.processes.discard(process)

    def stop(self):
        """Ends what runs, from another thread."""
        self.stopped = True
        for process in list(self.processes):
            end_session(process)

    def _copy(self):
        """Makes the copy equal to the original; equal files keep their time."""
        self.tree.mkdir(parents=True, exist_ok=True)
        for path in {*files_of(self.original), *files_of(self.tree)}:
            original, copy = self.original / path, self.tree / path
            if not original.exists():
                copy.unlink()
            elif not copy.exists() or copy.read_bytes() != original.read_bytes():
                copy.parent.mkdir(parents=True, exist_ok=True)
                shutil.copy(original, copy)

    def _configure(self):
        complete = self.build / "setup-complete"
        if complete.exists():
            return
        # An interrupted setup leaves what Meson neither uses nor repairs.
        shutil.rmtree(self.build, ignore_errors=True)
        self.build.mkdir()
        status, output = self.run(
            ["meson", "setup", str(self.build), str(self.tree)]
            + ["-Doptimization=0", "-Ddebug=false"],
            BUILD_SECONDS,
        )
        if status != 0:
            raise ScratchError(f"meson setup fails: {last_line(output)}")
        complete.touch()

    def _unit_tests(self):
        status, output = self.run(["ninja", "build.ninja"], BUILD_SECONDS)
        if status != 0:
            raise ScratchError(f"meson fails: {last_line(output)}")
        files = {
            target["id"]: [os.path.relpath(file, self.build) for file in target["filename"]]
            for target in self._introspect("targets")
        }
        place = str(self.build / "tests" / "unit")
        programs = {
            test["name"]: Program(test, [f for id in test["depends"] for f in files[id]])
            for test in self._introspect("tests")
            if any(part.startswith(place) for part in test["cmd"])
        }
        if not programs:
            raise ScratchError("no unit tests: are gtest and gmock installed?")
        return programs

    def _introspect(self, what):
        file = self.build / "meson-info" / f"intro-{what}.json"
        return json.loads(file.read_text())

    def _make(self, program):
        status, self.output = self.run(
            ["ninja", "-j1"] + program.targets, BUILD_SECONDS
        )
        return status == 0


TIMED_OUT = "timed out"


class Program:
    """A unit test program, as Meson runs it."""

    def __init__(self, test, targets):
        self.name = test["name"]
        self.command = test["cmd"] + ["--jobs=4", "--fail-fast"]
        self.environment = {
            **test["env"],
            "TEST_TIMEOUT_SECONDS": str(WAIT_SECONDS),
        }
        self.targets = targets
        self.limit = None

    def failing_test(self, scratch, limit):
        """The first test that fails, empty when all pass."""
        status, output = scratch.run(self.command, limit, self.environment)
        if status is None:
            return TIMED_OUT
        for line in output.splitlines():
            if line.startswith("not ok "):
                return line.split(" - ", 1)[-1]
        return "" if status == 0 else f"exit status {status}"


def files_of(tree):
    """The paths of a tree's files, below it; without builds and hidden ones."""
    for top in tree.iterdir():
        if not top.name.startswith(("build", ".")):
            for path in (top, *top.rglob("*")):
                if path.is_file():
                    yield path.relative_to(tree)


def end_session(process):
    """Ends a process that leads a session, with all that it started."""
    try:
        os.killpg(process.pid, signal.SIGKILL)
    except ProcessLookupError:
        pass  # it has ended by itself


def last_line(output):
    lines = output.strip().splitlines()
    return lines[-1] if lines else "no output"
