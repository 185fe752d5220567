# SPDX-License-Identifier: Apache-2.0
"""What users of the generator are told."""


class UserError(Exception):
    """Something that the user can mend: says what is wrong and what to do."""
