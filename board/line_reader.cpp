// SPDX-License-Identifier: Apache-2.0
#include "board/line_reader.hpp"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <utility>

namespace board
{

LineReader::LineReader(Fd pipe) : pipe(std::move(pipe))
{
}

int LineReader::fd() const
{
    return pipe.get();
}

bool LineReader::drain(const Take& take)
{
    std::array<char, 4096> bytes{};
    while (true)
    {
        const auto got = read(pipe.get(), bytes.data(), bytes.size());
        if (got < 0 && errno == EINTR)
        {
            continue;
        }
        if (got <= 0)
        {
            return got < 0;
        }
        partial.append(bytes.data(), static_cast<std::size_t>(got));
        std::size_t start = 0;
        for (auto end = partial.find('\n'); end != std::string::npos;
             end = partial.find('\n', start))
        {
            take(std::string_view(partial).substr(start, end - start));
            start = end + 1;
        }
        partial.erase(0, start);
    }
}

void LineReader::finish(const Take& take)
{
    if (!partial.empty())
    {
        take(std::exchange(partial, {}));
    }
}

} // namespace board
