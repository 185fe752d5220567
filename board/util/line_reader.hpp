// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/util/fd.hpp"

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

namespace board
{

/** Cuts what comes out of a pipe into lines. The pipe does not block; what is
 *  not a whole line yet is kept for the next time, up to a length that no
 *  honest line has. One thread at a time. */
class LineReader
{
  public:
    using Take = std::function<void(std::string_view line)>;

    /** @brief A line of about this many bytes or more comes in pieces. */
    static constexpr std::size_t longestLine = 65536;

    explicit LineReader(Fd pipe);

    [[nodiscard]] int fd() const;

    /** @brief Read what waits now and hand over the whole lines in it. What
     *         is written meanwhile is for the next time, so that a writer
     *         without end does not keep the caller for ever.
     *  @return false when all writers have closed it */
    bool drain(const Take& take);

    /** @brief Hand over what is left without a line end, if anything is. */
    void finish(const Take& take);

  private:
    void cut(std::string_view bytes, const Take& take);

    Fd pipe;
    std::string partial;
};

} // namespace board
