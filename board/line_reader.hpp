// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/fd.hpp"

#include <functional>
#include <string>
#include <string_view>

namespace board
{

/** Cuts what comes out of a pipe into lines. The pipe does not block; what is
 *  not a whole line yet is kept for the next time. One thread at a time. */
class LineReader
{
  public:
    using Take = std::function<void(std::string_view line)>;

    explicit LineReader(Fd pipe);

    [[nodiscard]] int fd() const;

    /** @brief Read what there is and hand over the whole lines in it.
     *  @return false when all writers have closed it */
    bool drain(const Take& take);

    /** @brief Hand over what is left without a line end, if anything is. */
    void finish(const Take& take);

  private:
    Fd pipe;
    std::string partial;
};

} // namespace board
