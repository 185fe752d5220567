// SPDX-License-Identifier: Apache-2.0
#include "board/util/line_reader.hpp"

#include <sys/ioctl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <utility>

namespace board
{
namespace
{

/** How many bytes wait in a pipe. */
int waitingIn(const Fd& pipe)
{
    int bytes = 0;
    // Fails for what is no pipe only; then nothing waits.
    static_cast<void>(ioctl(pipe.get(), FIONREAD, &bytes));
    return bytes;
}

} // namespace

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
    // One read more than there are bytes: an end shows in no other way.
    for (auto left = waitingIn(pipe) + 1; left > 0;)
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
        left -= static_cast<int>(got);
        cut({bytes.data(), static_cast<std::size_t>(got)}, take);
    }
    return true;
}

void LineReader::cut(std::string_view bytes, const Take& take)
{
    for (auto end = bytes.find('\n'); end != std::string_view::npos;
         end = bytes.find('\n'))
    {
        partial.append(bytes.substr(0, end));
        take(std::exchange(partial, {}));
        bytes.remove_prefix(end + 1);
    }
    partial.append(bytes);
    if (partial.size() >= longestLine)
    {
        finish(take);
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
