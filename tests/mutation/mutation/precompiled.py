# SPDX-License-Identifier: Apache-2.0
"""A precompiled header of what the daemon's sources include, which takes most of
the time that a mutant takes to compile.

The compiler is called through a small script that includes it in front of the
daemon's sources, as they are built for the tests.
"""

import json
import re
import shlex

INCLUDE = re.compile(r"^#include <[^>]+>$", re.MULTILINE)

# The library of the daemon's sources, as the tests link it.
LIBRARY = "libdaemon-under-test.a.p"

COMPILER = """\
#!/bin/sh
case " $* " in
*{library}*" -c "*) [ -e {header}.gch ] && exec c++ -include {header} "$@" ;;
esac
exec c++ "$@"
"""


class PrecompiledHeader:
    def __init__(self, tree, place):
        self.tree = tree
        self.header = place / "includes.hpp"
        self.compiler = place / "c++"

    def write_compiler(self):
        self.compiler.parent.mkdir(parents=True, exist_ok=True)
        self.compiler.write_text(
            COMPILER.format(library=LIBRARY, header=shlex.quote(str(self.header)))
        )
        self.compiler.chmod(0o755)

    def is_current(self):
        """Writes the header if the includes of the sources have changed."""
        includes = {
            line
            for path in (self.tree / "morrow").iterdir()
            if path.suffix in (".cpp", ".hpp")
            for line in INCLUDE.findall(path.read_text())
        }
        text = "".join(f"{line}\n" for line in sorted(includes))
        if self._precompiled().exists() and self.header.read_text() == text:
            return True
        self._precompiled().unlink(missing_ok=True)
        self.header.write_text(text)
        return False

    def command(self, build):
        """Compiles it, with the options of the sources."""
        commands = json.loads((build / "compile_commands.json").read_text())
        words = next(
            shlex.split(entry["command"])
            for entry in commands
            if LIBRARY in entry["output"]
        )
        options = [word for word in words[1 : words.index("-MD")] if word != "-MD"]
        compile_it = ["-x", "c++-header", str(self.header)]
        return ["c++", *options, *compile_it, "-o", str(self._precompiled())]

    def _precompiled(self):
        return self.header.with_name(self.header.name + ".gch")
