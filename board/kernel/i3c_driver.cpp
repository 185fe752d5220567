// SPDX-License-Identifier: Apache-2.0
#include "board/kernel/i3c_driver.hpp"

#include <algorithm>
#include <cerrno>
#include <utility>

namespace board
{
namespace
{

// The ids that the daemon publishes as slot 0 and slot 1.
constexpr std::array<std::uint8_t, controllerCount> usualEids{0x1D, 0x9D};

const std::string driverDirectory =
    "sys/bus/platform/drivers/silvaco-i3c-master/";
const std::string deviceDirectory = "sys/devices/platform/";
const std::string classDirectory = "sys/class/i3c-mctp/";
const std::string nodeDirectory = "dev/";

} // namespace

I3cDriver::I3cDriver(FileTree& tree, Timeline& timeline) :
    tree(tree), timeline(timeline),
    controllers{ControllerState{std::make_shared<Endpoint>(usualEids[0])},
                ControllerState{std::make_shared<Endpoint>(usualEids[1])}}
{
    tree.add("sys/class/i3c-mctp", directoryEntry());
    for (const auto* name : controllerNames)
    {
        tree.add(deviceDirectory + name, directoryEntry());
    }
    setFile(DriverFile::bind, 0);
    setFile(DriverFile::unbind, 0);
}

void I3cDriver::setFile(DriverFile file, int error)
{
    const auto isBind = file == DriverFile::bind;
    const auto path = driverDirectory + (isBind ? "bind" : "unbind");
    if (error == ENOENT)
    {
        tree.remove(path);
        return;
    }
    tree.add(
        path,
        controlEntry(
            [this, isBind, error]
            {
                if (error != 0)
                {
                    timeline.record(event::DriverFileRefused{isBind, error});
                }
                return error;
            },
            [this, isBind](std::string_view name)
            {
                const auto now = Clock::now();
                return isBind ? bind(name, now) : unbind(name, now);
            }));
}

int I3cDriver::bind(std::string_view name, Clock::time_point now)
{
    auto* const controller = find(name);
    const auto error = controller == nullptr ? ENODEV
                       : controller->bound   ? EBUSY
                                             : controller->refusals.bind;
    timeline.record(event::DriverWrite{true, std::string(name), error});
    if (error != 0)
    {
        return error;
    }
    controller->bound = true;
    tree.add(driverDirectory + std::string(name),
             linkEntry("../../../../devices/platform/" + std::string(name)));
    startComingUp(*controller, now);
    advance(now);
    return 0;
}

int I3cDriver::unbind(std::string_view name, Clock::time_point now)
{
    advance(now);
    auto* const controller = find(name);
    const auto error = controller == nullptr || !controller->bound
                           ? ENODEV
                           : controller->refusals.unbind;
    timeline.record(event::DriverWrite{false, std::string(name), error});
    if (error != 0)
    {
        return error;
    }
    takeDown(*controller);
    controller->bound = false;
    controller->upAt.reset();
    controller->upAfterTheOther.reset();
    tree.remove(driverDirectory + std::string(name));
    return 0;
}

void I3cDriver::advance(Clock::time_point now)
{
    while (auto* const controller = firstToComeUp(now))
    {
        const auto at = *std::exchange(controller->upAt, std::nullopt);
        bringUp(*controller);
        startWaiting(at);
    }
    for (auto& controller : controllers)
    {
        if (controller.device)
        {
            controller.device->advance(now);
            if (controller.device->isGone())
            {
                takeDown(controller);
            }
        }
    }
}

std::optional<Clock::time_point> I3cDriver::nextDue() const
{
    std::optional<Clock::time_point> next;
    const auto consider = [&next](std::optional<Clock::time_point> due)
    {
        if (due && (!next || *due < *next))
        {
            next = due;
        }
    };
    for (const auto& controller : controllers)
    {
        consider(controller.upAt);
        if (controller.device)
        {
            consider(controller.device->nextArrival());
        }
    }
    return next;
}

int I3cDriver::removeNode(std::string_view node)
{
    const auto path = nodeDirectory + std::string(node);
    if (tree.find(path) == nullptr)
    {
        return ENOENT;
    }
    tree.remove(path);
    timeline.record(event::NodeRemoved{std::string(node)});
    return 0;
}

ControllerState& I3cDriver::controller(std::size_t index)
{
    return controllers.at(index);
}

ControllerState* I3cDriver::find(std::string_view name)
{
    for (std::size_t index = 0; index < controllerCount; ++index)
    {
        if (controllerNames.at(index) == name)
        {
            return &controllers.at(index);
        }
    }
    return nullptr;
}

ControllerState* I3cDriver::firstToComeUp(Clock::time_point now)
{
    ControllerState* first = nullptr;
    for (auto& controller : controllers)
    {
        if (controller.upAt && *controller.upAt <= now &&
            (first == nullptr || *controller.upAt < *first->upAt))
        {
            first = &controller;
        }
    }
    return first;
}

std::size_t I3cDriver::indexOf(const ControllerState& controller) const
{
    return static_cast<std::size_t>(&controller - controllers.data());
}

std::size_t I3cDriver::lowestFreeNumber() const
{
    const auto taken = [this](std::size_t number)
    {
        return std::any_of(controllers.begin(), controllers.end(),
                           [number](const ControllerState& other)
                           {
                               return other.device && other.number == number;
                           });
    };
    std::size_t number = 0;
    while (taken(number))
    {
        ++number;
    }
    return number;
}

bool I3cDriver::isOtherUp(const ControllerState& controller) const
{
    return std::any_of(controllers.begin(), controllers.end(),
                       [&controller](const ControllerState& other)
                       {
                           return &other != &controller && other.device;
                       });
}

void I3cDriver::startComingUp(ControllerState& controller,
                              Clock::time_point now)
{
    const auto after = controller.comingUp.after;
    if (controller.comingUp.afterTheOther && !isOtherUp(controller))
    {
        controller.upAfterTheOther = after;
    }
    else if (after)
    {
        controller.upAt = now + *after;
    }
}

void I3cDriver::startWaiting(Clock::time_point now)
{
    for (auto& controller : controllers)
    {
        if (controller.upAfterTheOther && isOtherUp(controller))
        {
            controller.upAt =
                now + *std::exchange(controller.upAfterTheOther, std::nullopt);
        }
    }
}

void I3cDriver::bringUp(ControllerState& controller)
{
    const auto index = indexOf(controller);
    controller.number = lowestFreeNumber();
    const auto node = "i3c-mctp-" + std::to_string(controller.number);
    controller.device = std::make_shared<MctpDevice>(node, controller.endpoint);
    controller.device->refuse(controller.refusals.node);
    // Its directory below sys/.
    const auto own = std::string("devices/platform/") +
                     controllerNames.at(index) + "/i3c-mctp/" + node;
    // The first of the numbers that the kernel hands out dynamically.
    constexpr auto majorNumber = "234:";
    tree.add(
        "sys/" + own + "/dev",
        readableEntry(majorNumber + std::to_string(controller.number) + "\n"));
    if (controller.comingUp.classEntry != ClassEntry::none)
    {
        tree.add(classDirectory + node,
                 controller.comingUp.classEntry == ClassEntry::directory
                     ? linkEntry("../../" + own)
                     : readableEntry(""));
    }
    tree.add(nodeDirectory + node, deviceEntry(controller.device));
    timeline.record(
        event::DeviceUp{index, node, controller.comingUp.classEntry});
}

void I3cDriver::takeDown(ControllerState& controller)
{
    if (!controller.device)
    {
        return;
    }
    const auto index = indexOf(controller);
    const auto device = std::exchange(controller.device, nullptr);
    device->remove();
    tree.remove(nodeDirectory + device->node());
    tree.remove(classDirectory + device->node());
    tree.remove(deviceDirectory + controllerNames.at(index) + "/i3c-mctp");
    timeline.record(event::DeviceDown{index, device->node()});
}

} // namespace board
