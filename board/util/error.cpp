// SPDX-License-Identifier: Apache-2.0
#include "board/util/error.hpp"

#include <system_error>

namespace board
{

Error Error::fromErrno(const std::string& what, int error,
                       const std::string& advice)
{
    const auto why = what + ": " + std::generic_category().message(error);
    return Error(advice.empty() ? why : why + "; " + advice);
}

} // namespace board
