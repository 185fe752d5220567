// SPDX-License-Identifier: Apache-2.0
#include "driver_files.hpp"

#include "record.hpp"

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <utility>

namespace
{

namespace fs = std::filesystem;

constexpr const char* driver = "/sys/bus/platform/drivers/silvaco-i3c-master/";
constexpr const char* classDirectory = "/sys/class/i3c-mctp/";
constexpr const char* aside = ".aside";
constexpr std::size_t nameLength = 12; // "fff10000.i3c"

int makeFifo(const std::string& path)
{
    fs::remove(path);
    if (mkfifo(path.c_str(), 0600) != 0)
    {
        throw std::runtime_error("cannot make " + path);
    }
    // Open for both, so that no writer waits for a reader.
    return open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
}

std::string nodeName(int number)
{
    return "i3c-mctp-" + std::to_string(number);
}

} // namespace

DriverFiles::DriverFiles() :
    notifications(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)),
    bindFifo((fs::create_directories(driver),
              makeFifo(std::string(driver) + "bind"))),
    unbindFifo(makeFifo(std::string(driver) + "unbind")),
    driverWatch(
        inotify_add_watch(notifications, driver, IN_OPEN | IN_CLOSE_WRITE)),
    deviceWatch(inotify_add_watch(notifications, "/dev", IN_DELETE))
{
    fs::create_directories(classDirectory);
    record::beforeEachOfThisThread(
        [this]
        {
            collect();
        });
}

DriverFiles::~DriverFiles()
{
    record::beforeEachOfThisThread({});
    close(notifications);
    close(bindFifo);
    close(unbindFifo);
}

void DriverFiles::comesUp(const std::string& controller)
{
    comingUp.insert(controller);
}

void DriverFiles::comesUpWithoutClassEntry(const std::string& controller)
{
    comingUp.insert(controller);
    withoutClassEntry.insert(controller);
}

void DriverFiles::afterEach(std::function<void(const std::string&)> hook)
{
    eventHook = std::move(hook);
}

void DriverFiles::putAside(const std::string& file)
{
    fs::rename(driver + file, driver + file + aside);
    // A plain output stream would make a new file where there is none, as sysfs
    // would not let it.
    fs::create_directory(driver + file);
}

void DriverFiles::putBack(const std::string& file)
{
    fs::remove(driver + file);
    fs::rename(driver + file + aside, driver + file);
}

void DriverFiles::refuseBindWrites()
{
    const std::string file = std::string(driver) + "bind";
    fs::remove(file);
    fs::create_symlink("/dev/full", file);
}

void DriverFiles::makeNode(int number)
{
    std::ofstream{"/dev/" + nodeName(number)};
}

void DriverFiles::makeClassEntry(int number)
{
    fs::create_directories(classDirectory + nodeName(number));
}

void DriverFiles::collect()
{
    alignas(inotify_event) std::array<char, 8192> buffer{};
    for (ssize_t got = 0;
         (got = read(notifications, buffer.data(), buffer.size())) > 0;)
    {
        for (ssize_t at = 0; at < got;)
        {
            const auto* event = // NOLINTNEXTLINE: as inotify(7) lays them out
                reinterpret_cast<const inotify_event*>(buffer.data() + at);
            at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
            const std::string name(event->name);
            if (event->wd == deviceWatch)
            {
                happened("remove /dev/" + name);
            }
            else if ((event->mask & IN_CLOSE_WRITE) != 0 && name == "bind")
            {
                written("bind", bindFifo);
            }
            else if ((event->mask & IN_CLOSE_WRITE) != 0 && name == "unbind")
            {
                written("unbind", unbindFifo);
            }
        }
    }
}

void DriverFiles::happened(const std::string& event) const
{
    record::add("%s", event.c_str());
    if (eventHook)
    {
        eventHook(event);
    }
}

void DriverFiles::written(const char* file, int fifo)
{
    std::array<char, nameLength + 1> text{};
    if (read(fifo, text.data(), nameLength) < 0)
    {
        text[0] = '\0';
    }
    happened(std::string("write ") + file + " " + text.data());
    if (std::strcmp(file, "bind") == 0)
    {
        bound(text.data());
    }
}

void DriverFiles::bound(const std::string& controller)
{
    if (!comingUp.contains(controller))
    {
        return;
    }
    const int number = fs::exists("/dev/i3c-mctp-0") ? 1 : 0;
    makeNode(number);
    if (!withoutClassEntry.contains(controller))
    {
        makeClassEntry(number);
    }
}
