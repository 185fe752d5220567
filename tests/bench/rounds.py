# SPDX-License-Identifier: Apache-2.0
"""Rounds of runs: programs take turns, so that a machine that gets slower gets
slower for all of them.
"""

from functools import partial


def rounds(runs, **programs):
    """Runs each function once a round, another one first in each.
    @return its results by its name"""
    results = {name: [] for name in programs}
    order = list(programs.items())
    for _ in range(runs):
        for name, program in order:
            results[name].append(program())
        order.append(order.pop(0))
    return results


def column(results, key):
    return [result[key] for result in results]


def each(programs, method, *arguments):
    """The method of each program, to be called without arguments."""
    return {name: partial(method, program, *arguments) for name, program in programs.items()}
