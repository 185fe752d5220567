#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Checks the hardening and the exports of installed programs and libraries.

Usage: check_release.py DIRECTORY [TREE]

DIRECTORY is a stripped installation, for any processor; TREE, by default the
one of this script, has the exports.map of each library. Of every program and
library in DIRECTORY it checks that

  - it may be loaded at any address, is bound when it is loaded and read-only
    from then on (PIE, BIND_NOW, GNU_RELRO), and its stack is not executable;
  - functions with arrays check for overflow (__stack_chk_fail), and calls of
    the C library check the size of their buffers where the compiler cannot (the
    log's __vsnprintf_chk);
  - it looks for libraries only in directories relative to itself ($ORIGIN);
  - a library exports exactly what its exports.map lists, and a program nothing.

Prints a line for each file, with its size and then its faults. The exit status
is 0 without faults.
"""

import re
import subprocess
import sys
from fnmatch import fnmatchcase
from pathlib import Path

# The maps, by the name that the loader looks for.
MAPS = {
    "libplatform-hal.so.1": "platform/hal/exports.map",
    "libplatform-lock.so.1": "platform/lock/exports.map",
    "libplatform-log.so.1": "platform/log/exports.map",
    "libplatform-mctp.so.1": "platform/mctp/exports.map",
}

# Calls whose buffers can only be checked at run time.
CHECKED_CALLS = {"libplatform-log.so.1": "__vsnprintf_chk"}


def output(*command):
    return subprocess.run(
        command, capture_output=True, text=True, check=True
    ).stdout


def symbols(path, *options):
    """Demangled dynamic symbols, without their versions."""
    lines = output("nm", "--dynamic", "--demangle", "--format=posix", *options, path)
    names = (re.match(r"(.*?) [A-Za-z](?: [0-9a-f]+){0,2}\s*$", line)
             for line in lines.splitlines())  # fmt: skip
    return {re.sub(r"@.*", "", found[1]) for found in names if found}


def exported(path):
    return symbols(path, "--defined-only")


def patterns(exports_map):
    """What a map exports, as shell patterns of demangled names."""
    text = re.sub(r"#.*", "", exports_map.read_text())
    text = text[text.index("global:") + len("global:") : text.index("local:")]
    text = re.sub(r'extern\s+"C\+\+"|[{}]', " ", text)
    return [pattern.strip() for pattern in text.split(";") if pattern.strip()]


def wrong_exports(path, exports_map):
    names = exported(path)
    wanted = patterns(exports_map)
    for name in sorted(names):
        if not any(fnmatchcase(name, pattern) for pattern in wanted):
            yield f"exports {name}, which {exports_map.name} does not list"
    for pattern in wanted:
        if not any(fnmatchcase(name, pattern) for name in names):
            yield f"does not export {pattern}, which {exports_map.name} lists"


def wrong_exports_of_program(path):
    for name in sorted(exported(path)):
        yield f"exports {name}"


def wrong_hardening(path, is_program):
    headers = output("readelf", "--wide", "--file-header", "--program-headers", path)
    dynamic = output("readelf", "--wide", "--dynamic", path)
    if not re.search(r"Type:\s+DYN", headers):
        yield "is not position-independent"
    elif is_program and not re.search(r"FLAGS_1.* PIE", dynamic):
        yield "is not linked as a position-independent program"
    if not re.search(r"\(FLAGS\).*BIND_NOW", dynamic):
        yield "is bound lazily (no BIND_NOW)"
    if "GNU_RELRO" not in headers:
        yield "stays writable after it is bound (no GNU_RELRO)"
    if re.search(r"GNU_STACK.*\bRWE\b", headers) or "GNU_STACK" not in headers:
        yield "has an executable stack"
    if "TEXTREL" in dynamic:
        yield "has relocations in its code (TEXTREL)"
    for place in re.findall(r"\((?:RPATH|RUNPATH)\).*\[(.*)\]", dynamic):
        if not place.startswith("$ORIGIN"):
            yield f"looks for libraries in {place}"
    if ".symtab" in output("readelf", "--wide", "--section-headers", path):
        yield "is not stripped"


def wrong_calls(path):
    needed = symbols(path, "--undefined-only")
    wanted = ["__stack_chk_fail"]
    if path.name in CHECKED_CALLS:
        wanted.append(CHECKED_CALLS[path.name])
    for name in wanted:
        if name not in needed:
            yield f"never calls {name}"


def is_elf(path):
    with open(path, "rb") as file:
        return file.read(4) == b"\x7fELF"


def check(directory, tree):
    """Yields each file with the list of what is wrong with it."""
    files = sorted(
        path
        for path in directory.rglob("*")
        if path.is_file() and not path.is_symlink() and is_elf(path)
    )
    libraries = [path for path in files if ".so" in path.name]
    for path in files:
        is_program = path not in libraries
        wrong = [*wrong_hardening(path, is_program), *wrong_calls(path)]
        if is_program:
            wrong += wrong_exports_of_program(path)
        elif path.name in MAPS:
            wrong += wrong_exports(path, tree / MAPS[path.name])
        else:
            wrong.append("has no known exports.map")
        yield path, wrong


def main(directory, tree):
    found = list(check(directory, tree))
    if not found:
        sys.exit(f"{directory}: there is no program or library; install first")
    for path, wrong in found:
        print(f"{path.stat().st_size:9} {path.relative_to(directory)}")
        for what in wrong:
            print(f"          {what}")
    sys.exit(1 if any(wrong for _, wrong in found) else 0)


if __name__ == "__main__":
    if len(sys.argv) not in (2, 3):
        sys.exit(__doc__)
    top = Path(__file__).resolve().parents[1]
    main(Path(sys.argv[1]), Path(*sys.argv[2:] or [top]))
