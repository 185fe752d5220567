# SPDX-License-Identifier: Apache-2.0
"""Runs scenarios on their targets."""

import argparse
import contextlib
import itertools
import json
import queue
import signal
import subprocess
import sys
import tempfile
import threading
import time
from pathlib import Path

from . import compare, figures
from .container import BROKERS, ContainerPlayer
from .scenario import Malformed, parse
from .simulated import SimulatedPlayer
from .system import Failed
from .virtual import VirtualPlayer

TOP = Path(__file__).resolve().parents[2]
STAGE = TOP / "build/demo/stage"
PLACE = TOP / "build/scenarios"
TARGETS = ("simulated", "service", "virtual")

# How much of the timeline of a failed scenario is shown.
SHOWN = 60

# The exit status of what a computer lacks something for.
SKIPPED = 77


def arguments_of(words):
    parser = argparse.ArgumentParser(
        prog="scripts/scenarios",
        formatter_class=argparse.RawDescriptionHelpFormatter,
        description="""\
Builds, and runs scenarios on the targets that they name:

  simulated  morrow-board, a simulated board
  service    systemd in a container, with each of two brokers; needs root
  virtual    an ARM64 machine in QEMU

Without NAMEs, runs all of scenarios/. A target that cannot be had here is
skipped with what it lacks. Prints PASS or FAIL for each scenario, and leaves its
timeline in build/scenarios/TARGET. The last line is

  scenarios: N passed, N failed

The exit status is 0 when none failed, and 77 when all targets were skipped.""",
    )
    parser.add_argument("names", nargs="*", metavar="NAME", help="scenario or file")
    parser.add_argument(
        "--on", action="append", choices=TARGETS, metavar="TARGET",
        help="on this target alone; can be repeated",
    )  # fmt: skip
    parser.add_argument("--list", action="store_true", help="list the scenarios")
    parser.add_argument(
        "--compare", action="store_true",
        help="compare the timelines of two targets; simulated and virtual by default",
    )  # fmt: skip
    parser.add_argument(
        "--broker", choices=BROKERS,
        help="with this one; both in containers and dbus-broker in QEMU by default",
    )  # fmt: skip
    parser.add_argument("--jobs", type=int, help="how many virtual machines at a time")
    parser.add_argument(
        "--packages", action="store_true",
        help="in QEMU, with the Debian packages of the last commit",
    )  # fmt: skip
    parser.add_argument(
        "--shell", action="store_true",
        help="a shell on the virtual board instead; end it with exit or Ctrl-A x",
    )  # fmt: skip
    parser.add_argument(
        "--figures", action="store_true",
        help="measure the daemon on the virtual board instead (two minutes)",
    )  # fmt: skip
    arguments = parser.parse_args(words)
    if arguments.compare:
        arguments.on = arguments.on or ["simulated", "virtual"]
        # Its errors have other texts, and the daemon logs them.
        arguments.broker = arguments.broker or "dbus-daemon"
    if arguments.shell or arguments.figures:
        arguments.on = ["virtual"]
    arguments.on = [t for t in TARGETS if t in (arguments.on or TARGETS)]
    return arguments


def scenarios_of(names):
    """The scenarios of these names, or all."""
    paths = [
        Path(name) if name.endswith(".board") else TOP / f"scenarios/{name}.board"
        for name in names
    ] or sorted((TOP / "scenarios").glob("*.board"))
    return [parse(STAGE / "usr/bin/morrow-board", path) for path in paths]


def prepare(target, *words):
    """Makes what a target needs. Returns False where that is not possible here."""
    done = subprocess.run(
        [TOP / "scenarios/runner/prepare", target, *words], check=False
    )
    if done.returncode not in (0, SKIPPED):
        raise Failed(f"the target {target} cannot be prepared")
    return done.returncode == 0


@contextlib.contextmanager
def in_memory(directory):
    """Files that are made below it are gone afterwards."""
    made = not Path(directory).exists()
    Path(directory).mkdir(parents=True, exist_ok=True)
    subprocess.run(["mount", "-t", "tmpfs", "tmpfs", directory], check=True)
    try:
        yield Path(directory)
    finally:
        subprocess.run(["umount", "--recursive", "--lazy", directory], check=True)
        if made:
            Path(directory).rmdir()


@contextlib.contextmanager
def players_of(target, arguments):
    """What plays on this target, one for each broker; none where it cannot be
    had."""
    with contextlib.ExitStack() as stack:
        place = PLACE / target
        if target == "simulated":
            yield [SimulatedPlayer(STAGE / "usr/bin/morrow-board", place)]
        elif target == "service" and prepare(target):
            scratch = stack.enter_context(
                tempfile.TemporaryDirectory(prefix="morrow-scenarios-")
            )
            stack.enter_context(in_memory(scratch))
            stack.enter_context(in_memory("/run/systemd/nspawn"))
            layers = (STAGE, (place / "system").resolve())
            brokers = [arguments.broker] if arguments.broker else BROKERS
            yield [ContainerPlayer(b, layers, Path(scratch), place) for b in brokers]
        elif target == "virtual":
            broker = arguments.broker or "dbus-broker"
            packages = ["--packages"] if arguments.packages else []
            if prepare(target, broker, *packages):
                files = TOP / "build/virtual-board/image"
                yield [VirtualPlayer(broker, files, place, arguments.jobs)]
            else:
                yield []
        else:
            yield []


class Run:
    """Scenarios on one player: several at a time, and first what took longest
    when it was played last."""

    def __init__(self, player, scenarios):
        self.player = player
        self.file = player.place / "seconds.json"
        try:
            self.seconds = json.loads(self.file.read_text(encoding="ascii"))
        except (OSError, ValueError):
            self.seconds = {}
        self.waiting = queue.SimpleQueue()
        # One that is not known may be the longest.
        for one in sorted(scenarios, key=lambda s: -self.seconds.get(s.name, 3600)):
            self.waiting.put(one)
        self.expected = len(scenarios)
        self.passed = 0

    def finish(self):
        """Plays all. Returns how many passed and failed."""
        say(f"On {self.player.name}")
        threads = [
            threading.Thread(target=self._work, args=(number,), daemon=True)
            for number in range(min(self.player.jobs, self.expected))
        ]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.file.write_text(json.dumps(self.seconds), encoding="ascii")
        return self.passed, self.expected - self.passed

    def _work(self, number):
        try:
            with self.player.worker(number) as worker:
                with contextlib.suppress(queue.Empty):
                    while True:
                        self._play(worker, self.waiting.get_nowait())
        except (Failed, OSError, subprocess.SubprocessError) as error:
            print(f"FAIL {self.player.name}: {error}", flush=True)

    def _play(self, worker, scenario):
        began = time.monotonic()
        try:
            self.player.play(worker, scenario)
        except (Failed, OSError) as failure:
            why = str(failure)
            if f"{scenario.path.name}:" not in why:
                why = f"{scenario.name}: {why}"
            shown = getattr(failure, "shown", [])[-SHOWN:]
            text = "\n".join((f"FAIL {why}", *(f"    {line}" for line in shown)))
        else:
            took = time.monotonic() - began
            self.seconds[scenario.name] = took
            self.passed += 1
            text = f"PASS {scenario.name} ({took:.1f} s)"
        print(text, flush=True)


def say(text):
    print(f"==> {text}", flush=True)


def compared(places, scenarios):
    """Compares the timelines of each scenario. Returns how many agree and
    differ."""
    say("Comparing")
    counts = [0, 0]
    for scenario in scenarios:
        found = {
            name: compare.events_of(place / f"{scenario.name}.jsonl")
            for name, place in places.items()
            if name.split(",")[0] in scenario.targets
        }
        for one, other in itertools.islice(itertools.combinations(found, 2), 1):
            lines = compare.differences(found[one], found[other], (one, other))
            print(f"{'DIFFER' if lines else 'AGREE'} {scenario.name}", flush=True)
            for line in lines:
                print(f"    {line}")
            counts[bool(lines)] += 1
    return counts


def run(arguments):
    """Returns the exit status."""
    scenarios = scenarios_of(arguments.names)
    if arguments.list:
        # A reader may have enough of it.
        signal.signal(signal.SIGPIPE, signal.SIG_DFL)
        for one in scenarios:
            print(f"{one.name:<24}{' '.join(one.targets):<28}{one.about}")
        return 0
    counts, places = [], {}
    for target in arguments.on:
        chosen = [one for one in scenarios if target in one.targets]
        if not chosen:
            continue
        with players_of(target, arguments) as players:
            for player in players:
                if arguments.shell:
                    player.shell()
                    return 0
                if arguments.figures:
                    for name, value in figures.measure(player):
                        print(f"  {name:<32} {value:>10}")
                    return 0
                counts.append(Run(player, chosen).finish())
                places[player.name] = player.place
    if not counts:
        print("scenarios: no target that can be had here", file=sys.stderr)
        return SKIPPED
    if arguments.compare:
        counts.append(compared(places, scenarios))
    passed, failed = map(sum, zip(*counts))
    print(f"scenarios: {passed} passed, {failed} failed")
    return 1 if failed else 0


def main():
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    arguments = arguments_of(sys.argv[1:])
    try:
        return run(arguments)
    except (Malformed, Failed) as error:
        print(f"scenarios: {error}", file=sys.stderr)
        return 1
    except KeyboardInterrupt:
        return 130


if __name__ == "__main__":
    sys.exit(main())
