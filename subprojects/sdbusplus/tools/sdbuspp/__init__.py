# SPDX-License-Identifier: Apache-2.0
"""The generator behind sdbus++.

    main         the command line
    definition   an interface as its YAML file defines it, checked
    types        the types of a definition and what they are in C++
    names        what members and namespaces are called in C++
    render       from a definition to a file, through templates/
"""
