# SPDX-License-Identifier: Apache-2.0
"""An interface as its YAML file defines it.

load() checks the whole file, so that what it returns can be rendered. Every
error is a UserError.

Supported are methods with one result, signals, and read-only properties, of the
types below. Anything else needs the generator of a complete sdbusplus.
"""

import re
from dataclasses import dataclass
from pathlib import Path

import yaml

# type: its D-Bus signature, its C++ spelling
TYPES = {
    "byte": ("y", "uint8_t"),
    "uint16": ("q", "uint16_t"),
    "uint32": ("u", "uint32_t"),
    "string": ("s", "std::string"),
    "array[byte]": ("ay", "std::vector<uint8_t>"),
}


class UserError(Exception):
    """What is wrong with the input, and what to do about it."""


def _member_name(name):
    """NetworkId is networkId, EID is eid, MACAddress is macAddress."""
    if name.upper() == name:
        return name.lower()
    acronym = re.match("[A-Z]+(?=[A-Z])", name)
    leading = acronym.end() if acronym else 1
    return name[:leading].lower() + name[leading:]


@dataclass(frozen=True)
class Member:
    """A method, a signal, a property, or a value of one of the first two."""

    name: str
    description: str

    @property
    def cpp_name(self):
        return _member_name(self.name)


@dataclass(frozen=True)
class Value(Member):
    """A parameter, a result, a value of a signal, or a property."""

    type: str

    @property
    def signature(self):
        return TYPES[self.type][0]

    @property
    def cpp(self):
        return TYPES[self.type][1]


@dataclass(frozen=True)
class Method(Member):
    flags: list
    parameters: list
    returns: list


@dataclass(frozen=True)
class Signal(Member):
    properties: list


@dataclass(frozen=True)
class Interface:
    name: str
    description: str
    methods: list
    signals: list
    properties: list

    @property
    def classname(self):
        return self.name.rpartition(".")[2]

    @property
    def namespace(self):
        return "::".join(self.name.split(".")[:-1])

    @property
    def directory(self):
        """Where its generated headers are included from."""
        return self.name.replace(".", "/")


def load(rootdir, name):
    """The interface of that name, from its file below rootdir."""
    path = Path(rootdir) / (name.replace(".", "/") + ".interface.yaml")
    try:
        return _interface(name, yaml.safe_load(path.read_text(encoding="utf-8")))
    except OSError as error:
        reason = f"{error.strerror}; give the directory of the name with -r"
    except (yaml.YAMLError, ValueError) as error:
        reason = f"it is not YAML ({' '.join(str(error).split())}); correct it"
    except UserError as error:
        reason = error
    raise UserError(f"cannot use '{path}': {reason}")


def _checked(what, content, **expected):
    """The values of a mapping, in the order of the keys that it may have; each
    key comes with the type of its value."""
    if not isinstance(content, dict):
        raise UserError(f"{what} is not a mapping; write KEY: VALUE lines")
    if unknown := content.keys() - expected.keys():
        raise UserError(
            f"{what}: '{unknown.pop()}' is not supported here; use "
            + ", ".join(expected)
        )
    for key, kind in expected.items():
        value = content.get(key) or kind()
        if not isinstance(value, kind):
            kinds = {str: "text; put it in quotes", list: "a list"}
            raise UserError(f"{what}: {key} has to be {kinds[kind]}")
        yield value.strip() if kind is str else value


def _named(kind, content, **expected):
    """The same for a member, whose name comes first."""
    name = content.get("name", "") if isinstance(content, dict) else ""
    what = f"{kind} '{name}'"
    values = list(_checked(what, content, name=str, description=str, **expected))
    if not re.fullmatch("[A-Za-z_][A-Za-z0-9_]*", values[0]):
        raise UserError(f"{what}: a name consists of letters, digits and _")
    return what, *values


def _expect(what, key, actual, supported):
    if actual not in supported:
        raise UserError(
            f"{what}: {key} {actual!r} is not supported; use "
            + " or ".join(map(str, supported))
        )


def _values(what, kind, contents):
    return [_value(f"{what}, {kind}", content)[1] for content in contents]


def _value(kind, content, **expected):
    what, name, description, type_, *others = _named(
        kind, content, type=str, **expected
    )
    _expect(what, "type", type_, list(TYPES))
    return what, Value(name, description, type_), *others


def _method(content):
    what, name, description, flags, parameters, returns = _named(
        "method", content, flags=list, parameters=list, returns=list
    )
    _expect(what, "flags", flags, ([], ["unprivileged"]))
    _expect(what, "number of results", len(returns), [1])
    return Method(
        name,
        description,
        flags,
        _values(what, "parameter", parameters),
        _values(what, "result", returns),
    )


def _signal(content):
    what, name, description, properties = _named("signal", content, properties=list)
    return Signal(name, description, _values(what, "value", properties))


def _property(content):
    what, value, flags = _value("property", content, flags=list)
    _expect(what, "flags", flags, [["readonly"]])
    return value


def _interface(name, content):
    description, methods, signals, properties = _checked(
        "the interface",
        content,
        description=str,
        methods=list,
        signals=list,
        properties=list,
    )
    interface = Interface(
        name,
        description,
        [_method(each) for each in methods],
        [_signal(each) for each in signals],
        [_property(each) for each in properties],
    )
    if not interface.properties:
        raise UserError("an interface without properties is not supported; add one")
    return interface
