// SPDX-License-Identifier: Apache-2.0

/**
 * The three routines of discovery and their steps.
 */

#include "model.hpp"

#include <algorithm>

namespace model
{

namespace
{

constexpr int settling = 100; // ms, after the endpoints are withdrawn
constexpr int betweenUnbindAndBind = 2000; // ms
constexpr int poll = 100; // ms
constexpr int polls = 31; // the last one is slept after, too

bool has(const Texts& list, const std::string& text)
{
    return std::find(list.begin(), list.end(), text) != list.end();
}

} // namespace

// Full discovery

void Model::fullDiscovery()
{
    const std::vector<int> locks{acquireLock(0), acquireLock(1)};
    const std::vector<int> shms{getShmId(0), getShmId(1)};
    tearDown(locks, shms);
    sleeps(betweenUnbindAndBind);
    for (std::size_t row = 0; row < controllers.size(); ++row)
    {
        (void)writeBind(row); // waited for, written or not
        if (!bindAndScan(controllers.at(row)))
        {
            return startWait(1, on);
        }
    }
    logLists();
    logs("Number of elements in i3c_device_map: " +
         std::to_string(now.devices.size()));
    logs("Number of elements in i3c_device_notify_map: " +
         std::to_string(now.notified.size()));
    decideAfterFullDiscovery();
}

void Model::tearDown(const std::vector<int>& locks,
                     const std::vector<int>& shms)
{
    now.devices.clear();
    now.discovered.clear();
    now.notified.clear();
    withdrawAll();
    sleeps(settling);
    for (const int lock : locks)
    {
        does("removeLock " + std::to_string(lock));
    }
    removeNode(0);
    removeNode(1);
    for (const int shm : shms)
    {
        if (shm != -1)
        {
            does("removeShm " + std::to_string(shm));
        }
    }
    writeUnbind(0);
    writeUnbind(1);
}

/** Waits for the next expected device, whichever controller it belongs to.
 *  @return false when the first one does not come up */
bool Model::bindAndScan(const Controller& controller)
{
    const bool isFirst = now.devices.empty();
    const std::size_t expected = isFirst ? 0 : 1;
    if (!waitForNode(expected))
    {
        if (isFirst)
        {
            return false;
        }
        logs("Failed to open device node for " + controller.name);
    }
    scan(controller, expected);
    return true;
}

void Model::decideAfterFullDiscovery()
{
    if (now.notified.empty())
    {
        logs("Retry discovering i3c devices:count = 0");
        startWait(3, on);
    }
    else if (complete())
    {
        logs("Discovery complete");
        now.daemonState = sleep;
    }
    else
    {
        logs("Start partial discovery");
        now.daemonState = partial;
    }
}

// Partial discovery

void Model::partialDiscovery()
{
    if (complete())
    {
        now.daemonState = sleep;
        return;
    }
    if (now.notified.size() < 2)
    {
        const std::size_t missing =
            has(now.notified, controllers[0].node) ? 1 : 0;
        const std::size_t other = 1 - missing;
        logs("Already notified i3c device: " + controllers.at(other).node);
        logs("Going to discover i3c device: " + controllers.at(missing).node);
        redo(missing);
    }
    logLists();
    if (now.notified.size() >= 2)
    {
        logs("Discovery complete");
        now.daemonState = sleep;
    }
    else
    {
        logs("Partial discovery retry");
        startWait(10, partial);
    }
}

void Model::redo(std::size_t number)
{
    const Controller& controller = controllers.at(number);
    std::erase(now.devices, controller.node);
    std::erase(now.discovered, controller.name);
    const int lock = acquireLock(number);
    const int shm = getShmId(number);
    does("removeLock " + std::to_string(lock));
    removeNode(number);
    if (shm != -1)
    {
        does("removeShm " + std::to_string(shm));
    }
    writeUnbind(number);
    sleeps(betweenUnbindAndBind);
    if (writeBind(number) && waitForNode(number))
    {
        logs("Discovered i3c device: " + controller.node);
    }
    scan(controller, number);
}

// Power-off cleanup

void Model::powerOffCleanup()
{
    std::vector<int> locks;
    std::vector<int> shms;
    for (const auto& device : now.devices)
    {
        const std::size_t number = device == controllers[0].node ? 0 : 1;
        locks.push_back(acquireLock(number));
        shms.push_back(getShmId(number));
    }
    std::erase(locks, -1);
    now.waitTicks = 0;
    tearDown(locks, shms);
    now.daemonState = sleep;
}

// Common steps

/** Only the numbers count. */
bool Model::complete() const
{
    return now.devices.size() == 2 && now.notified.size() == 2;
}

void Model::logLists()
{
    for (const auto& controller : now.discovered)
    {
        logs("Discovered i3c device: " + controller);
    }
    for (const auto& device : now.notified)
    {
        logs("Notified i3c devices: " + device);
    }
}

void Model::startWait(int32_t ticks, DaemonState afterwards)
{
    now.waitTicks = ticks;
    now.stateAfterWait = afterwards;
    now.daemonState = wait;
}

void Model::writeUnbind(std::size_t controller)
{
    const auto& name = controllers.at(controller).name;
    if (!surroundings.unbindOpens)
    {
        return logs("Failed to open sysfs file for " + name);
    }
    does("write unbind " + name);
    kernel.unbinds(controller);
}

bool Model::writeBind(std::size_t controller)
{
    const auto& name = controllers.at(controller).name;
    if (!surroundings.bindOpens)
    {
        logs("Failed to open sysfs file for " + name);
        return false;
    }
    does("write bind " + name);
    kernel.binds(controller);
    return true;
}

/** The removal of a missing node has no effect. */
void Model::removeNode(std::size_t number)
{
    if (kernel.removesNode(number))
    {
        does("remove " + controllers.at(number).node);
    }
}

bool Model::waitForNode(std::size_t number)
{
    for (int tries = 0; tries < polls; ++tries)
    {
        if (kernel.at(number).node)
        {
            return true;
        }
        sleeps(poll);
    }
    return false;
}

/** The node is that of the class entry, whatever the controller is. */
void Model::scan(const Controller& controller, std::size_t number)
{
    const auto& node = controllers.at(number).node;
    does("setLockPermission " + node);
    does("setShmPermission " + node);
    if (kernel.at(number).entry != ClassEntry::directory)
    {
        return;
    }
    logs("Found i3c device: " + node);
    now.devices.push_back(node);
    now.discovered.push_back(controller.name);
    notify(number);
}

int Model::acquireLock(std::size_t number)
{
    const int id = surroundings.locks.at(number);
    does("acquireLock " + controllers.at(number).node + " gives " +
         std::to_string(id));
    return id;
}

int Model::getShmId(std::size_t number)
{
    const int id = surroundings.shms.at(number);
    does("getShmId " + controllers.at(number).node + " gives " +
         std::to_string(id));
    return id;
}

} // namespace model
