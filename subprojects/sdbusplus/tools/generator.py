# SPDX-License-Identifier: Apache-2.0
"""Generates C++ bindings from the definition of a D-Bus interface.

Supported are methods with one result, signals, and read-only properties, of the
types below. Anything else needs the generator of a complete sdbusplus. The whole
definition is checked first, so that it can be rendered.
"""

import argparse
import re
import sys
from pathlib import Path
from types import SimpleNamespace

import yaml
from mako.template import Template

TEMPLATES = Path(__file__).resolve().parent / "templates"

# process: the template that it renders
PROCESSES = {
    "common-header": "common.hpp.mako",
    "server-header": "server.hpp.mako",
    "server-cpp": "server.cpp.mako",
}

# type: its D-Bus signature, its C++ spelling
TYPES = {
    "byte": ("y", "uint8_t"),
    "uint16": ("q", "uint16_t"),
    "uint32": ("u", "uint32_t"),
    "string": ("s", "std::string"),
    "array[byte]": ("ay", "std::vector<uint8_t>"),
}

# Names that the generated code cannot declare: C++'s own, and those that it uses.
TAKEN_NAMES = """
alignas alignof and and_eq asm auto bitand bitor bool break case catch char char8_t
char16_t char32_t class co_await co_return co_yield compl concept const const_cast
consteval constexpr constinit continue decltype default delete do double dynamic_cast
else enum explicit export extern false float for friend goto if inline int long mutable
namespace new noexcept not not_eq nullptr operator or or_eq private protected public
register reinterpret_cast requires return short signed sizeof static static_assert
static_cast struct switch template this thread_local throw true try typedef typeid
typename union unsigned using virtual void volatile wchar_t while xor xor_eq
std sdbusplus interface get_bus setPropertyByName
""".split()

LONGEST_SIGNATURE = 255  # of the D-Bus specification

INTERFACE_NAME = re.compile(r"([a-z_][a-z0-9_]*\.)+[A-Za-z_]\w*", re.ASCII)
MEMBER_NAME = re.compile(r"[A-Za-z]\w*", re.ASCII)


class UserError(Exception):
    """What is wrong with the definition, and what to do about it."""


class Loader(yaml.SafeLoader):
    """Takes no aliases: with them a short file can stand for any amount of text."""

    def compose_node(self, parent, index):
        alias = self.check_event(yaml.AliasEvent)
        expect(not alias, "an alias (*)", "is not possible: write the value itself")
        return super().compose_node(parent, index)


def expect(condition, what, rule):
    if not condition:
        raise UserError(f"{what} {rule}")


def cpp_name(name):
    """NetworkId is networkId, EID is eid, MACAddress is macAddress."""
    if name.upper() == name:
        return name.lower()
    acronym = re.match("[A-Z]+(?=[A-Z])", name)
    leading = acronym.end() if acronym else 1
    return name[:leading].lower() + name[leading:]


def node(what, content, **defaults):
    """A mapping of the definition as an object, with defaults for what it does
    not have."""
    expect(isinstance(content, dict), what, "has to be a mapping: KEY: VALUE lines")
    for key in content:
        expect(key in defaults, what, f"cannot have {key}, only {', '.join(defaults)}")
    values = {key: content.get(key) or default for key, default in defaults.items()}
    for key, default in defaults.items():
        kind = "text: put it in quotes" if default == "" else "a list"
        expect(type(values[key]) is type(default), what, f"needs {key} to be {kind}")
    return SimpleNamespace(**values)


def member(kind, content, **others):
    name = content.get("name") if isinstance(content, dict) else ""
    what = f"{kind} '{name}'"
    found = node(what, content, name="", description="", **others)
    rule = "needs letters, digits and _ alone, a letter first"
    expect(MEMBER_NAME.fullmatch(found.name), what, rule)
    found.cpp_name = cpp_name(found.name)
    expect_free(what, found.cpp_name)
    return found


def expect_free(what, name):
    expect(name not in TAKEN_NAMES, what, f"cannot be '{name}' in the code: rename it")


def expect_distinct(names):
    for name in names:
        expect(names.count(name) == 1, f"'{name}'", "has two meanings: rename one")


def value(kind, content, **others):
    found = member(kind, content, type="", **others)
    expect(found.type in TYPES, f"{kind} '{found.name}'",
           f"cannot have the type '{found.type}', only {', '.join(TYPES)}")  # fmt: skip
    found.signature, found.cpp = TYPES[found.type]
    return found


def values(kind, contents):
    found = [value(kind, content) for content in contents]
    expect_distinct([each.cpp_name for each in found])
    length = sum(len(each.signature) for each in found)
    rule = f"needs a signature of at most {LONGEST_SIGNATURE} characters: use fewer"
    expect(length <= LONGEST_SIGNATURE, f"a list of {kind}s", rule)
    return found


def method(content):
    found = member("method", content, flags=[], parameters=[], returns=[])
    what = f"method '{found.name}'"
    known = found.flags in ([], ["unprivileged"])
    expect(known, what, "can only have flags: [unprivileged]")
    expect(len(found.returns) == 1, what, "needs one result")
    found.parameters = values("parameter", found.parameters)
    found.returns = values("result", found.returns)
    return found


def signal(content):
    found = member("signal", content, properties=[])
    found.properties = values("value", found.properties)
    return found


def property_(content):
    found = value("property", content, flags=[])
    what = f"property '{found.name}'"
    expect(found.flags == ["readonly"], what, "needs flags: [readonly]")
    return found


def interface_of(name, content):
    what = "the interface"
    found = node(what, content, description="", methods=[], signals=[], properties=[])
    expect(found.properties, what, "needs a property")
    found.name = name
    found.directory = name.replace(".", "/")
    *namespace, found.classname = name.split(".")
    found.namespace = "::".join(namespace)
    found.methods = [method(each) for each in found.methods]
    found.signals = [signal(each) for each in found.signals]
    found.properties = [property_(each) for each in found.properties]
    for part in name.split("."):
        expect_free(what, part)
    members = found.methods + found.signals + found.properties
    expect_distinct([found.classname, *(each.cpp_name for each in members)])
    return found


def load(rootdir, name):
    """The interface of that name, from its file below rootdir."""
    path = Path(rootdir) / (name.replace(".", "/") + ".interface.yaml")
    try:
        return interface_of(name, yaml.load(path.read_text("utf-8"), Loader))
    except OSError as error:
        reason = f"{error.strerror}; give the directory of the name with -r"
    except (yaml.YAMLError, ValueError) as error:
        reason = f"it is not YAML ({' '.join(str(error).split())}); correct it"
    except UserError as error:
        reason = error
    raise UserError(f"cannot use '{path}': {reason}")


def main():
    parser = argparse.ArgumentParser(prog="sdbus++", description=__doc__.split("\n")[0])
    parser.add_argument("-r", "--rootdir", default=".",
                        help="directory above com/example/Thing.interface.yaml"
                        " (default: .)")  # fmt: skip
    parser.add_argument("type", choices=["interface"])
    parser.add_argument("process", choices=PROCESSES)
    parser.add_argument("name", metavar="NAME", help="such as com.example.Thing")
    arguments = parser.parse_args()
    if not INTERFACE_NAME.fullmatch(arguments.name):
        parser.error(f"'{arguments.name}' is not supported as a name")
    try:
        interface = load(arguments.rootdir, arguments.name)
    except UserError as error:
        sys.exit(f"sdbus++: {error}")
    template = Template(filename=str(TEMPLATES / PROCESSES[arguments.process]))
    sys.stdout.write(template.render(interface=interface))


if __name__ == "__main__":
    main()
