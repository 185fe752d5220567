# SPDX-License-Identifier: Apache-2.0
"""What memory two published endpoints take."""

import os
import time

from board_session import Board
from process_cost import memory_kib, stacks_kib
from rounds import column, rounds


def memory(tools, program, is_daemon):
    with Board(tools, program, "Running") as board:
        if is_daemon:
            board.start_with_endpoints()
        else:
            board.start()
        time.sleep(2.5)  # some iterations
        stacks = stacks_kib(board.pid)
        return {
            **memory_kib(board.pid),
            "stacks_reserved": stacks["reserved"],
            "stacks_used": stacks["used"],
        }


def measure_memory(table, tools, options):
    # What was just installed and is not on the disk yet counts as dirty where
    # it is mapped.
    os.sync()
    daemon, baseline = tools.daemon(), tools.baseline()
    results = rounds(
        options.runs,
        baseline=lambda: memory(tools, baseline, False),
        daemon=lambda: memory(tools, daemon, True),
    )
    for key, what, goal in (
        ("private_dirty", "private dirty, two endpoints published", 1.6),
        ("pss", "PSS", None),
        ("stacks_reserved", "thread stacks, reserved", None),
        ("stacks_used", "thread stacks, in use", None),
    ):
        table.add("Memory", what, "KiB", column(results["daemon"], key),
                  column(results["baseline"], key), ratio_at_most=goal)  # fmt: skip
