# SPDX-License-Identifier: Apache-2.0
"""The command line."""

import argparse
import re
import sys

from . import definition, render
from .error import UserError


DESCRIPTION = """\
Generates C++ bindings from the definition of a D-Bus interface; what it makes
goes to standard output."""

EPILOG = """\
processes:
  common-header  common.hpp, the name of the interface
  server-header  server.hpp, the class that offers the interface
  server-cpp     server.cpp, its code"""


def _interface_name(text):
    if not re.fullmatch(r"[A-Za-z_]\w*(\.[A-Za-z_]\w*)+", text, re.ASCII):
        raise argparse.ArgumentTypeError(
            f"'{text}' is no interface name; write it like com.example.Thing"
        )
    return text


def _parser():
    parser = argparse.ArgumentParser(
        prog="sdbus++",
        description=DESCRIPTION,
        epilog=EPILOG,
        # As written: names are not to be cut where a line ends.
        formatter_class=argparse.RawDescriptionHelpFormatter,
    )
    parser.add_argument(
        "-r",
        "--rootdir",
        default=".",
        help="directory that the definitions lie below (default: .);"
        " com.example.Thing is in com/example/Thing.interface.yaml",
    )
    parser.add_argument(
        "-t",
        "--templatedir",
        default=render.TEMPLATES,
        help="directory of the templates (default: its own)",
    )
    parser.add_argument("type", choices=["interface"], metavar="interface")
    parser.add_argument(
        "process",
        choices=list(render.PROCESSES),
        metavar="PROCESS",
        help="what to make, see below",
    )
    parser.add_argument(
        "name",
        type=_interface_name,
        metavar="NAME",
        help="the interface, for example com.example.Thing",
    )
    return parser


def main():
    """@return the exit status: 0, or 1 after a line on standard error"""
    args = _parser().parse_args()
    try:
        interface = definition.load(args.rootdir, args.name)
        text = render.render(interface, args.process, args.templatedir)
    except UserError as error:
        print(f"sdbus++: {error}", file=sys.stderr)
        return 1
    sys.stdout.write(text)
    return 0
