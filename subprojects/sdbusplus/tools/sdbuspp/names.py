# SPDX-License-Identifier: Apache-2.0
"""What the names of a definition become in C++."""

import re

CPP_KEYWORDS = frozenset(
    """
    alignas alignof and and_eq asm auto bitand bitor bool break case catch
    char char8_t char16_t char32_t class co_await co_return co_yield compl
    concept const const_cast consteval constexpr constinit continue decltype
    default delete do double dynamic_cast else enum explicit export extern
    false float for friend goto if inline int long mutable namespace new
    noexcept not not_eq nullptr operator or or_eq private protected public
    register reinterpret_cast requires return short signed sizeof static
    static_assert static_cast struct switch template this thread_local throw
    true try typedef typeid typename union unsigned using virtual void
    volatile wchar_t while xor xor_eq
    """.split()
)


def not_a_keyword(name):
    """The name, with an underscore after it if C++ has taken it."""
    return name + "_" if name in CPP_KEYWORDS else name


def member_name(name):
    """NetworkId is networkId, EID is eid, MACAddress is macAddress."""
    first, *rest = [part for part in re.split("[_-]+", name) if part] or [""]
    name = first + "".join(part[0].upper() + part[1:] for part in rest)
    if name.upper() == name:
        return not_a_keyword(name.lower())
    acronym = re.match("[A-Z]+(?=[A-Z])", name)
    leading = acronym.end() if acronym else 1
    return not_a_keyword(name[:leading].lower() + name[leading:])


def namespace_name(part):
    """PowerSupply is power_supply; what is snake case already stays."""
    part = re.sub("([A-Z]+)([A-Z][a-z])", r"\1_\2", part)
    part = re.sub("([a-z0-9])([A-Z])", r"\1_\2", part)
    return not_a_keyword(part.replace("-", "_").lower())
