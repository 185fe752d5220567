# SPDX-License-Identifier: Apache-2.0
"""The daemon as a service: a machine with a systemd of its own, the simulated
board in it, and the stories that scripts/check-service tells there."""
