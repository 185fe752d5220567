// SPDX-License-Identifier: Apache-2.0
#include "board/bus/bus.hpp"

namespace board
{

using commands::Values;

const std::vector<BusAction>& busActions()
{
    static const std::vector<BusAction> table{
        {"name-taken [replaceable]",
         "Another peer owns the daemon's name; it can be replaced or not.",
         [](Bus& bus, const Values& values)
         {
             bus.takesDaemonsName(!values.empty());
         },
         commands::target::notVirtual},
        {"name-given-up", "That peer gives the name up and leaves.",
         commands::calling(&Bus::givesUpDaemonsName),
         commands::target::notVirtual},
        {"broker-dies", "The broker ends, and all connections with it.",
         commands::calling(&Bus::dies), commands::target::simulated},
        {"broker-comes-back", "A new broker listens at the same address.",
         commands::calling(&Bus::comesBack), commands::target::simulated},
    };
    return table;
}

} // namespace board
