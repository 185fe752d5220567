#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Changes the daemon in one small place at a time and runs the unit tests, which
must fail. See --help."""

import argparse
import collections
import fcntl
import os
import random
import signal
import sys
import threading
import time
from concurrent.futures import ThreadPoolExecutor, as_completed
from pathlib import Path

from explained import ListError, entries_of, explained_ids
from mutants import mutants_of
from scratch import Scratch, ScratchError

TOP = Path(__file__).resolve().parents[2]
PLACE = TOP / "build" / "mutate"

EXPLAINED = "docs/mutants.md"

DESCRIPTION = f"""\
Changes one small place in morrow/ at a time: another log level, a missing
statement, two statements or arguments swapped, another comparison, constant or
branch. Each mutant is built in a copy of the tree in build/mutate, and the unit
tests run until one fails. A mutant that survives is printed: a test is missing,
or the change has no effect.

A mutant without effect is listed in {EXPLAINED} with the reason. An entry there
that matches no mutant, or several, is an error.

Needs what scripts/test installs. Outcomes go to build/mutate/results.txt.
"""

EPILOGUE = """\
The exit status is 0 when every mutant was killed or is explained, 1 when one
survived, 2 when the tool failed.

examples:
  scripts/mutate                                  all of them (an hour)
  scripts/mutate --sample 100                     some of them
  scripts/mutate --file morrow/morrow_signal.cpp  those of a file
  scripts/mutate --list --file morrow/sleep.cpp   only list them
  scripts/mutate --only morrow/sleep.cpp:14:60:comparison
"""

# Lines at this distance are likely to be tested by the same program.
NEARBY = 20

OUTCOMES = ["killed", "timed out", "not compiling", "explained", "survived"]


class UsageError(Exception):
    """An error of the user, in one line."""


def main():
    options = parsed_options()
    mutants = mutants_of(sources())
    explained = explained_ids(
        entries_of((TOP / EXPLAINED).read_text(), EXPLAINED), mutants, EXPLAINED
    )
    chosen = selection(mutants, options)
    if options.list:
        # A reader may have enough of it.
        signal.signal(signal.SIGPIPE, signal.SIG_DFL)
        for mutant in chosen:
            print_mutant(mutant)
        kinds = collections.Counter(mutant.kind for mutant in chosen)
        counted = ", ".join(f"{number} {kind}" for kind, number in kinds.most_common())
        print(f"{len(chosen)} mutants: {counted}")
        return 0
    PLACE.mkdir(parents=True, exist_ok=True)
    with open(PLACE / "lock", "w") as lock:
        try:
            fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except OSError as error:
            raise UsageError("it runs already in this tree: wait for its end") from error
        print(f"Building {options.jobs} copies of the tree in build/mutate", flush=True)
        scratches = [Scratch(TOP, PLACE / str(n + 1)) for n in range(options.jobs)]
        in_parallel(Scratch.prepare, scratches)
        run = Run(chosen, explained)
        in_parallel(run.work_in, scratches)
    run.summarise()
    return 0 if run.counts["survived"] == 0 else 1


def parsed_options():
    parser = argparse.ArgumentParser(
        prog="scripts/mutate",
        description=DESCRIPTION,
        epilog=EPILOGUE,
        formatter_class=argparse.RawDescriptionHelpFormatter,
    )
    add = parser.add_argument
    add("--list", action="store_true", help="print the mutants alone")
    add("--file", action="append", metavar="PATH", help="those of this file")
    add("--only", action="append", metavar="ID", help="this one (see --list)")
    add("--sample", type=int, metavar="N", help="N of them, always the same")
    add(
        "--jobs",
        type=int,
        default=os.cpu_count(),
        metavar="N",
        help="mutants at a time (default: the number of processors)",
    )
    return parser.parse_args()


def sources():
    return {
        str(path.relative_to(TOP)): path.read_text()
        for path in (TOP / "morrow").iterdir()
        if path.suffix in (".cpp", ".hpp")
    }


def selection(mutants, options):
    chosen = mutants
    if options.file:
        chosen = [mutant for mutant in chosen if mutant.path in options.file]
    if options.only:
        chosen = [mutant for mutant in chosen if mutant.id in options.only]
    if options.sample is not None and options.sample < len(chosen):
        picked = random.Random(1).sample(range(len(chosen)), options.sample)
        chosen = [chosen[index] for index in sorted(picked)]
    if not chosen:
        raise UsageError("no such mutant: see scripts/mutate --list")
    return chosen


def print_mutant(mutant, remark=""):
    place = f" in {mutant.function}" if mutant.function else ""
    print(f"{mutant.id}{place}{remark}\n-{mutant.before}\n+{mutant.after}", flush=True)


def in_parallel(task, scratches):
    """Runs a task for each scratch copy; the first error ends them all."""
    with ThreadPoolExecutor(len(scratches)) as pool:
        try:
            tasks = [pool.submit(task, scratch) for scratch in scratches]
            for done in as_completed(tasks):
                done.result()
        except BaseException:
            for scratch in scratches:
                scratch.stop()
            raise


class Run:
    """Tries mutants and counts the outcomes."""

    def __init__(self, mutants, explained):
        self.waiting = collections.deque(mutants)
        self.total = len(mutants)
        self.explained = explained
        self.counts = collections.Counter()
        self.kinds = collections.defaultdict(collections.Counter)
        self.killers = collections.defaultdict(list)  # path -> (line, program)
        self.lock = threading.Lock()
        self.started = time.monotonic()
        # A line at a time: an interrupted run leaves what it has found.
        self.results = open(PLACE / "results.txt", "w", buffering=1)

    def work_in(self, scratch):
        while not scratch.stopped:
            with self.lock:
                if not self.waiting:
                    return
                mutant = self.waiting.popleft()
                order = self.order(mutant, scratch.programs)
            outcome, killer = scratch.try_out(mutant, order)
            if scratch.stopped:
                return
            with self.lock:
                self.take(mutant, outcome, killer)

    def order(self, mutant, programs):
        """The programs, the one most likely to fail first: it has killed a mutant
        nearby, or is named after the file, or is quick."""

        def rank(name):
            nearest = min(
                (
                    abs(line - mutant.line)
                    for line, program in self.killers[mutant.path]
                    if program == name
                ),
                default=10**6,
            )
            return nearest // NEARBY, name not in mutant.path, programs[name].limit

        return sorted(programs, key=rank)

    def take(self, mutant, outcome, killer):
        if outcome == "killed":
            self.killers[mutant.path].append((mutant.line, killer.split(":")[0]))
        if outcome == "survived" and mutant.id in self.explained:
            outcome = "explained"
        self.counts[outcome] += 1
        self.kinds[mutant.kind][outcome] += 1
        self.results.write(f"{mutant.id}\t{outcome}\t{killer}\n")
        if outcome == "survived":
            self.show_progress(erase=True)
            print_mutant(mutant, " survived")
        elif outcome == "killed" and mutant.id in self.explained:
            self.show_progress(erase=True)
            print_mutant(mutant, f" is explained, but killed by {killer}")
        self.show_progress()

    def show_progress(self, erase=False):
        if not sys.stdout.isatty():
            return
        done = sum(self.counts.values())
        survived = self.counts["survived"]
        line = f"{done} of {self.total}, {survived} survived"
        print("\r\x1b[K" + ("" if erase else line), end="", flush=True)

    def summarise(self):
        self.show_progress(erase=True)
        seconds = time.monotonic() - self.started
        width = max(len(kind) for kind in self.kinds)
        print(" " * width, *(f"{outcome:>13}" for outcome in OUTCOMES))
        for kind, counts in sorted(self.kinds.items()):
            print(f"{kind:{width}}", *(f"{counts[o]:13}" for o in OUTCOMES))
        detected = self.counts["killed"] + self.counts["timed out"]
        score = 100 * detected / max(1, detected + self.counts["survived"])
        numbers = ", ".join(f"{self.counts[o]} {o}" for o in OUTCOMES)
        print(f"{self.total} mutants: {numbers}; score {score:.1f} %")
        print(f"{seconds:.0f} s, {seconds / self.total:.1f} s a mutant")


if __name__ == "__main__":
    try:
        sys.exit(main())
    except KeyboardInterrupt:
        sys.exit(130)
    except (UsageError, ScratchError, ListError, OSError) as error:
        print(f"mutate: {error}", file=sys.stderr)
        sys.exit(2)
