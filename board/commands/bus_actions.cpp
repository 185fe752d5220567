// SPDX-License-Identifier: Apache-2.0
#include "board/bus/bus.hpp"
#include "board/util/plain_text.hpp"

namespace board
{
namespace
{

using Entry = Vocabulary<BusAction>::Entry;

/** A phrase without arguments. */
Entry plain(const std::string& name, const std::string& help,
            void (Bus::*action)())
{
    return {{name, "", help},
            [action](Arguments&) -> BusAction
            {
                return action;
            }};
}

BusAction takingTheName(Arguments& arguments)
{
    const auto word = arguments.textOr("for-good");
    if (word != "for-good" && word != "replaceable")
    {
        arguments.refuse(inQuotes(word) + R"( is not "replaceable")");
    }
    return [replaceable = word == "replaceable"](Bus& bus)
    {
        bus.takesDaemonsName(replaceable);
    };
}

} // namespace

const Vocabulary<BusAction>& busActions()
{
    static const Vocabulary<BusAction> known(
        "bus action",
        {{{"name-taken", "[replaceable]",
           "another peer owns the daemon's name; it can be replaced or not"},
          takingTheName},
         plain("name-given-up", "that peer gives the name up and leaves",
               &Bus::givesUpDaemonsName),
         plain("broker-dies", "the broker ends, and all connections with it",
               &Bus::dies),
         plain("broker-comes-back", "a new broker listens at the same address",
               &Bus::comesBack)});
    return known;
}

} // namespace board
