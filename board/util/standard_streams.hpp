// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdio>
#include <string>

/** The standard streams as a caller may leave them: closed, or at something
 *  that takes no more. */
namespace board
{

/** @brief Open /dev/null at each standard descriptor that is closed, so that
 *         no file that is opened later gets its number and what is meant for a
 *         standard stream. Reading from it and writing to it fails as it would
 *         on a closed descriptor. For the very beginning of a main function.
 *  @throws Error when that is not possible */
void occupyClosedDescriptors();

/** @brief Write a text at once. A stream that takes no more is no reason to
 *         stop; why it does not is kept for verifyStandardOutput(). */
void put(std::FILE* stream, const std::string& text);

/** @brief Verify that everything that was written to standard output has
 *         arrived. A reader that has gone wants no more; that is no failure.
 *  @throws Error when something is missing */
void verifyStandardOutput();

} // namespace board
