#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Checks a BitBake recipe of this tree against the tree, without BitBake.

    check_recipe.py RECIPE SOURCE_DIRECTORY BUILD_DIRECTORY

The recipe has to be made of comments, `inherit` and assignments of quoted
values. What it says of this tree has to be so: the options that it passes
exist and take these values, the files of its packages are installed, the sum
of the licence is right, and the version is the project's. BUILD_DIRECTORY is
Meson's, for what Meson knows. Prints one line for each fault.
"""

import fnmatch
import hashlib
import json
import re
import sys
from pathlib import Path

ASSIGNMENT = re.compile(
    r"(?P<name>[A-Za-z][\w${}:.+-]*)(?:\[(?P<flag>[\w-]+)\])?"
    r'\s*(?P<how>\?\?=|\?=|:=|\+=|=\+|=)\s*"(?P<value>[^"]*)"'
)
INHERIT = re.compile(r"inherit(?P<classes>( [a-z0-9_-]+)+)")
CONTAINS = re.compile(
    r"\$\{@bb\.utils\.contains\('PACKAGECONFIG', '([\w-]+)',"
    r" '[^']*', '[^']*', d\)\}"
)
REFERENCE = re.compile(r"\$\{([^}@]+)\}")
OPTION = re.compile(r"-D([\w-]+)=([\w${}-]+)")

# What BitBake and the classes define.
GIVEN = {"BP", "PN", "SOLIBS", "datadir", "libdir", "libexecdir",
         "nonarch_libdir", "systemd_system_unitdir"}  # fmt: skip


def statements(text):
    """The recipe's lines, continued ones as one, with their numbers."""
    begun, whole = 0, ""
    for number, line in enumerate(text.splitlines(), 1):
        begun = begun if whole else number
        if line.endswith("\\"):
            whole += line[:-1]
            continue
        whole += line
        if whole and not whole.startswith("#"):
            yield begun, whole
        whole = ""
    if whole:
        yield begun, whole


class Recipe:
    """What a recipe says: classes, values by name, PACKAGECONFIG's flags."""

    def __init__(self, text):
        self.faults = []
        self.classes = set()
        self.values = {}
        self.flags = {}
        for number, line in statements(text):
            if inherit := INHERIT.fullmatch(line):
                self.classes |= set(inherit["classes"].split())
            elif assignment := ASSIGNMENT.fullmatch(line):
                self.assign(**assignment.groupdict())
            else:
                self.faults.append(f"line {number}: no recipe's line: {line}")

    def assign(self, name, flag, how, value):
        del how
        if flag:
            self.flags[name, flag] = value
        else:
            self.values.setdefault(name, []).append(value)

    def value(self, name):
        return " ".join(self.values.get(name, []))

    def all_values(self):
        for values in self.values.values():
            yield from values
        yield from self.flags.values()


class Tree:
    """What the source has and what Meson makes of it."""

    def __init__(self, source, build):
        self.source = source

        def known(what):
            return json.loads((build / f"meson-info/intro-{what}.json").read_text())

        self.version = known("projectinfo")["version"]
        self.options = {option["name"]: option for option in known("buildoptions")}
        self.installed = set(known("installed").values())

    def directory(self, option):
        return Path(self.options["prefix"]["value"], self.options[option]["value"])


def choices_of(option, text):
    """What an option takes; any text, if it is a text's."""
    if option["type"] == "boolean":
        return ["true", "false"]
    return option.get("choices", [text])


def option_faults(recipe, tree):
    for value in recipe.all_values():
        for name, choice in OPTION.findall(value):
            option = tree.options.get(name)
            if option is None:
                yield f"-D{name}: no such option"
            elif choice not in choices_of(option, choice):
                yield f"-D{name}={choice}: no such choice"


def reference_faults(recipe):
    own = set(recipe.values) | GIVEN | {"MORROW_SRC_URI"}
    configurations = {flag for name, flag in recipe.flags if name == "PACKAGECONFIG"}
    for value in recipe.all_values():
        for name in REFERENCE.findall(value):
            if name not in own:
                yield f"${{{name}}}: nobody defines it"
        for name in CONTAINS.findall(value):
            if name not in configurations:
                yield f"{name}: no PACKAGECONFIG of this recipe"
        if "${@" in CONTAINS.sub("", value):
            yield f"{value}: more than bb.utils.contains"
    for name in recipe.value("PACKAGECONFIG").split():
        if name not in configurations:
            yield f"{name}: no PACKAGECONFIG of this recipe"


def file_faults(recipe, tree):
    places = {
        "${libexecdir}": tree.directory("libexecdir"),
        "${libdir}": tree.directory("libdir"),
        "${nonarch_libdir}": tree.directory("prefix") / "lib",
        "${datadir}": tree.directory("datadir"),
    }
    for name, values in recipe.values.items():
        if not name.startswith("FILES:"):
            continue
        for pattern in " ".join(values).split():
            path = pattern.replace("${SOLIBS}", ".so.*")
            for place, directory in places.items():
                path = path.replace(place, str(directory))
            # Where units go is systemd's to say.
            path = path.replace("${systemd_system_unitdir}", "*/systemd/system")
            if not fnmatch.filter(tree.installed, path):
                yield f"{pattern}: nothing is installed there"
    for service in recipe.value("SYSTEMD_SERVICE:${PN}").split():
        if not any(Path(path).name == service for path in tree.installed):
            yield f"{service}: no such unit is installed"


def licence_faults(recipe, tree):
    for entry in recipe.value("LIC_FILES_CHKSUM").split():
        name, _, told = entry.removeprefix("file://").partition(";md5=")
        counted = hashlib.md5((tree.source / name).read_bytes()).hexdigest()
        if told != counted:
            yield f"{name}: its MD5 sum is {counted}, not {told}"


def version_faults(recipe, tree):
    if recipe.value("PV").partition("+")[0] != tree.version:
        yield f"PV is {recipe.value('PV')}, the project is {tree.version}"


def main(recipe_file, source, build):
    recipe = Recipe(Path(recipe_file).read_text())
    tree = Tree(Path(source), Path(build))
    faults = [
        *recipe.faults,
        *option_faults(recipe, tree),
        *reference_faults(recipe),
        *file_faults(recipe, tree),
        *licence_faults(recipe, tree),
        *version_faults(recipe, tree),
    ]
    for fault in faults:
        print(f"{recipe_file}: {fault}", file=sys.stderr)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
