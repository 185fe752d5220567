# SPDX-License-Identifier: Apache-2.0
"""How events read: milliseconds, who, what."""

import os

from .timeline import CONTROLLERS


def lines_of(timeline):
    """One line for each event."""
    events = timeline.sorted()
    return [
        f"{(event.at - events[0].at) / 1000:10.3f}  {_who(event):<8} "
        + what_of(event.kind, event.facts)
        for event in events
    ]


def _who(event):
    source = {"kernel": "driver", "scenario": "board"}.get(event.source, event.source)
    return {
        "log": "log",
        "trace": "trace",
        "unit": "unit",
        "notified": "unit",
        "output": "daemon",
        "packet": "mctp",
        "host_state": "host",
        "host_answer": "host",
    }.get(event.kind, source)


def _error(number):
    return f": {os.strerror(number)}" if number else ""


def what_of(kind, facts):
    """What happened, without when and where."""
    match kind:
        case "log" | "trace":
            return f"{facts['file']}:{facts['line']}  {facts['text']}"
        case "note" | "unit" | "output":
            return facts["text"]
        case "notified":
            return "it is ready"
        case "driver_write":
            return f"{facts['file']} {facts['controller']}{_error(facts['error'])}"
        case "device_up":
            return f"the device of {CONTROLLERS[facts['controller']]} is up"
        case "device_down":
            return f"the device of {CONTROLLERS[facts['controller']]} is gone"
        case "node_opened":
            return f"open {facts['node']}{_error(facts['error'])}"
        case "node_closed":
            return f"close {facts['node']}"
        case "packet":
            way = ">" if facts["to_endpoint"] else "<"
            data = bytes(facts["bytes"]).hex(" ")
            return f"{facts['node']} {way} {data}{_error(facts['error'])}"
        case "host_state":
            return f"CurrentHostState is {facts['value'].rpartition('.')[2]}"
        case "host_answer":
            return f"asked for CurrentHostState: {facts['what']}"
        case "node_removed":
            return f"{facts['node']} was removed"
        case "name_owner":
            return f"{facts['name']} is {facts['owner'] or 'nobody'}"
        case "endpoint_added":
            return f"+ {facts['path']}"
        case "endpoint_removed":
            return f"- {facts['path']}"
        case "endpoint_changed":
            return f"{facts['path']} changed {facts['property']}"
    return str(facts)
