// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/util/fd.hpp"

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

namespace board
{

/** Reads lines from a pipe that does not block. One thread at a time. */
class LineReader
{
  public:
    using Take = std::function<void(std::string_view line)>;

    /** @brief A line of about this many bytes or more comes in pieces. */
    static constexpr std::size_t longestLine = 65536;

    explicit LineReader(Fd pipe);

    [[nodiscard]] int fd() const;

    /** @brief Hand over the whole lines that wait now, and no more, so that an
     *         endless writer does not keep the caller.
     *  @return false when all writers have closed it */
    bool drain(const Take& take);

    /** @brief Hand over an unfinished last line, if there is one. */
    void finish(const Take& take);

  private:
    void cut(std::string_view bytes, const Take& take);

    Fd pipe;
    std::string partial;
};

} // namespace board
