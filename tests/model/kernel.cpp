// SPDX-License-Identifier: Apache-2.0
#include "kernel.hpp"

namespace model
{

namespace
{

constexpr int millisecondsPerPoll = 100;

} // namespace

void Kernel::behaves(std::size_t controller, const Device& device)
{
    buses.at(controller).device = device;
}

void Kernel::binds(std::size_t controller)
{
    Bus& bus = buses.at(controller);
    if (!bus.bound && bus.device.comesUp)
    {
        bus.comesUpIn = bus.device.polls * millisecondsPerPoll;
    }
    bus.bound = true;
}

void Kernel::unbinds(std::size_t controller)
{
    Bus& bus = buses.at(controller);
    if (bus.number)
    {
        places.at(*bus.number).entry = ClassEntry::none;
    }
    bus.bound = false;
    bus.comesUpIn.reset();
    bus.number.reset();
}

void Kernel::advance(int milliseconds)
{
    for (Bus& bus : buses)
    {
        if (bus.comesUpIn && (*bus.comesUpIn -= milliseconds) <= 0)
        {
            comesUp(bus);
        }
    }
}

void Kernel::comesUp(Bus& bus)
{
    bus.comesUpIn.reset();
    bus.number = bus.device.number;
    places.at(bus.device.number) = {.node = true, .entry = bus.device.entry};
}

bool Kernel::removesNode(std::size_t number)
{
    const bool wasThere = places.at(number).node;
    places.at(number).node = false;
    return wasThere;
}

void Kernel::makesNode(std::size_t number)
{
    places.at(number).node = true;
}

void Kernel::makesEntry(std::size_t number, ClassEntry entry)
{
    places.at(number).entry = entry;
}

} // namespace model
