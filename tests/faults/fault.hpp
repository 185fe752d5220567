// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * Which calls of the daemon are failed, with which errors, and what may become
 * of the daemon then.
 */

#include <cstdint>
#include <initializer_list>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace faults
{

/** What a failed call comes to; a worse outcome comes later. */
enum class Outcome
{
    goesOn, //!< at most an operation is given up; the next discovery has it
    notReady, //!< as before, but the service manager never hears of it
    deaf, //!< as before, but power signals do not arrive
    unanswered, //!< as before, but nobody answers who asks for the objects
    blind, //!< it never reads the host's state and discovers nothing
    unserved, //!< as before, but without the bus name and its objects
    stops, //!< it begins its stop without being told to
    stopWaits, //!< the stop never ends; the service manager ends it
    startWaits, //!< the initialisation never ends; the service manager ends it
    aborts, //!< SIGABRT
};

std::string_view nameOf(Outcome outcome);

/** A set of outcomes. goesOn is always in it. */
class Outcomes
{
  public:
    constexpr Outcomes(std::initializer_list<Outcome> list)
    {
        for (const auto outcome : list)
        {
            bits |= 1U << static_cast<unsigned>(outcome);
        }
    }

    [[nodiscard]] constexpr bool has(Outcome outcome) const
    {
        return outcome == Outcome::goesOn ||
               (bits >> static_cast<unsigned>(outcome) & 1U) != 0;
    }

  private:
    unsigned bits = 0;
};

/** A function that can fail. */
struct Function
{
    std::string_view name;
    std::string_view symbol; //!< what the linker knows it by
    std::vector<int> errors; //!< as faults.cpp takes them
    Outcomes allowed;
};

/** The table. */
[[nodiscard]] std::span<const Function> functions();

/** One call that is failed. */
struct Fault
{
    const Function* function;
    std::string place; //!< see faults.cpp
    int error;
    std::string stack;

    /** E.g. "malloc 1234567812345678 12", for repeating it alone. */
    [[nodiscard]] std::string name() const;
};

} // namespace faults
