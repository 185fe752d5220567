#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Makes docs/dbus.md from the definition of the daemon's interface.

Usage: dbus_reference.py          writes the file anew
       dbus_reference.py --check  fails when the file is not what it makes

Needs the modules mako and yaml; with another Python than the system's, use
"meson compile -C build dbus-reference".
"""

import difflib
import re
import sys
import textwrap
from pathlib import Path

from mako.template import Template

TOP = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(TOP / "subprojects/sdbusplus/tools"))
# The generator's own reader: what it refuses is no definition.
from sdbuspp import definition  # noqa: E402

INTERFACE = "xyz.openbmc_project.mctp.Endpoint"
TEMPLATE = Path(__file__).with_name("dbus.md.mako")
REFERENCE = TOP / "docs/dbus.md"

SIGNATURES = {
    "boolean": "b",
    "byte": "y",
    "double": "d",
    "int16": "n",
    "int32": "i",
    "int64": "x",
    "object_path": "o",
    "string": "s",
    "uint16": "q",
    "uint32": "u",
    "uint64": "t",
}


def signature(kind):
    """A type as D-Bus writes it: array[byte] is ay."""
    array = re.fullmatch(r"array\[(\w+)\]", kind.name)
    if array:
        return "a" + SIGNATURES[array.group(1)]
    return SIGNATURES[kind.name]


def default(member):
    if member.cpp_default:
        return f"`{member.cpp_default}`"
    return {"string": "empty"}.get(
        member.type.name,
        "empty" if member.type.name.startswith("array") else "0",
    )


def flags(member):
    found = ["read and write" if member.writable else "read-only"]
    quiet = {"const", "emits_invalidation", "explicit"} & set(member.flags)
    return ", ".join(found + (sorted(quiet) or ["announces changes"]))


def table(arguments, heading):
    """Parameters, results or values of a member, one a row."""
    rows = [f"| {heading} | Signature | Meaning |", "|---|---|---|"]
    for each in arguments:
        words = " ".join(each.description.split())
        rows.append(f"| {each.name} | `{signature(each.type)}` | {words} |")
    return "\n".join(rows) + "\n"


def wrap(text):
    return textwrap.fill(" ".join(text.split()), 80)


def reference():
    """The text of the file."""
    return Template(filename=str(TEMPLATE)).render(
        interface=definition.load(TOP / "yaml", INTERFACE),
        default=default,
        flags=flags,
        signature=signature,
        table=table,
        wrap=wrap,
    )


def check():
    """@return whether the file is what it should be; if not, says how"""
    made = reference()
    there = REFERENCE.read_text(encoding="utf-8") if REFERENCE.exists() else ""
    if there == made:
        return True
    sys.stdout.writelines(
        difflib.unified_diff(
            there.splitlines(keepends=True),
            made.splitlines(keepends=True),
            "docs/dbus.md",
            "what it should be",
        )
    )
    print(
        "docs/dbus.md is not what the interface's definition gives: run"
        ' "meson compile -C build dbus-reference" and commit it'
    )
    return False


def main(arguments):
    """@return the exit status: 0, 1 when the file differs, 2 wrong usage"""
    if arguments == ["--check"]:
        return 0 if check() else 1
    if arguments:
        print(__doc__, file=sys.stderr)
        return 2
    REFERENCE.write_text(reference(), encoding="utf-8")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
