# SPDX-License-Identifier: Apache-2.0
"""Rounds of runs: programs take turns, so that a machine that gets slower gets
slower for all of them.
"""

from functools import partial


def rounds(runs, **programs):
    """Runs each function once a round, another one first in each.
    @return its results by its name, those of a round at the same index"""
    results = {name: [] for name in programs}
    order = list(programs.items())
    for _ in range(runs):
        for name, program in order:
            results[name].append(program())
        order.append(order.pop(0))
    return results


def joined(blocks):
    """The results of several blocks of rounds as those of one."""
    return {name: [value for block in blocks for value in block[name]] for name in blocks[0]}


def column(results, key):
    return [result[key] for result in results]


def each(programs, method, *arguments):
    """The method of each program, to be called without arguments."""
    return {name: partial(method, program, *arguments) for name, program in programs.items()}
