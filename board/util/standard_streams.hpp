// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdio>
#include <string>

namespace board
{

/** @brief Open /dev/null at each standard descriptor that is closed, so that
 *         no file that is opened later gets its number. Its use still fails.
 *         For the very beginning of a main function.
 *  @throws Error when that is not possible */
void occupyClosedDescriptors();

/** @brief Write a text at once. verifyStandardOutput() reports a failure. */
void put(std::FILE* stream, const std::string& text);

/** @brief Verify that all of standard output was written. A reader that has
 *         gone is no failure.
 *  @throws Error when something is missing */
void verifyStandardOutput();

} // namespace board
