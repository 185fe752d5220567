// SPDX-License-Identifier: Apache-2.0
#include "board/kernel/controller.hpp"

#include "board/util/plain_text.hpp"

#include <array>
#include <cerrno>
#include <utility>

namespace board
{

using std::chrono::milliseconds;

Controller::Controller(Kernel& kernel, std::size_t index) :
    kernel(kernel), index(index)
{
}

void Controller::behavesWell()
{
    kernel.setComingUp(index, {});
    kernel.setRefusals(index, {});
}

void Controller::comesUpAfter(milliseconds delay)
{
    auto how = kernel.comingUp(index);
    how.after = delay;
    how.afterTheOther = false;
    kernel.setComingUp(index, how);
}

void Controller::comesUpAfterTheOther(milliseconds delay)
{
    auto how = kernel.comingUp(index);
    how.after = delay;
    how.afterTheOther = true;
    kernel.setComingUp(index, how);
}

void Controller::neverComesUp()
{
    auto how = kernel.comingUp(index);
    how.after.reset();
    kernel.setComingUp(index, how);
}

void Controller::hasClassEntry(bool has)
{
    hasClassEntry(has ? ClassEntry::directory : ClassEntry::none);
}

void Controller::hasClassEntry(ClassEntry entry)
{
    auto how = kernel.comingUp(index);
    how.classEntry = entry;
    kernel.setComingUp(index, how);
}

void Controller::refusesBind(int error)
{
    auto refusals = kernel.refusals(index);
    refusals.bind = error;
    kernel.setRefusals(index, refusals);
}

void Controller::refusesUnbind(int error)
{
    auto refusals = kernel.refusals(index);
    refusals.unbind = error;
    kernel.setRefusals(index, refusals);
}

void Controller::nodeRefuses(int error, Openers who)
{
    auto refusals = kernel.refusals(index);
    refusals.node = {error, who};
    kernel.setRefusals(index, refusals);
}

std::optional<std::string> Controller::node() const
{
    return kernel.node(index);
}

DriverFiles::DriverFiles(Kernel& kernel) : kernel(kernel)
{
}

void DriverFiles::works(DriverFile file)
{
    kernel.setDriverFile(file, 0);
}

void DriverFiles::isMissing(DriverFile file)
{
    kernel.setDriverFile(file, ENOENT);
}

void DriverFiles::refusesToOpen(DriverFile file, int error)
{
    kernel.setDriverFile(file, error);
}

namespace
{

constexpr Range aMinute{0, 60'000}; // in milliseconds

struct NamedClassEntry
{
    const char* name;
    ClassEntry entry;
};

constexpr std::array classEntries{
    NamedClassEntry{"directory", ClassEntry::directory},
    NamedClassEntry{"file", ClassEntry::file},
    NamedClassEntry{"none", ClassEntry::none}};

ClassEntry classEntryOf(Arguments& arguments)
{
    const auto word = arguments.text();
    for (const auto& [name, entry] : classEntries)
    {
        if (word == name)
        {
            return entry;
        }
    }
    arguments.refuse(inQuotes(word) + " is no kind of class entry");
}

Openers openersOf(Arguments& arguments)
{
    if (!arguments.left())
    {
        return Openers::all;
    }
    const auto word = arguments.text();
    if (word != "writers")
    {
        arguments.refuse(inQuotes(word) + R"( is not "writers")");
    }
    return Openers::writers;
}

std::vector<Vocabulary<ControllerAction>::Entry> controllerTable()
{
    return {
        {{"default", "", "comes up as it should again, and refuses nothing"},
         [](Arguments&) -> ControllerAction
         {
             return &Controller::behavesWell;
         }},
        {{"comes-up-after", "MS", "its device comes up so long after a bind"},
         [](Arguments& arguments) -> ControllerAction
         {
             const milliseconds delay(arguments.number(aMinute));
             return [delay](Controller& controller)
             {
                 controller.comesUpAfter(delay);
             };
         }},
        {{"comes-up-after-the-other", "[MS]",
          "its device comes up only after the other controller's"},
         [](Arguments& arguments) -> ControllerAction
         {
             const milliseconds delay(arguments.numberOr(aMinute, 0));
             return [delay](Controller& controller)
             {
                 controller.comesUpAfterTheOther(delay);
             };
         }},
        {{"never-comes-up", "", "its device never comes up"},
         [](Arguments&) -> ControllerAction
         {
             return &Controller::neverComesUp;
         }},
        {{"class-entry", "directory|file|none",
          "what its device has under /sys/class/i3c-mctp"},
         [](Arguments& arguments) -> ControllerAction
         {
             const auto entry = classEntryOf(arguments);
             return [entry](Controller& controller)
             {
                 controller.hasClassEntry(entry);
             };
         }},
        {{"refuses-bind", "ERRNO", "a bind fails, e.g. with EIO"},
         [](Arguments& arguments) -> ControllerAction
         {
             const auto error = arguments.errnoValue();
             return [error](Controller& controller)
             {
                 controller.refusesBind(error);
             };
         }},
        {{"refuses-unbind", "ERRNO", "an unbind fails and changes nothing"},
         [](Arguments& arguments) -> ControllerAction
         {
             const auto error = arguments.errnoValue();
             return [error](Controller& controller)
             {
                 controller.refusesUnbind(error);
             };
         }},
        {{"node-busy", "[writers]",
          "somebody else holds its node; or it can still be read"},
         [](Arguments& arguments) -> ControllerAction
         {
             const auto who = openersOf(arguments);
             return [who](Controller& controller)
             {
                 controller.nodeRefuses(EBUSY, who);
             };
         }},
        {{"node-refuses", "ERRNO [writers]",
          "its node cannot be opened, or not for writing"},
         [](Arguments& arguments) -> ControllerAction
         {
             const auto error = arguments.errnoValue();
             const auto who = openersOf(arguments);
             return [error, who](Controller& controller)
             {
                 controller.nodeRefuses(error, who);
             };
         }},
    };
}

DriverAction fileAction(DriverFile file, Arguments& arguments)
{
    const auto how = arguments.text();
    if (how == "works")
    {
        return [file](DriverFiles& files)
        {
            files.works(file);
        };
    }
    if (how == "missing")
    {
        return [file](DriverFiles& files)
        {
            files.isMissing(file);
        };
    }
    if (how != "refuses")
    {
        arguments.refuse(inQuotes(how) + " is none of these");
    }
    const auto error = arguments.errnoValue();
    return [file, error](DriverFiles& files)
    {
        files.refusesToOpen(file, error);
    };
}

Vocabulary<DriverAction>::Entry fileEntryOf(DriverFile file,
                                            const std::string& name)
{
    return {{name + "-file", "works|missing|refuses ERRNO",
             "whether the " + name + " file is there and can be opened"},
            [file](Arguments& arguments)
            {
                return fileAction(file, arguments);
            }};
}

} // namespace

const Vocabulary<ControllerAction>& controllerActions()
{
    static const Vocabulary<ControllerAction> known("controller action",
                                                    controllerTable());
    return known;
}

const Vocabulary<DriverAction>& driverActions()
{
    static const Vocabulary<DriverAction> known(
        "driver action", {fileEntryOf(DriverFile::bind, "bind"),
                          fileEntryOf(DriverFile::unbind, "unbind")});
    return known;
}

} // namespace board
