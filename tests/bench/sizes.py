# SPDX-License-Identifier: Apache-2.0
"""What is installed, in KiB."""

# The daemon and the libraries that are installed with it.
INSTALLED = [
    "libplatform-hal.so.1",
    "libplatform-lock.so.1",
    "libplatform-log.so.1",
    "libplatform-mctp.so.1",
    "morrow",
]
ALL = "all together"
ARM64_LIMIT = 220


def installed(stage):
    """The sizes of exactly these files, stripped, by their names."""
    files = {path.name: path for path in stage.glob("lib/**/*.so.1")}
    files["morrow"] = stage / "libexec/morrow/morrow"
    if sorted(files) != INSTALLED:
        raise RuntimeError(f"{stage} has other files than {', '.join(INSTALLED)}")
    return {name: files[name].stat().st_size / 1024 for name in INSTALLED}


def measure_sizes(table, tools, options):
    for machine, build, limit in (("x86-64", "release", None), ("aarch64", "arm64", ARM64_LIMIT)):
        group = f"Size, {machine}"
        if not (tools.root / build).exists():
            table.add_unmeasured(group, ALL, "KiB", at_most=limit)
            continue
        sizes = installed(tools.stage(build))
        for file, size in sizes.items():
            table.add(group, file, "KiB", [size])
        table.add(group, ALL, "KiB", [sum(sizes.values())], at_most=limit)
