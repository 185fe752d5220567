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

/** Where a device's own directory is, below sys/. */
std::string ownDirectory(std::size_t controller, const std::string& node)
{
    return std::string("devices/platform/") + controllerNames[controller] +
           "/i3c-mctp/" + node;
}

} // namespace

I3cDriver::I3cDriver(FileTree& tree, Timeline& timeline) :
    tree(tree), timeline(timeline),
    controllers{Controller{std::make_shared<Endpoint>(usualEids[0])},
                Controller{std::make_shared<Endpoint>(usualEids[1])}}
{
    tree.addDirectory(driverDirectory.substr(0, driverDirectory.size() - 1));
    tree.addDirectory(classDirectory.substr(0, classDirectory.size() - 1));
    tree.addDirectory("dev");
    for (const auto* name : controllerNames)
    {
        tree.addDirectory(deviceDirectory + name);
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
    }
    else if (error != 0)
    {
        tree.add(
            path,
            refusingEntry(
                [this, isBind, error]
                {
                    timeline.record(event::DriverFileRefused{isBind, error});
                    return error;
                }));
    }
    else
    {
        tree.add(path, controlEntry(
                           [this, isBind](std::string_view name)
                           {
                               const auto now = Clock::now();
                               return isBind ? bind(name, now)
                                             : unbind(name, now);
                           }));
    }
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
        startWhoWaited(at);
    }
    for (auto& controller : controllers)
    {
        if (controller.device)
        {
            controller.device->advance(now);
            takeDownIfLost(controller);
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
    if (tree.at(path) == nullptr)
    {
        return ENOENT;
    }
    tree.remove(path);
    timeline.record(event::NodeRemoved{std::string(node)});
    return 0;
}

ComingUp& I3cDriver::comingUp(std::size_t controller)
{
    return controllers.at(controller).comingUp;
}

void I3cDriver::setRefusals(std::size_t controller, const Refusals& refusals)
{
    auto& refusing = controllers.at(controller);
    refusing.refusals = refusals;
    if (refusing.device)
    {
        refusing.device->refuse(refusals.node);
    }
}

const Refusals& I3cDriver::refusals(std::size_t controller) const
{
    return controllers.at(controller).refusals;
}

Endpoint& I3cDriver::endpoint(std::size_t controller)
{
    return *controllers.at(controller).endpoint;
}

std::optional<std::string> I3cDriver::node(std::size_t controller) const
{
    const auto& device = controllers.at(controller).device;
    return device ? std::optional(device->node()) : std::nullopt;
}

I3cDriver::Controller* I3cDriver::find(std::string_view name)
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

I3cDriver::Controller* I3cDriver::firstToComeUp(Clock::time_point now)
{
    Controller* first = nullptr;
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

std::size_t I3cDriver::indexOf(const Controller& controller) const
{
    return static_cast<std::size_t>(&controller - controllers.data());
}

std::size_t I3cDriver::lowestFreeNumber() const
{
    const auto taken = [this](std::size_t number)
    {
        return std::any_of(controllers.begin(), controllers.end(),
                           [number](const Controller& other)
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

bool I3cDriver::isOtherUp(const Controller& controller) const
{
    return std::any_of(controllers.begin(), controllers.end(),
                       [&controller](const Controller& other)
                       {
                           return &other != &controller && other.device;
                       });
}

void I3cDriver::startComingUp(Controller& controller, Clock::time_point now)
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

void I3cDriver::startWhoWaited(Clock::time_point now)
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

void I3cDriver::bringUp(Controller& controller)
{
    const auto index = indexOf(controller);
    controller.number = lowestFreeNumber();
    const auto node = "i3c-mctp-" + std::to_string(controller.number);
    controller.device = std::make_shared<MctpDevice>(node, controller.endpoint);
    controller.device->refuse(controller.refusals.node);
    const auto own = ownDirectory(index, node);
    // The first of the numbers that the kernel hands out dynamically.
    constexpr auto majorNumber = "234:";
    tree.add("sys/" + own + "/dev",
             fileEntry(majorNumber + std::to_string(controller.number) + "\n"));
    addClassEntry(controller.comingUp.classEntry, node, own);
    tree.add(nodeDirectory + node, deviceEntry(controller.device));
    timeline.record(
        event::DeviceUp{index, node, controller.comingUp.classEntry});
}

void I3cDriver::addClassEntry(ClassEntry kind, const std::string& node,
                              const std::string& own)
{
    switch (kind)
    {
        case ClassEntry::directory:
            tree.add(classDirectory + node, linkEntry("../../" + own));
            return;
        case ClassEntry::file:
            tree.add(classDirectory + node, fileEntry(""));
            return;
        case ClassEntry::none:
            return;
    }
}

void I3cDriver::takeDownIfLost(Controller& controller)
{
    if (controller.device->isGone())
    {
        takeDown(controller);
    }
}

void I3cDriver::takeDown(Controller& controller)
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
