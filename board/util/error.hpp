// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <stdexcept>
#include <string>

namespace board
{

/** @brief A failure for the user, in one line: what failed, on what, why and
 *         what to do about it. */
class Error : public std::runtime_error
{
  public:
    using std::runtime_error::runtime_error;

    /** @brief The line for a failed system call.
     *  @param what e.g. "cannot open /dev/fuse"
     *  @param advice what the user can do; may be empty */
    static Error fromErrno(const std::string& what, int error,
                           const std::string& advice = "");
};

} // namespace board
