# SPDX-License-Identifier: Apache-2.0
"""From an interface to a file of its binding, through a Mako template."""

import textwrap
from pathlib import Path

from mako.exceptions import MakoException, text_error_template
from mako.lookup import TemplateLookup

from .error import UserError

TEMPLATES = Path(__file__).resolve().parent / "templates"

# process: the template that does it
PROCESSES = {
    "common-header": "common.hpp.mako",
    "server-header": "server.hpp.mako",
    "server-cpp": "server.cpp.mako",
}


def comment(description, indent=""):
    """A description as a C++ comment; nothing for none."""
    if not description:
        return ""
    text = description.replace("*/", "* /")
    first, *rest = textwrap.wrap(text, 76 - len(indent)) or [""]
    lines = [f"{indent}/** {first}"] + [f"{indent} *  {line}" for line in rest]
    if rest:
        return "\n".join(lines) + f"\n{indent} */\n"
    return lines[0] + " */\n"


def render(interface, process, templatedir):
    """The text of the file that a process makes."""
    lookup = TemplateLookup(directories=[str(templatedir)])
    name = PROCESSES[process]
    try:
        template = lookup.get_template("/" + name)
    except (MakoException, OSError) as error:
        raise UserError(
            f"cannot use the template '{Path(templatedir) / name}': {error};"
            " give the directory of the templates with -t, or leave it out"
        ) from error
    try:
        return template.render(interface=interface, comment=comment)
    except Exception as error:
        reason = text_error_template().render().strip().splitlines()[-1]
        raise UserError(
            f"cannot use the template '{Path(templatedir) / name}': {reason};"
            " correct it"
        ) from error
