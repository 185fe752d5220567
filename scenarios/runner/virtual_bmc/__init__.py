# SPDX-License-Identifier: Apache-2.0
"""A virtual board from outside: a machine in QEMU, what happens in it, and the
stories that are told to it."""
