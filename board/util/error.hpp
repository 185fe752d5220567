// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <stdexcept>
#include <string>

namespace board
{

/** @brief What nobody on the board can mend, told in one line.
 *
 *  The line names what failed, on what, why and, where there is something
 *  to be done about it, what: it is shown to the user as it is.
 */
class Error : public std::runtime_error
{
  public:
    using std::runtime_error::runtime_error;

    /** @brief The line for a failed system call.
     *
     *  @param what  the attempt in words, e.g. "cannot open /dev/fuse"
     *  @param error the errno value
     *  @param advice what the user can do; may be empty
     */
    static Error fromErrno(const std::string& what, int error,
                           const std::string& advice = "");
};

} // namespace board
