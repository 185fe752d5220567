// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * What the fuzz targets share: taking an input apart, and checking a result.
 */

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <string>

namespace fuzz
{

using Bytes = std::span<const std::uint8_t>;

/** The bytes of one input, taken from the front; zeros after their end. */
class Input
{
  public:
    Input(const std::uint8_t* data, std::size_t size) : left(data, size)
    {
    }

    [[nodiscard]] bool empty() const
    {
        return left.empty();
    }

    std::uint8_t byte()
    {
        const auto one = take(1);
        return one.empty() ? 0 : one.front();
    }

    /** @return a number below `count`, or 0 */
    std::size_t below(std::size_t count)
    {
        return count == 0 ? 0 : byte() % count;
    }

    /** Some bytes, after one that says how many: at most 255. */
    Bytes bytes()
    {
        return take(byte());
    }

    /** The same as text. */
    std::string text()
    {
        const auto some = bytes();
        return {some.begin(), some.end()};
    }

    Bytes rest()
    {
        return take(left.size());
    }

  private:
    Bytes take(std::size_t count)
    {
        const auto taken = left.first(std::min(count, left.size()));
        left = left.subspan(taken.size());
        return taken;
    }

    Bytes left;
};

/** Ends the process, which the fuzzer reports, unless the promise is kept. */
inline void expect(bool kept, const char* promise)
{
    if (!kept)
    {
        static_cast<void>(std::fprintf(stderr, "not so: %s\n", promise));
        std::abort();
    }
}

} // namespace fuzz
