# SPDX-License-Identifier: Apache-2.0
"""What scripts/virtual-bmc runs once there is something to boot."""

import argparse
import signal
import sys
from pathlib import Path

from . import figures
from .guest import Guest, GuestError
from .player import Player
from .words import NotUnderstood, Story


def main():
    """Gives the exit status."""
    arguments = parse()
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    arguments.place.mkdir(parents=True, exist_ok=True)
    player = Player(arguments.files, arguments.place, arguments.cpu)
    try:
        stories = [Story(path) for path in arguments.stories]
        player.prepare()
        if arguments.shell:
            return shell(player)
        status = tell(player, stories, arguments)
        if arguments.figures:
            show_figures(player)
        return status
    except (NotUnderstood, GuestError) as error:
        print(f"virtual-bmc: {error}", file=sys.stderr)
        return 1
    except KeyboardInterrupt:
        return 130


def parse():
    parser = argparse.ArgumentParser()
    parser.add_argument("--files", type=Path, required=True)
    parser.add_argument("--place", type=Path, required=True)
    parser.add_argument("--cpu", default="max")
    parser.add_argument("--jobs", type=int, required=True)
    parser.add_argument("--shell", action="store_true")
    parser.add_argument("--figures", action="store_true")
    parser.add_argument("stories", nargs="*")
    return parser.parse_args()


def tell(player, stories, arguments):
    """Plays the stories and prints what became of them."""
    failed = []

    def show(outcome):
        verdict = "failed" if outcome.failure else "passed"
        print(f"  {outcome.name:<28} {verdict} {outcome.seconds:6.1f} s", flush=True)
        if outcome.failure:
            failed.append(outcome)

    player.play_all(stories, arguments.jobs, show)
    for outcome in failed:
        print(f"\n{outcome.name}: what happened at the end")
        print("\n".join(outcome.shown), flush=True)
    for outcome in failed:
        print(f"Not as told: {outcome.failure}", file=sys.stderr)
    # After what stands on standard error, also where both go into one file.
    sys.stderr.flush()
    print(f"virtual-bmc: {len(stories) - len(failed)} passed, {len(failed)} failed")
    return 1 if failed else 0


def show_figures(player):
    for name, value in figures.measure(player):
        print(f"  {name:<32} {value:>10}")


def shell(player):
    """Gives the terminal a shell on a board that has booted."""
    with Guest(player.files, None, lambda _: None, lambda _: None, player.cpu) as guest:
        guest.resume(player.state)
        guest.run("systemctl start --no-block board-shell")
        guest.wait()
    return 0


if __name__ == "__main__":
    sys.exit(main())
