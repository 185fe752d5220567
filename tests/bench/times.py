# SPDX-License-Identifier: Apache-2.0
"""How long things take."""

from board_session import LOG_DISCOVERY, LOG_SHIPPED, Board
from rounds import column, rounds

# Sleeps that a full discovery and a first second of the daemon are made of.
DISCOVERY_SLEEPS_US = 2_100_000
START_SLEEP_US = 1_000_000


def times(tools, program, is_daemon):
    """One life, in real time; milliseconds."""
    log_level = LOG_DISCOVERY if is_daemon else LOG_SHIPPED
    with Board(tools, program, "Off", log_level) as board:
        board.start()
        started = board.wait(lambda event: event["event"] == "started")
        ready = board.wait(lambda event: event.get("text") == "READY=1")
        result = {"start": (ready["at"] - started["at"] - START_SLEEP_US) / 1000}
        since = board.now()
        board.tell("power StateS5")
        sent = board.wait(lambda event: event["event"] == "control_signal", since)
        # The daemon's last line before it sets them, the baseline's after it.
        line = "Power state is StateS5" if is_daemon else "Path:["
        seen = board.wait(lambda event: line in event.get("text", ""), since)
        result["flags"] = (seen["at"] - sent["at"]) / 1000
        if is_daemon:
            result.update(discovery_and_stop(board))
    return result


def discovery_and_stop(board):
    discovery = discovery_beyond_sleeps(board)
    since = board.now()
    board.tell("daemon term")
    told = board.wait(lambda event: event["event"] == "signalled", since)
    gone = board.wait(
        lambda event: event["event"] == "endpoint_removed", board.seen.index(told), 2
    )
    return {"discovery": discovery, "stop": (gone["at"] - told["at"]) / 1000}


def discovery_beyond_sleeps(board):
    """Milliseconds of the full discovery of a host that comes up."""
    since = board.now()
    board.tell("host Running")
    begun = board.wait(lambda event: event.get("text") == "Change State to ON", since)
    done = board.wait(lambda event: event.get("text") == "Discovery complete", since)
    return (done["at"] - begun["at"] - DISCOVERY_SLEEPS_US) / 1000


def measure_times(table, tools, options):
    daemon, baseline = tools.daemon(), tools.baseline()
    results = rounds(
        options.runs,
        baseline=lambda: times(tools, baseline, False),
        daemon=lambda: times(tools, daemon, True),
    )
    group = "Times"
    for key, what in (
        ("start", "start to READY=1 beyond the mandated second"),
        ("flags", "power signal sent to its flags set"),
    ):
        table.add(group, what, "ms", column(results["daemon"], key),
                  column(results["baseline"], key))  # fmt: skip
    table.add(group, "full discovery beyond its sleeps of 2.1 s", "ms",
              column(results["daemon"], "discovery"), at_most=10)  # fmt: skip
    table.add(group, "first SIGTERM to both endpoints withdrawn", "ms",
              column(results["daemon"], "stop"))  # fmt: skip
