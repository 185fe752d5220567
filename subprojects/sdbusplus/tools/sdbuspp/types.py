# SPDX-License-Identifier: Apache-2.0
"""The types of a definition: array[dict[string, byte]] and the like."""

import re
from dataclasses import dataclass
from itertools import accumulate

from .error import UserError

# type: its C++ spelling, the header that declares it
BASIC = {
    "boolean": ("bool", None),
    "byte": ("uint8_t", "cstdint"),
    "double": ("double", None),
    "int16": ("int16_t", "cstdint"),
    "int32": ("int32_t", "cstdint"),
    "int64": ("int64_t", "cstdint"),
    "object_path": (
        "sdbusplus::message::object_path",
        "sdbusplus/message/native_types.hpp",
    ),
    "signature": (
        "sdbusplus::message::signature",
        "sdbusplus/message/native_types.hpp",
    ),
    "size": ("size_t", "cstddef"),
    "ssize": ("ssize_t", "sys/types.h"),
    "string": ("std::string", "string"),
    "uint16": ("uint16_t", "cstdint"),
    "uint32": ("uint32_t", "cstdint"),
    "uint64": ("uint64_t", "cstdint"),
    "unixfd": (
        "sdbusplus::message::unix_fd",
        "sdbusplus/message/native_types.hpp",
    ),
}

# type: its C++ template, the header that declares it, how many arguments
CONTAINER = {
    "array": ("std::vector", "vector", 1),
    "dict": ("std::map", "map", 2),
    "set": ("std::set", "set", 1),
    "struct": ("std::tuple", "tuple", None),
    "variant": ("std::variant", "variant", None),
}


# How deep containers nest at most: the D-Bus limit for arrays and for structs.
DEEPEST = 32


@dataclass(frozen=True)
class Type:
    """A type: as the definition names it and as C++ spells it."""

    name: str
    cpp: str
    headers: frozenset


def parse(text):
    """The Type that a text stands for."""
    words = re.findall(r"[A-Za-z0-9_.]+|[^\sA-Za-z0-9_.]", text)
    if _depth(words) > DEEPEST:
        raise UserError(
            f"a type nests more than {DEEPEST} deep, which D-Bus does not take;"
            " make it flatter"
        )
    found = _parse_one(text, words)
    if words:
        raise UserError(
            f"type '{text}' goes on with '{words[0]}' after its end; remove it"
        )
    return found


def _depth(words):
    steps = {"[": 1, "]": -1}
    return max(accumulate(steps.get(word, 0) for word in words), default=0)


def _parse_one(text, words):
    name = words.pop(0) if words else ""
    if name in BASIC:
        cpp, header = BASIC[name]
        return Type(name, cpp, frozenset([header] if header else []))
    if name in CONTAINER:
        return _parse_container(text, name, words)
    raise UserError(
        f"type '{text}' has the unknown type '{name}'; use one of "
        + ", ".join([*BASIC, *(f"{each}[]" for each in CONTAINER)])
    )


def _parse_container(text, name, words):
    template, header, count = CONTAINER[name]
    arguments = _parse_arguments(text, name, words)
    if count not in (None, len(arguments)):
        raise UserError(
            f"type '{text}' gives {name}[] {len(arguments)} type(s); give it"
            f" {count}"
        )
    if name == "dict" and arguments[0].name not in BASIC:
        raise UserError(
            f"type '{text}' has {arguments[0].name} as the key of a dict[],"
            " which D-Bus does not take; use a basic type"
        )
    return Type(
        name + "[" + ", ".join(each.name for each in arguments) + "]",
        template + "<" + ", ".join(each.cpp for each in arguments) + ">",
        frozenset([header]).union(*(each.headers for each in arguments)),
    )


def _parse_arguments(text, name, words):
    def expect(allowed):
        word = words.pop(0) if words else "nothing"
        if word not in allowed:
            raise UserError(
                f"type '{text}' has {word} where {name}[] needs"
                f" {' or '.join(allowed)}; write {name}[TYPE, ...]"
            )
        return word

    expect("[")
    arguments = [_parse_one(text, words)]
    while expect(",]") == ",":
        arguments.append(_parse_one(text, words))
    return arguments
