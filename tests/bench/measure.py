#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Measures the daemon beside the least that it could cost.

Wants what scripts/bench builds, and is run by it. Programs take turns within a
round, so that a machine that gets slower gets slower for all of them; medians
of the rounds are what counts. Results that were saved earlier stay, but for the
groups that are measured again.
"""

import argparse
import json
import os
import platform
import re
import subprocess
import sys
from pathlib import Path

from floods import measure_floods
from growth import measure_growth
from iterations import measure_iterations
from memory import measure_memory
from objects import measure_objects
from processes import end_in_order
from sizes import measure_sizes
from table import Table
from times import measure_times
from tools import Tools

GROUPS = {
    "iterations": measure_iterations,
    "memory": measure_memory,
    "sizes": measure_sizes,
    "times": measure_times,
    "objects": measure_objects,
    "floods": measure_floods,
    "growth": measure_growth,
}


def parse(arguments):
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("root", type=Path, help="where scripts/bench has built")
    parser.add_argument("groups", nargs="*", choices=[[], *GROUPS], metavar="GROUP",
                        help=f"what to measure, all by default: {', '.join(GROUPS)}")  # fmt: skip
    parser.add_argument("--runs", type=int, default=7, help="rounds of runs (7)")
    parser.add_argument("--iterations", type=int, default=100,
                        help="iterations in a run (100)")  # fmt: skip
    parser.add_argument("--cycles", type=int, nargs="+", default=[10, 1000, 10_000],
                        help="power cycles after which growth is looked at")  # fmt: skip
    parser.add_argument("--check", action="store_true",
                        help="look at these arguments and measure nothing")  # fmt: skip
    parser.add_argument("--json", type=Path, help="where the results are saved")
    return parser.parse_intermixed_args(arguments)


def machine(tools):
    """What the results are of."""
    models = re.findall(r"^model name\s*: (.*)$", Path("/proc/cpuinfo").read_text(), re.MULTILINE)
    commands = json.loads((tools.root / "release/compile_commands.json").read_text())
    compiler = subprocess.run(
        [commands[0]["command"].split()[0], "--version"],
        capture_output=True, text=True, check=True,
    )  # fmt: skip
    return {
        "processors": os.cpu_count(),
        "model": models[0] if models else "unknown",
        "kernel": platform.release(),
        "machine": platform.machine(),
        "compiler": compiler.stdout.split("\n")[0],
    }


def commit():
    """What is measured, as git calls it."""
    done = subprocess.run(
        ["git", "-C", Path(__file__).parent, "describe", "--always", "--dirty"],
        capture_output=True, text=True,
    )  # fmt: skip
    return done.stdout.strip() or "unknown"


def earlier(options, of):
    """The results that were saved of this machine; none if there are none."""
    if options.json and options.json.exists():
        saved = json.loads(options.json.read_text())
        if saved["machine"] == of:
            return saved
    return {"machine": of, "sections": {}, "rows": []}


def save(results, file):
    """Writes the whole file or, where that fails, none of it."""
    beside = file.with_name(file.name + ".new")
    beside.write_text(json.dumps(results, indent=2) + "\n")
    beside.replace(file)


def main():
    options = parse(sys.argv[1:])
    if options.check:
        return
    end_in_order()
    tools = Tools(options.root.resolve())
    results = earlier(options, machine(tools))
    table = Table(results["rows"], lambda line: print(line, file=sys.stderr, flush=True))
    for name in options.groups or GROUPS:
        how = {"runs": options.runs, "commit": commit(), "load": os.getloadavg()[0]}
        table.begin(name)
        GROUPS[name](table, tools, options)
        table.sort([*GROUPS])
        results["sections"][name] = how
        results["rows"] = table.as_json()
        if options.json:  # at once, so that nothing is lost that comes before a failure
            save(results, options.json)
    print(table.as_text())


if __name__ == "__main__":
    main()
