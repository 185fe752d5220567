# SPDX-License-Identifier: Apache-2.0
"""How events read: milliseconds, who, what."""

import os

from .board import CONTROLLERS


def lines_of(events, began):
    """One line for each event; `began` is when the story did."""
    return [
        f"{(event.at - began) / 1000:10.3f}  {_who(event):<8} {_what(event)}"
        for event in events
    ]


def _who(event):
    return {
        "log": "log",
        "trace": "trace",
        "unit": "unit",
        "notified": "unit",
        "output": "daemon",
        "packet": "mctp",
    }.get(event.kind, {"kernel": "driver", "bus": "bus"}.get(event.source))


def _error(number):
    return f": {os.strerror(number)}" if number else ""


def _what(event):
    facts = event.facts
    match event.kind:
        case "log" | "trace":
            return f"{facts['file']}:{facts['line']}  {facts['text']}"
        case "unit" | "output":
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
            return f"{facts['node']} {way} {bytes(facts['bytes']).hex(' ')}"
        case "name_owner":
            return f"{facts['name']} is {facts['owner'] or 'nobody'}"
        case "endpoint_added":
            return f"+ {facts['path']}"
        case "endpoint_removed":
            return f"- {facts['path']}"
        case "endpoint_changed":
            return f"{facts['path']} changed {facts['property']}"
    return str(facts)
