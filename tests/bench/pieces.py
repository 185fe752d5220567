# SPDX-License-Identifier: Apache-2.0
"""What the daemon does often, piece by piece."""

import json
import subprocess
from functools import partial

from rounds import column, rounds
from tools import FLAVOURS


def micro_benchmarks(tools, flavour):
    done = subprocess.run(
        [tools.root / flavour / "tests/bench/micro", "--benchmark_format=json",
         "--benchmark_min_time=0.2"],
        stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, check=True,
    )  # fmt: skip
    benchmarks = json.loads(done.stdout)["benchmarks"]
    return {benchmark["name"]: benchmark["cpu_time"] for benchmark in benchmarks}


def measure_micro(table, tools, options):
    results = rounds(
        options.runs, **{flavour: partial(micro_benchmarks, tools, flavour) for flavour in FLAVOURS}
    )
    for flavour, name in FLAVOURS.items():
        for piece in results[flavour][0]:
            table.add(f"Pieces, {name}", piece, "ns", column(results[flavour], piece))
