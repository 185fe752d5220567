// SPDX-License-Identifier: Apache-2.0
#include "board/timeline/log_line.hpp"

#include <charconv>
#include <optional>
#include <string>

namespace board
{
namespace
{

/** Takes words and numbers off the front of a line; once something is not as
 *  asked for, it stays failed. */
class Cutter
{
  public:
    explicit Cutter(std::string_view text) : rest(text)
    {
    }

    std::string_view until(char separator)
    {
        const auto end = rest.find(separator);
        if (end == std::string_view::npos)
        {
            failed = true;
            return {};
        }
        const auto word = rest.substr(0, end);
        rest.remove_prefix(end + 1);
        return word;
    }

    template <typename Number>
    Number number(char separator)
    {
        const auto word = until(separator);
        Number value{};
        const auto* const end = word.data() + word.size();
        const auto [stop, error] = std::from_chars(word.data(), end, value);
        failed = failed || error != std::errc() || stop != end;
        return value;
    }

    [[nodiscard]] std::string remaining() const
    {
        return std::string(rest);
    }

    [[nodiscard]] bool ok() const
    {
        return !failed;
    }

  private:
    std::string_view rest;
    bool failed = false;
};

std::optional<Event::Body> parseRecord(std::string_view line)
{
    Cutter cutter(line);
    const auto kind = cutter.until(' ');
    if (kind == "dlog")
    {
        event::Log log;
        log.level = cutter.number<int>(' ');
        log.module = cutter.number<int>(' ');
        log.file = cutter.until(':');
        log.line = cutter.number<unsigned>(':');
        log.text = cutter.remaining();
        return cutter.ok() ? std::optional<Event::Body>(log) : std::nullopt;
    }
    if (kind == "trace")
    {
        event::Trace trace;
        trace.level = cutter.number<int>(' ');
        trace.file = cutter.until(':');
        trace.line = cutter.number<unsigned>(':');
        trace.text = cutter.remaining();
        return cutter.ok() ? std::optional<Event::Body>(trace) : std::nullopt;
    }
    return {};
}

} // namespace

Event::Body parseLogLine(std::string_view line)
{
    return parseRecord(line).value_or(
        event::Output{"morrow", std::string(line)});
}

} // namespace board
