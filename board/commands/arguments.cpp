// SPDX-License-Identifier: Apache-2.0
#include "board/commands/arguments.hpp"

#include "board/commands/target.hpp"
#include "board/commands/vocabulary.hpp"
#include "board/endpoint/behaviours.hpp"
#include "board/host/host.hpp"
#include "board/kernel/i3c_driver.hpp"
#include "board/util/error.hpp"
#include "board/util/plain_text.hpp"

#include <algorithm>
#include <csignal>
#include <cstring>
#include <optional>

namespace board::commands
{
namespace
{

constexpr unsigned greatestEid = 0xFF;
constexpr unsigned greatestStatus = 0xFF;
constexpr unsigned greatestLevel = 99;
constexpr unsigned longestMs = 3'600'000; // an hour
constexpr unsigned greatestCount = 1'000'000;

/** A number from 0 on, decimal or 0x... */
std::optional<unsigned> numberOf(std::string_view word, unsigned greatest)
{
    const auto value = parseNumber(word);
    return value && *value <= greatest
               ? std::optional(static_cast<unsigned>(*value))
               : std::nullopt;
}

template <unsigned greatest>
bool isNumber(std::string_view word)
{
    return numberOf(word, greatest).has_value();
}

/** An exit status, or the name of the signal that ended the process. */
std::optional<event::Exited> parseEnd(std::string_view word)
{
    constexpr int noStatus = -1;
    constexpr int noSignal = 0;
    if (const auto status = numberOf(word, greatestStatus))
    {
        return event::Exited{static_cast<int>(*status), noSignal};
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

std::vector<std::string> namesOf(const std::vector<Phrase>& phrases)
{
    std::vector<std::string> names;
    names.reserve(phrases.size());
    for (const auto& phrase : phrases)
    {
        names.push_back(phrase.name);
    }
    return names;
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
        {"CONTROLLER", "0 or 1", isNumber<controllerCount - 1>, {"0", "1"}},
        {"EID",
         "0 to 255, or 0x00 to 0xff",
         isNumber<greatestEid>,
         {"29", "157"}},
        {"MS", "milliseconds, 0 to 3600000", isNumber<longestMs>, {}},
        {"LEVEL", "0 to 99", isNumber<greatestLevel>, {"1", "2", "4", "11"}},
        {"COUNT", "0 to 1000000", isNumber<greatestCount>, {}},
        {"END",
         "an exit status, or a signal such as SIGKILL",
         isEnd,
         {"0", "SIGKILL", "SIGTERM"}},
        {"STATE", "a capitalised word", isCapitalised, hostStates()},
        {"POWER", "", nullptr, {"StateS0", "StateS3", "StateS4", "StateS5"}},
        {"CAUSE", "", nullptr, {"WarmReset", "ColdReset"}},
        {"BEHAVIOUR", "", nullptr, namesOf(behaviours().phrases())},
        {"ERRNO",
         "an errno name such as EIO",
         isErrno,
         {"EACCES", "EBUSY", "EIO", "ENODEV", "ENOENT"}},
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

unsigned numberOrThrow(std::string_view kind, const std::string& word,
                       unsigned greatest)
{
    const auto value = numberOf(word, greatest);
    if (!value)
    {
        throw Error(inQuotes(word) + " is no " + std::string(kind) + ": " +
                    meaningOf(kind));
    }
    return *value;
}

} // namespace

bool isOfKind(std::string_view kind, std::string_view word)
{
    const auto* const found = find(kind);
    return found == nullptr || found->takes == nullptr || found->takes(word);
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

std::size_t controllerOf(const std::string& word)
{
    return numberOrThrow("CONTROLLER", word, controllerCount - 1);
}

std::uint8_t eidOf(const std::string& word)
{
    return static_cast<std::uint8_t>(numberOrThrow("EID", word, greatestEid));
}

std::chrono::milliseconds millisecondsOf(const std::string& word)
{
    return std::chrono::milliseconds(numberOrThrow("MS", word, longestMs));
}

int levelOf(const std::string& word)
{
    return static_cast<int>(numberOrThrow("LEVEL", word, greatestLevel));
}

std::size_t countOf(const std::string& word)
{
    return numberOrThrow("COUNT", word, greatestCount);
}

int errnoOf(const std::string& word)
{
    return parseErrno(word).value_or(0);
}

event::Exited endOf(const std::string& word)
{
    const auto end = parseEnd(word);
    if (!end)
    {
        throw Error(inQuotes(word) + " is no END: " + meaningOf("END"));
    }
    return *end;
}

} // namespace board::commands
