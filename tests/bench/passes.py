# SPDX-License-Identifier: Apache-2.0
"""What a pass of the state loop costs."""

import contextlib
import os
import signal

from board_session import LOG_ALL, LOG_SHIPPED, Board
from process_cost import cpu_ns, syscalls
from rounds import each, rounds
from tools import FLAVOURS


class Passes:
    """A program that passes through its loop in accelerated time, and stands
    still while others are measured."""

    def __init__(self, board, with_endpoints):
        self.board = board
        if with_endpoints:
            board.start_with_endpoints()
        else:
            board.start()
        board.wait_sleeps(50)
        os.kill(board.pid, signal.SIGSTOP)

    @contextlib.contextmanager
    def going(self):
        os.kill(self.board.pid, signal.SIGCONT)
        self.board.wait_sleeps(10)
        yield
        os.kill(self.board.pid, signal.SIGSTOP)

    def cpu(self, passes):
        """Microseconds of the processor for each of about so many."""
        with self.going():
            slept, cost = self.board.sleeps(), cpu_ns(self.board.pid)
            self.board.wait_sleeps(passes)
            slept = self.board.sleeps() - slept
            return (cpu_ns(self.board.pid) - cost) / slept / 1000

    def calls(self, passes):
        """System calls of each of at least so many; that the tracer takes a
        while to come does not matter, since it counts the sleeps, too."""
        with self.going():
            calls = {}
            while calls.get("clock_nanosleep", 0) < passes:
                calls = syscalls(
                    self.board.pid, lambda: self.board.wait_sleeps(2 * passes)
                )
            return sum(calls.values()) / calls["clock_nanosleep"]

    def allocations(self, passes):
        """Allocations of each of about so many, all threads and libraries."""
        with self.going():
            slept, counted = self.board.sleeps(), self.board.allocations()
            self.board.wait_sleeps(passes)
            slept = self.board.sleeps() - slept
            return (self.board.allocations() - counted) / slept


def measure_passes(table, tools, options):
    for flavour, name in FLAVOURS.items():
        for host, what, fast, argument in (
            ("Running", "host on, idle", 100, []),
            ("Off", "host off", 20, ["--off"]),
        ):
            daemon, floor = tools.daemon(flavour), tools.floor(flavour, *argument)

            def programs(stack, counted=False):
                def passes(program, level):
                    board = Board(tools, program, host, level, fast=fast, counted=counted)
                    stack.enter_context(board)
                    return Passes(board, program is daemon and host == "Running")

                return {
                    "floor": passes(floor, LOG_SHIPPED),
                    "daemon": passes(daemon, LOG_SHIPPED),
                    "logging": passes(daemon, LOG_ALL),
                }

            few = min(options.runs, 5)
            with contextlib.ExitStack() as stack:
                of = programs(stack)
                cpu = rounds(3 * options.runs, **each(of, Passes.cpu, options.passes))
                calls = rounds(few, **each(of, Passes.calls, options.passes))
            with contextlib.ExitStack() as stack:
                of = programs(stack, counted=True)
                allocations = rounds(few, **each(of, Passes.allocations, options.passes))
            group = f"A pass, {name}"
            for label, unit, results, goal in (
                ("processor", "µs", cpu, 1.15),
                ("system calls", "calls", calls, 1.1),
                ("allocations", "", allocations, None),
            ):
                label = f"{label}, {what}"
                table.add(group, label, unit, results["daemon"], results["floor"],
                          ratio_at_most=goal)  # fmt: skip
                table.add(group, label + ", all logged", unit,
                          results["logging"], results["floor"])  # fmt: skip
