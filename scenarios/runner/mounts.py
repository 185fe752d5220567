# SPDX-License-Identifier: Apache-2.0
"""Moves mounts between processes: shows one process's tree to another."""

import ctypes
import os

# open_tree(2), move_mount(2), setns(2): the C library has the last alone.
SYS_OPEN_TREE = 428
SYS_MOVE_MOUNT = 429
AT_FDCWD = -100
AT_RECURSIVE = 0x8000
OPEN_TREE_CLONE = 1
MOVE_MOUNT_F_EMPTY_PATH = 4
CLONE_NEWNS = 0x20000

libc = ctypes.CDLL(None, use_errno=True)


def checked(what, result):
    if result < 0:
        raise OSError(ctypes.get_errno(), what)
    return result


def show_tree(path, giver, taker):
    """Mounts a tree that one process sees where another one sees a directory
    of that name."""
    own = os.fork()
    if own == 0:
        try:
            _show(path.encode(), giver, taker)
            os._exit(0)
        except OSError as error:
            os.write(2, f"{path}: {error}\n".encode())
            os._exit(1)
    _, status = os.waitpid(own, 0)
    if status != 0:
        raise OSError(f"cannot show {path} of the simulated board to the container")


def _show(path, giver, taker):
    taker_mounts = os.open(f"/proc/{taker}/ns/mnt", os.O_RDONLY)
    giver_mounts = os.open(f"/proc/{giver}/ns/mnt", os.O_RDONLY)
    checked("setns", libc.setns(giver_mounts, CLONE_NEWNS))
    flags = OPEN_TREE_CLONE | AT_RECURSIVE
    tree = checked(
        "open_tree", libc.syscall(SYS_OPEN_TREE, AT_FDCWD, path, flags)
    )
    checked("setns", libc.setns(taker_mounts, CLONE_NEWNS))
    flags = MOVE_MOUNT_F_EMPTY_PATH
    checked(
        "move_mount",
        libc.syscall(SYS_MOVE_MOUNT, tree, b"", AT_FDCWD, path, flags),
    )
