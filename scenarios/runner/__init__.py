# SPDX-License-Identifier: Apache-2.0
"""Runs scenarios on their targets: see docs/board.md. morrow-board parses them;
what runs commands where there is a service manager is here."""
