# SPDX-License-Identifier: Apache-2.0
"""The generator behind sdbus++.

    definition   reads and checks the YAML file of an interface
    main         the command line; renders templates/
"""
