# SPDX-License-Identifier: Apache-2.0
"""Whether memory grows with power cycles."""

import os

from board_session import Board
from process_cost import memory_kib

PAGE_KIB = os.sysconf("SC_PAGE_SIZE") // 1024


def measure_growth(table, tools, options):
    daemon = tools.daemon()
    sizes = {}
    with Board(tools, daemon, "Off", fast=1000) as board:
        board.start()
        done = 0
        for cycles in options.cycles:
            while done < cycles:
                power_cycle(board)
                done += 1
            sizes[cycles] = memory_kib(board.pid)["private_dirty"]
            table.add("Growth", f"private dirty after {cycles} power cycles",
                      "KiB", [sizes[cycles]])  # fmt: skip
    first, *_, last = options.cycles
    growth = (sizes[last] - sizes[first]) / ((last - first) / 1000)
    table.add("Growth", "growth for 1,000 power cycles", "KiB", [growth],
              at_most=PAGE_KIB)  # fmt: skip


def power_cycle(board):
    since = board.now()
    board.tell("host Running")
    board.wait(lambda event: event["event"] == "endpoint_added", since, 2)
    since = board.now()
    board.tell("host Off")
    board.wait(lambda event: event["event"] == "endpoint_removed", since, 2)
