// SPDX-License-Identifier: Apache-2.0
#include "board/commands/arguments.hpp"

#include "board/commands/target.hpp"
#include "board/host/host.hpp"

#include <algorithm>
#include <charconv>
#include <csignal>
#include <cstring>

namespace board::commands
{
namespace
{

template <unsigned least, unsigned greatest>
bool isNumber(std::string_view word)
{
    const auto value = parseNumber(word);
    return value && *value >= least && *value <= greatest;
}

constexpr auto isByte = isNumber<0, 0xFF>;

std::optional<int> parseErrno(std::string_view word)
{
    constexpr int afterLast = 134;
    for (int value = 1; value < afterLast; ++value)
    {
        const auto* const name = strerrorname_np(value);
        if (name != nullptr && word == name)
        {
            return value;
        }
    }
    return {};
}

/** An exit status, or the name of the signal that ended the process. */
std::optional<event::Exited> parseEnd(std::string_view word)
{
    constexpr int noStatus = -1;
    constexpr int noSignal = 0;
    if (isByte(word))
    {
        return event::Exited{numberOf<int>(word), noSignal};
    }
    for (int number = 1; number < NSIG; ++number)
    {
        const auto* const name = sigabbrev_np(number);
        if (name != nullptr && word == std::string("SIG") + name)
        {
            return event::Exited{noStatus, number};
        }
    }
    return {};
}

bool isEnd(std::string_view word)
{
    return parseEnd(word).has_value();
}

/** States of the host are; so a command that is mistyped is none. */
bool isCapitalised(std::string_view word)
{
    return !word.empty() && word.front() >= 'A' && word.front() <= 'Z';
}

bool isErrno(std::string_view word)
{
    return parseErrno(word).has_value();
}

bool isTarget(std::string_view word)
{
    return targetOf(word) != target::none;
}

struct Kind
{
    std::string_view name;
    std::string_view meaning;
    bool (*takes)(std::string_view word);
    std::vector<std::string> examples;
};

const std::vector<Kind>& kinds()
{
    static const std::vector<Kind> table{
        {"CONTROLLER", "0 or 1", isNumber<0, 1>, {"0", "1"}},
        {"EID", "0 to 255, or 0x00 to 0xff", isByte, {"29", "157"}},
        {"BYTE", "0 to 255, or 0x00 to 0xff", isByte, {}},
        {"BYTES", "0 to 4096", isNumber<0, 4096>, {}},
        {"PART", "1 to 64 bytes", isNumber<1, 64>, {}},
        {"PACKETS", "1 to 10000", isNumber<1, 10'000>, {}},
        {"MS", "milliseconds, 0 to 3600000", isNumber<0, 3'600'000>, {}},
        {"LEVEL", "0 to 99", isNumber<0, 99>, {"1", "2", "4", "11"}},
        {"COUNT", "0 to 1000000", isNumber<0, 1'000'000>, {}},
        {"TIMES", "1 to 1000000", isNumber<1, 1'000'000>, {}},
        {"END",
         "an exit status, or a signal such as SIGKILL",
         isEnd,
         {"0", "SIGKILL", "SIGTERM"}},
        {"STATE", "a capitalised word", isCapitalised, hostStates()},
        {"POWER", "", nullptr, {"StateS0", "StateS3", "StateS4", "StateS5"}},
        {"CAUSE", "", nullptr, {"WarmReset", "ColdReset"}},
        {"BEHAVIOUR", "what may follow \"endpoint CONTROLLER\"", nullptr, {}},
        {"ERRNO",
         "an errno name such as EIO",
         isErrno,
         {"EACCES", "EBUSY", "EIO", "ENODEV", "ENOENT"}},
        {"PEER",
         "",
         nullptr,
         {"descriptors", "large", "crowd", "cut", "flood", "deaf"}},
        {"TARGET",
         "simulated, service or virtual",
         isTarget,
         {"simulated", "service", "virtual"}},
        {"KEY", "", nullptr, {"CPU_VENDOR"}},
    };
    return table;
}

const Kind* find(std::string_view name)
{
    const auto found = std::find_if(kinds().begin(), kinds().end(),
                                    [name](const Kind& kind)
                                    {
                                        return kind.name == name;
                                    });
    return found == kinds().end() ? nullptr : &*found;
}

} // namespace

bool isWord(std::string_view element)
{
    return element.find('|') == std::string_view::npos &&
           element.front() >= 'a' && element.front() <= 'z';
}

bool isOfKind(std::string_view element, std::string_view word)
{
    if (const auto bar = element.find('|'); bar != std::string_view::npos)
    {
        return isOfKind(element.substr(0, bar), word) ||
               isOfKind(element.substr(bar + 1), word);
    }
    if (isWord(element))
    {
        return element == word;
    }
    const auto* const kind = find(element);
    return kind == nullptr || kind->takes == nullptr || kind->takes(word);
}

std::string meaningOf(std::string_view kind)
{
    const auto* const found = find(kind);
    return std::string(found == nullptr ? "" : found->meaning);
}

std::vector<std::string> examplesOf(std::string_view kind)
{
    const auto* const found = find(kind);
    return found == nullptr ? std::vector<std::string>() : found->examples;
}

std::optional<std::uint64_t> parseNumber(std::string_view word)
{
    constexpr int decimal = 10;
    constexpr int hexadecimal = 16;
    const auto isHex = word.starts_with("0x");
    word.remove_prefix(isHex ? 2 : 0);
    std::uint64_t value = 0;
    const auto* const end = word.data() + word.size();
    const auto [stop, error] =
        std::from_chars(word.data(), end, value, isHex ? hexadecimal : decimal);
    return error == std::errc() && stop == end ? std::optional(value)
                                               : std::nullopt;
}

std::chrono::milliseconds millisecondsOf(std::string_view word)
{
    return std::chrono::milliseconds(numberOf(word));
}

int errnoOf(std::string_view word)
{
    return parseErrno(word).value();
}

event::Exited endOf(std::string_view word)
{
    return parseEnd(word).value();
}

} // namespace board::commands
