# SPDX-License-Identifier: Apache-2.0
"""The command line."""

import argparse
import re
import sys
import textwrap
from pathlib import Path

from mako.template import Template

from . import definition

TEMPLATES = Path(__file__).resolve().parent / "templates"

# process: the template that it renders
PROCESSES = {
    "common-header": "common.hpp.mako",
    "server-header": "server.hpp.mako",
    "server-cpp": "server.cpp.mako",
}

DESCRIPTION = """\
Generates C++ bindings from the definition of a D-Bus interface, on standard
output."""

EPILOG = """\
processes:
  common-header  common.hpp, the name of the interface
  server-header  server.hpp, the class that offers the interface
  server-cpp     server.cpp, its code"""


def _interface_name(text):
    if not re.fullmatch(r"([a-z_][a-z0-9_]*\.)+[A-Za-z_]\w*", text, re.ASCII):
        raise argparse.ArgumentTypeError(
            f"'{text}' is not supported as a name; write it like com.example.Thing"
        )
    return text


def _arguments():
    parser = argparse.ArgumentParser(
        prog="sdbus++",
        description=DESCRIPTION,
        epilog=EPILOG,
        formatter_class=argparse.RawDescriptionHelpFormatter,
    )
    parser.add_argument(
        "-r",
        "--rootdir",
        default=".",
        help="directory above the definitions (default: .);"
        " com.example.Thing is in com/example/Thing.interface.yaml",
    )
    parser.add_argument("type", choices=["interface"], metavar="interface")
    parser.add_argument("process", choices=list(PROCESSES), metavar="PROCESS")
    parser.add_argument("name", type=_interface_name, metavar="NAME")
    return parser.parse_args()


def comment(description, indent=""):
    """A description as a C++ comment; nothing for none."""
    if not description:
        return ""
    first, *rest = textwrap.wrap(description.replace("*/", "* /"), 76 - len(indent))
    lines = [f"{indent}/** {first}"] + [f"{indent} *  {line}" for line in rest]
    return "\n".join(lines) + (f"\n{indent} */\n" if rest else " */\n")


def main():
    """@return the exit status: 0, or 1 after a line on standard error"""
    arguments = _arguments()
    try:
        interface = definition.load(arguments.rootdir, arguments.name)
    except definition.UserError as error:
        print(f"sdbus++: {error}", file=sys.stderr)
        return 1
    template = Template(filename=str(TEMPLATES / PROCESSES[arguments.process]))
    sys.stdout.write(template.render(interface=interface, comment=comment))
    return 0
