# SPDX-License-Identifier: Apache-2.0
"""An interface as its YAML file defines it.

load() reads the file and checks all of it, so that what it returns can be
rendered without further questions. Whatever is wrong is a UserError.
"""

import math
import re
from dataclasses import dataclass
from functools import cached_property
from pathlib import Path

import yaml

from . import names, types
from .error import UserError

# flag: its name below sdbusplus::vtable; None for what is no vtable flag
METHOD_FLAGS = {
    "deprecated": "common_::deprecated",
    "hidden": "common_::hidden",
    "no_reply": "method_::no_reply",
    "unprivileged": "common_::unprivileged",
}
SIGNAL_FLAGS = {
    "deprecated": "common_::deprecated",
    "hidden": "common_::hidden",
}
PROPERTY_FLAGS = {
    "const": "property_::const_",
    "deprecated": "common_::deprecated",
    "emits_change": "property_::emits_change",
    "emits_invalidation": "property_::emits_invalidation",
    "explicit": "property_::explicit_",
    "hidden": "common_::hidden",
    "readonly": None,
    "unprivileged": "common_::unprivileged",
}


def _vtable_flags(flags, table):
    return [f"sdbusplus::vtable::{table[f]}" for f in flags if table[f]]


@dataclass(frozen=True)
class Argument:
    """A parameter or result of a method, or a value of a signal."""

    name: str
    type: types.Type
    description: str

    @property
    def cpp_name(self):
        return names.member_name(self.name)


@dataclass(frozen=True)
class Method:
    name: str
    description: str
    flags: list
    parameters: list
    returns: list

    @property
    def cpp_name(self):
        return names.member_name(self.name)

    @property
    def cpp_result(self):
        """void, the type of the one result, or a tuple of all of them."""
        if not self.returns:
            return "void"
        if len(self.returns) == 1:
            return self.returns[0].type.cpp
        every = ", ".join(result.type.cpp for result in self.returns)
        return f"std::tuple<{every}>"

    @property
    def vtable_flags(self):
        return _vtable_flags(self.flags, METHOD_FLAGS)


@dataclass(frozen=True)
class Signal:
    name: str
    description: str
    flags: list
    properties: list

    @property
    def cpp_name(self):
        return names.member_name(self.name)

    @property
    def vtable_flags(self):
        return _vtable_flags(self.flags, SIGNAL_FLAGS)


@dataclass(frozen=True)
class Property:
    name: str
    type: types.Type
    description: str
    flags: list
    cpp_default: str

    @property
    def cpp_name(self):
        return names.member_name(self.name)

    @property
    def writable(self):
        """Whether peers may set it."""
        return not {"const", "readonly"} & set(self.flags)

    @property
    def vtable_flags(self):
        """A property announces its changes unless its flags say more."""
        flags = self.flags if set(self.flags) - {"readonly"} else ["emits_change"]
        return _vtable_flags(flags, PROPERTY_FLAGS)


@dataclass(frozen=True)
class Interface:
    name: str
    description: str
    methods: list
    signals: list
    properties: list

    @property
    def parts(self):
        return self.name.split(".")

    @property
    def classname(self):
        return names.not_a_keyword(self.parts[-1])

    @property
    def namespace(self):
        return "::".join(names.namespace_name(p) for p in self.parts[:-1])

    @property
    def directory(self):
        """Where its generated headers are included from."""
        return "/".join(self.parts)

    @cached_property
    def headers(self):
        """The headers that declare its types."""
        used = [p.type for p in self.properties]
        for signal in self.signals:
            used += [p.type for p in signal.properties]
        found = {"limits"} if self._has_limits() else set()
        for method in self.methods:
            used += [a.type for a in method.parameters + method.returns]
            if len(method.returns) > 1:
                found.add("tuple")
        return sorted(found.union(*(t.headers for t in used)))

    def _has_limits(self):
        return any("numeric_limits" in p.cpp_default for p in self.properties)

    @property
    def property_types(self):
        """The C++ types of the properties, each once, sorted as text."""
        return sorted({p.type.cpp for p in self.properties})


def load(rootdir, name):
    """The interface of that name, from its file below rootdir."""
    path = Path(rootdir) / (name.replace(".", "/") + ".interface.yaml")
    try:
        return _interface(name, _read(path))
    except UserError as error:
        raise UserError(f"cannot use '{path}': {error}") from error


def _read(path):
    try:
        with open(path, encoding="utf-8") as file:
            return yaml.safe_load(file)
    except OSError as error:
        raise UserError(
            f"{error.strerror}; give the directory that the name starts in"
            " with -r, and check the name"
        ) from error
    # ValueError: bytes that are no UTF-8, a date that no calendar has.
    except (yaml.YAMLError, ValueError, RecursionError) as error:
        text = " ".join(str(error).split())
        raise UserError(f"it is no YAML ({text}); correct it") from error


def _is_unicode(text):
    """Whether a text is free of halves of characters, which YAML can write."""
    return not any("\ud800" <= letter <= "\udfff" for letter in text)


class _Element:
    """One mapping of the file, named for messages."""

    def __init__(self, what, content, keys):
        self.what = what
        if not isinstance(content, dict):
            raise UserError(f"{what} is no mapping; write KEY: VALUE lines")
        for key in content:
            if key not in keys:
                raise UserError(
                    f"{what} has the unknown key '{key}'; use "
                    + ", ".join(keys)
                )
        self.content = content

    def text(self, key):
        value = self.content.get(key, "")
        value = "" if value is None else value
        if not isinstance(value, str):
            raise UserError(
                f"{self.what} has the {key} {value!r}, which is no text;"
                " put it in quotes"
            )
        if not _is_unicode(value):
            raise UserError(
                f"{self.what} has the {key} {value!r}, which is no Unicode;"
                " correct its escapes"
            )
        return value.strip()

    def member_name(self):
        name = self.text("name")
        if not re.fullmatch("[A-Za-z_][A-Za-z0-9_]*", name):
            raise UserError(
                f"{self.what} has the name '{name}', which D-Bus does not"
                " take; use letters, digits and _, no digit first"
            )
        return name

    def type(self):
        text = self.text("type")
        if not text:
            raise UserError(f"{self.what} has no type; add 'type: ...'")
        try:
            return types.parse(text)
        except UserError as error:
            raise UserError(f"{self.what}: {error}") from error

    def list(self, key):
        value = self.content.get(key)
        value = [] if value is None else value
        if not isinstance(value, list):
            raise UserError(
                f"{self.what} has '{key}' that is no list; write one entry a"
                " line after '- '"
            )
        return value

    def flags(self, known):
        flags = self.list("flags")
        for flag in flags:
            if not isinstance(flag, str) or flag not in known:
                raise UserError(
                    f"{self.what} has the unknown flag '{flag}'; use "
                    + ", ".join(known)
                )
        return flags


def _named(kind, content):
    """How messages call an element: by its kind and, if it has one, name."""
    name = content.get("name") if isinstance(content, dict) else None
    return f"{kind} '{name}'" if name is not None else f"a {kind}"


def _unique(members, what):
    """The members, of which no two may be called the same in C++."""
    seen = {}
    for member in members:
        other = seen.setdefault(member.cpp_name, member)
        if other is not member:
            raise UserError(
                f"{what} has '{other.name}' and '{member.name}', which are"
                f" both '{member.cpp_name}' in C++; rename one"
            )
    return members


def _interface(name, content):
    top = _Element(
        "the interface",
        content,
        ["description", "methods", "signals", "properties"],
    )
    methods = [_method(each) for each in top.list("methods")]
    signals = [_signal(each) for each in top.list("signals")]
    properties = [_property(each) for each in top.list("properties")]
    _unique(methods + signals + properties, top.what)
    return Interface(
        name, top.text("description"), methods, signals, properties
    )


def _method(content):
    method = _Element(
        _named("method", content),
        content,
        ["name", "description", "flags", "parameters", "returns"],
    )
    return Method(
        method.member_name(),
        method.text("description"),
        method.flags(METHOD_FLAGS),
        _unique(_arguments(method, "parameters", "parameter"), method.what),
        _arguments(method, "returns", "result"),
    )


def _signal(content):
    signal = _Element(
        _named("signal", content),
        content,
        ["name", "description", "flags", "properties"],
    )
    return Signal(
        signal.member_name(),
        signal.text("description"),
        signal.flags(SIGNAL_FLAGS),
        _unique(_arguments(signal, "properties", "value"), signal.what),
    )


def _arguments(owner, key, kind):
    found = []
    for content in owner.list(key):
        argument = _Element(
            f"{owner.what}, {_named(kind, content)}",
            content,
            ["name", "type", "description"],
        )
        found.append(
            Argument(
                argument.member_name(),
                argument.type(),
                argument.text("description"),
            )
        )
    return found


def _property(content):
    element = _Element(
        _named("property", content),
        content,
        ["name", "type", "description", "flags", "default"],
    )
    kind = element.type()
    return Property(
        element.member_name(),
        kind,
        element.text("description"),
        element.flags(PROPERTY_FLAGS),
        _default(element, kind),
    )


def _default(element, kind):
    """The initial value as C++; empty for the zero of its type."""
    value = element.content.get("default")
    if value is None:
        return ""
    literal = _literal(kind, value)
    if literal is None:
        raise UserError(
            f"{element.what} has the default {value!r}, which is no"
            f" {kind.name}; give a value of its type or none"
        )
    return literal


def _literal(kind, value):
    """The value as a C++ literal; None if it is none of that type."""
    if kind.name == "boolean" and isinstance(value, bool):
        return "true" if value else "false"
    if kind.name == "double" and type(value) in (int, float):
        return _double_literal(value)
    if kind.name in ("string", "object_path") and isinstance(value, str):
        return _text_literal(value) if _is_unicode(value) else None
    if kind.name in _INTEGERS and type(value) is int:
        low, high = _INTEGERS[kind.name]
        return _integer_literal(value) if low <= value <= high else None
    return None


def _bounds(bits, signed):
    return (
        (-(2 ** (bits - 1)), 2 ** (bits - 1) - 1)
        if signed
        else (0, 2**bits - 1)
    )


_INTEGERS = {
    "byte": _bounds(8, False),
    "int16": _bounds(16, True),
    "int32": _bounds(32, True),
    "int64": _bounds(64, True),
    "size": _bounds(64, False),
    "ssize": _bounds(64, True),
    "uint16": _bounds(16, False),
    "uint32": _bounds(32, False),
    "uint64": _bounds(64, False),
}


def _integer_literal(value):
    if value == _INTEGERS["int64"][0]:
        return f"{value + 1} - 1"  # its positive twin fits no integer
    return f"{value}u" if value > _INTEGERS["int64"][1] else str(value)


def _double_literal(value):
    try:
        value = float(value)
    except OverflowError:
        return None  # an integer beyond all doubles
    limits = "std::numeric_limits<double>::"
    if math.isnan(value):
        return limits + "quiet_NaN()"
    if math.isinf(value):
        return ("-" if value < 0 else "") + limits + "infinity()"
    return repr(value)


def _text_literal(value):
    """In octal what C++ would read otherwise."""
    return (
        '"'
        + "".join(
            chr(byte)
            if 32 <= byte < 127 and chr(byte) not in '"\\?'
            else f"\\{byte:03o}"
            for byte in value.encode()
        )
        + '"'
    )
