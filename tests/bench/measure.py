#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Measures the daemon and the baseline, the least that it could cost.

scripts/bench builds what this needs, and runs it. Medians of rounds are kept.
Saved results of the same machine are kept for groups that are not measured.
"""

import argparse
import json
import os
import platform
import re
import subprocess
import sys
from pathlib import Path

from board_session import Tools
from groups import GROUPS
from process_cost import exit_on_signals
from results import Table, write_document


def parse(arguments):
    parser = argparse.ArgumentParser(description=__doc__.split("\n", maxsplit=1)[0])
    parser.add_argument("root", type=Path, help="the directory that scripts/bench builds in")
    parser.add_argument("groups", nargs="*", choices=[[], *GROUPS], metavar="GROUP",
                        help=f"what to measure (default: all): {', '.join(GROUPS)}")  # fmt: skip
    parser.add_argument("--runs", type=int, default=7, help="rounds (7)")
    parser.add_argument("--iterations", type=int, default=100,
                        help="iterations in a run (100)")  # fmt: skip
    parser.add_argument("--cycles", type=int, nargs="+", default=[10, 1000, 10_000],
                        help="power cycles after which growth is looked at")  # fmt: skip
    parser.add_argument("--check", action="store_true", help="check these arguments alone")
    parser.add_argument("--document", type=Path, help="write saved results into this file alone")
    return parser.parse_intermixed_args(arguments)


def machine(root):
    cpu = Path("/proc/cpuinfo").read_text()
    models = re.findall(r"^model name\s*: (.*)$", cpu, re.MULTILINE)
    commands = json.loads((root / "release/compile_commands.json").read_text())
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
    done = subprocess.run(
        ["git", "-C", Path(__file__).parent, "describe", "--always", "--dirty"],
        capture_output=True, text=True,
    )  # fmt: skip
    return done.stdout.strip() or "unknown"


def saved_results(file, of):
    """The saved results of this machine, empty if there are none."""
    if file.exists():
        saved = json.loads(file.read_text())
        if saved["machine"] == of:
            return saved
    return {"machine": of, "sections": {}, "rows": []}


def save(results, file):
    """Writes the whole file or, if that fails, nothing."""
    new = file.with_name(file.name + ".new")
    new.write_text(json.dumps(results, indent=2) + "\n")
    new.replace(file)


def measure(options, file):
    tools = Tools(options.root.resolve())
    results = saved_results(file, machine(tools.root))
    table = Table(results["rows"], lambda line: print(line, file=sys.stderr, flush=True))
    for name in options.groups or GROUPS:
        how = {"runs": options.runs, "commit": commit(), "load": os.getloadavg()[0]}
        table.begin(name)
        GROUPS[name](table, tools, options)
        table.sort([*GROUPS])
        results["sections"][name] = how
        results["rows"] = table.as_json()
        save(results, file)  # a later group may fail
    print(table.as_text())


def main():
    options = parse(sys.argv[1:])
    file = options.root / "results.json"
    if options.document:
        if not file.exists():
            sys.exit("no results: run scripts/bench first")
        write_document(json.loads(file.read_text(encoding="utf-8")), options.document)
    elif not options.check:
        exit_on_signals()
        measure(options, file)


if __name__ == "__main__":
    main()
