#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Plants small faults in the daemon, one at a time, and sees whether the unit
tests notice. See --help."""

import argparse
import collections
import fcntl
import os
import random
import re
import sys
import threading
import time
from pathlib import Path

TOP = Path(__file__).resolve().parents[2]

# pylint: disable=wrong-import-position
from mutation.explained import ListError, entries_of, key_of, refuse_ambiguous
from mutation.faults import mutants_of
from mutation.scratch import Scratch, ScratchError

EXPLAINED = "docs/mutants.md"

DESCRIPTION = f"""\
Plants small faults in morrow/, one at a time: another log level, another
character in a text, a missing step, two steps or arguments in another order,
another comparison, constant or branch. Each one is built in a copy of the tree
under build/mutate, and the unit tests run on it until one fails. What no test
notices is printed; a test is missing there, or what was changed does not
matter.

What it needs is what scripts/test installs. Its outcomes are listed in
build/mutate/results.txt.

A mutant that does not matter is listed in {EXPLAINED} with the reason. An
entry there that matches no mutant any more is an error, and so is one that
does not say which of several places alike it means.
"""

EPILOGUE = """\
The exit status is 0 when every mutant was noticed or is explained, 1 when one
was not, 2 when the tool could not do its work.

examples:
  scripts/mutate                                  all of them (an hour)
  scripts/mutate --sample 100                     some of them
  scripts/mutate --file morrow/morrow_signal.cpp  those of a file
  scripts/mutate --list --file morrow/sleep.cpp   what they are
  scripts/mutate --only morrow/sleep.cpp:14:60:comparison
"""

# Lines that are that near to each other are likely to be tested together.
NEARBY = 20

OUTCOMES = ["killed", "timed out", "not compiling", "explained", "survived"]


class UsageError(Exception):
    """What the user got wrong, as one line."""


def main():
    options = parsed_options()
    mutants = mutants_of(sources())
    entries = explained_entries()
    refuse_ambiguous(entries, mutants, EXPLAINED)
    stale = stale_entries(entries, mutants)
    chosen = selection(mutants, options)
    if options.list:
        for mutant in chosen:
            print_mutant(mutant)
        print(f"{len(chosen)} mutants: {by_kind(chosen)}")
        return 0
    run = Run(chosen, {entry.key for entry in entries})
    with Workshop(options.jobs) as scratches:
        run.work(scratches)
    run.summarise()
    for entry in stale:
        print(f"{EXPLAINED}:{entry.line}: explained, but not there any more")
    return 0 if not stale and run.counts["survived"] == 0 else 1


def parsed_options():
    parser = argparse.ArgumentParser(
        prog="scripts/mutate",
        description=DESCRIPTION,
        epilog=EPILOGUE,
        formatter_class=argparse.RawDescriptionHelpFormatter,
    )
    add = parser.add_argument
    add("--list", action="store_true", help="print the mutants and plant none")
    add("--file", action="append", metavar="PATH", help="those of this file")
    add("--kind", action="append", metavar="KIND", help="those of this kind")
    add("--only", action="append", metavar="ID", help="this one (see --list)")
    add("--sample", type=int, metavar="N", help="N of them, picked at random")
    add("--seed", type=int, default=1, help="another sample (default: 1)")
    add("--shard", metavar="K/N", help="the K-th of N equal parts, from 1")
    add(
        "--jobs",
        type=int,
        default=os.cpu_count(),
        metavar="N",
        help="so many at a time (default: one for each processor)",
    )
    return parser.parse_args()


def sources():
    return {
        str(path.relative_to(TOP)): path.read_text()
        for path in (TOP / "morrow").iterdir()
        if path.suffix in (".cpp", ".hpp")
    }


def explained_entries():
    path = TOP / EXPLAINED
    return entries_of(path.read_text(), EXPLAINED) if path.exists() else []


def stale_entries(entries, mutants):
    keys = {key_of(mutant) for mutant in mutants}
    return [entry for entry in entries if entry.key not in keys]


def selection(mutants, options):
    chosen = mutants
    if options.file:
        chosen = [mutant for mutant in chosen if mutant.path in options.file]
    if options.kind:
        chosen = [mutant for mutant in chosen if mutant.kind in options.kind]
    if options.only:
        chosen = [mutant for mutant in chosen if mutant.id in options.only]
    if options.sample is not None and options.sample < len(chosen):
        picked = random.Random(options.seed).sample(range(len(chosen)), options.sample)
        chosen = [chosen[index] for index in sorted(picked)]
    if options.shard:
        match = re.fullmatch(r"(\d+)/(\d+)", options.shard)
        part, parts = (int(number) for number in match.groups()) if match else (0, 0)
        if not 1 <= part <= parts:
            raise UsageError(f"--shard {options.shard}: it is K/N with K from 1 to N")
        chosen = chosen[part - 1 :: parts]
    if not chosen:
        raise UsageError("no mutant is like that: see scripts/mutate --list")
    return chosen


def print_mutant(mutant, remark=""):
    place = f" in {mutant.function}" if mutant.function else ""
    print(f"{mutant.id}{place}{remark}\n-{mutant.before}\n+{mutant.after}", flush=True)


def by_kind(mutants):
    counts = collections.Counter(mutant.kind for mutant in mutants)
    return ", ".join(f"{number} {kind}" for kind, number in counts.most_common())


class Workshop:
    """Scratch copies of the tree, for this run alone."""

    def __init__(self, number):
        place = TOP / "build" / "mutate"
        try:
            place.mkdir(parents=True, exist_ok=True)
            self.lock = open(place / "lock", "w")
        except OSError as error:
            raise UsageError(
                f"cannot write in {place}, where everything is built: run this in"
                " a copy of the tree that you may write to"
            ) from error
        try:
            fcntl.flock(self.lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except OSError:
            raise UsageError("another scripts/mutate runs in this tree: wait for it")
        self.scratches = [Scratch(TOP, place / str(n + 1)) for n in range(number)]

    def __enter__(self):
        print(
            f"Building {len(self.scratches)} copies of the tree in build/mutate",
            flush=True,
        )
        try:
            in_parallel(
                [scratch.prepare for scratch in self.scratches],
                self.scratches,
            )
        except BaseException:
            self.lock.close()
            raise
        return self.scratches

    def __exit__(self, *_):
        self.lock.close()


def in_parallel(tasks, scratches):
    """Runs tasks in threads; the first error ends them all and is raised."""
    errors = []

    def guarded(task):
        try:
            task()
        except Exception as error:  # pylint: disable=broad-except
            errors.append(error)
            for scratch in scratches:
                scratch.stop()

    threads = [threading.Thread(target=guarded, args=(task,)) for task in tasks]
    for thread in threads:
        thread.start()
    try:
        for thread in threads:
            thread.join()
    except KeyboardInterrupt:
        for scratch in scratches:
            scratch.stop()
        for thread in threads:
            thread.join()
        raise
    if errors:
        raise errors[0]


class Run:
    """Tries mutants out and counts what became of them."""

    def __init__(self, mutants, explained):
        self.waiting = collections.deque(mutants)
        self.total = len(mutants)
        self.explained = explained
        self.counts = collections.Counter()
        self.kinds = collections.defaultdict(collections.Counter)
        self.killers = collections.defaultdict(list)  # path -> (line, program)
        self.lock = threading.Lock()
        self.started = None

    def work(self, scratches):
        self.started = time.monotonic()
        self.results = open(TOP / "build" / "mutate" / "results.txt", "w")
        with self.results:
            in_parallel(
                [lambda s=scratch: self.work_in(s) for scratch in scratches],
                scratches,
            )

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
        """The programs, the one most likely to notice a mutant first: it has
        noticed one nearby, or is named after the file, or is quick."""

        def likeliness(name):
            nearest = min(
                (
                    abs(line - mutant.line)
                    for line, program in self.killers[mutant.path]
                    if program == name
                ),
                default=10**6,
            )
            return nearest // NEARBY, name not in mutant.path, programs[name].limit

        return sorted(programs, key=likeliness)

    def take(self, mutant, outcome, killer):
        if outcome == "killed":
            self.killers[mutant.path].append((mutant.line, killer.split(":")[0]))
        if outcome == "survived" and key_of(mutant) in self.explained:
            outcome = "explained"
        self.counts[outcome] += 1
        self.kinds[mutant.kind][outcome] += 1
        self.results.write(f"{mutant.id}\t{outcome}\t{killer}\n")
        self.results.flush()
        if outcome == "survived":
            self.show_progress(erase=True)
            print_mutant(mutant, " survived")
        elif outcome == "killed" and key_of(mutant) in self.explained:
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
        noticed = self.counts["killed"] + self.counts["timed out"]
        score = 100 * noticed / max(1, noticed + self.counts["survived"])
        numbers = ", ".join(f"{self.counts[o]} {o}" for o in OUTCOMES)
        print(f"planted {self.total}: {numbers}; score {score:.1f} %")
        print(f"{seconds:.0f} s, {seconds / self.total:.1f} s a mutant")


if __name__ == "__main__":
    try:
        sys.exit(main())
    except KeyboardInterrupt:
        sys.exit(130)
    except (UsageError, ScratchError, ListError) as error:
        print(f"mutate: {error}", file=sys.stderr)
        sys.exit(2)
