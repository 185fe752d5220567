// SPDX-License-Identifier: Apache-2.0
#include "board/kernel/controller.hpp"

#include "board/endpoint/behaviours.hpp"
#include "board/util/plain_text.hpp"

#include <cerrno>
#include <map>
#include <utility>

namespace board
{

using std::chrono::milliseconds;

namespace
{

void setNodeRefusal(ControllerState& controller, const NodeRefusal& refusal)
{
    controller.refusals.node = refusal;
    if (controller.device)
    {
        controller.device->refuse(refusal);
    }
}

} // namespace

Controller::Controller(Kernel& kernel, std::size_t index) :
    kernel(kernel), index(index)
{
}

void Controller::change(
    const std::function<void(ControllerState&)>& action) const
{
    kernel.change(
        [&](I3cDriver& driver)
        {
            action(driver.controller(index));
        });
}

void Controller::behavesWell()
{
    change(
        [](ControllerState& controller)
        {
            controller.comingUp = {};
            controller.refusals = {};
            setNodeRefusal(controller, {});
        });
}

void Controller::comesUpAfter(milliseconds delay)
{
    change(
        [=](ControllerState& controller)
        {
            controller.comingUp.after = delay;
            controller.comingUp.afterTheOther = false;
        });
}

void Controller::comesUpAfterTheOther(milliseconds delay)
{
    change(
        [=](ControllerState& controller)
        {
            controller.comingUp.after = delay;
            controller.comingUp.afterTheOther = true;
        });
}

void Controller::neverComesUp()
{
    change(
        [](ControllerState& controller)
        {
            controller.comingUp.after.reset();
        });
}

void Controller::hasClassEntry(ClassEntry entry)
{
    change(
        [=](ControllerState& controller)
        {
            controller.comingUp.classEntry = entry;
        });
}

void Controller::refusesBind(int error)
{
    change(
        [=](ControllerState& controller)
        {
            controller.refusals.bind = error;
        });
}

void Controller::refusesUnbind(int error)
{
    change(
        [=](ControllerState& controller)
        {
            controller.refusals.unbind = error;
        });
}

void Controller::nodeRefuses(int error, Openers who)
{
    change(
        [=](ControllerState& controller)
        {
            setNodeRefusal(controller, {error, who});
        });
}

std::optional<std::string> Controller::node() const
{
    std::optional<std::string> name;
    change(
        [&](const ControllerState& controller)
        {
            if (controller.device)
            {
                name = controller.device->node();
            }
        });
    return name;
}

EndpointControl::EndpointControl(Kernel& kernel, std::size_t index) :
    kernel(kernel), index(index)
{
}

void EndpointControl::behaves(Endpoint::Behaviour behaviour)
{
    kernel.change(
        [&](I3cDriver& driver)
        {
            driver.controller(index).endpoint->setBehaviour(
                std::move(behaviour));
        });
}

void EndpointControl::answers()
{
    behaves(answering());
}

void EndpointControl::staysSilent()
{
    behaves(silent());
}

void EndpointControl::hasEid(std::uint8_t eid)
{
    kernel.change(
        [=, this](I3cDriver& driver)
        {
            driver.controller(index).endpoint->setEid(eid);
        });
}

std::uint8_t EndpointControl::eid() const
{
    std::uint8_t eid = 0;
    kernel.change(
        [&](I3cDriver& driver)
        {
            eid = driver.controller(index).endpoint->eid();
        });
    return eid;
}

DriverFiles::DriverFiles(Kernel& kernel) : kernel(kernel)
{
}

void DriverFiles::works(DriverFile file)
{
    refusesToOpen(file, 0);
}

void DriverFiles::isMissing(DriverFile file)
{
    refusesToOpen(file, ENOENT);
}

void DriverFiles::refusesToOpen(DriverFile file, int error)
{
    kernel.change(
        [=](I3cDriver& driver)
        {
            driver.setFile(file, error);
        });
}

namespace
{

constexpr Range aMinute{0, 60'000}; // in milliseconds

ClassEntry classEntryOf(Arguments& arguments)
{
    static const std::map<std::string, ClassEntry> known{
        {"directory", ClassEntry::directory},
        {"file", ClassEntry::file},
        {"none", ClassEntry::none}};
    const auto word = arguments.text();
    const auto found = known.find(word);
    if (found == known.end())
    {
        arguments.refuse(inQuotes(word) + " is no kind of class entry");
    }
    return found->second;
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

/** A call of one of the controller's functions. */
template <typename Function, typename... Values>
ControllerAction call(Function function, Values... values)
{
    return [=](Controller& controller)
    {
        (controller.*function)(values...);
    };
}

std::vector<Vocabulary<ControllerAction>::Entry> controllerTable()
{
    return {
        {{"default", "", "comes up as it should again, and refuses nothing"},
         [](Arguments&)
         {
             return call(&Controller::behavesWell);
         }},
        {{"comes-up-after", "MS", "its device comes up so long after a bind"},
         [](Arguments& arguments)
         {
             return call(&Controller::comesUpAfter,
                         milliseconds(arguments.number(aMinute)));
         }},
        {{"comes-up-after-the-other", "[MS]",
          "its device comes up only after the other controller's"},
         [](Arguments& arguments)
         {
             return call(&Controller::comesUpAfterTheOther,
                         milliseconds(arguments.numberOr(aMinute, 0)));
         }},
        {{"never-comes-up", "", "its device never comes up"},
         [](Arguments&)
         {
             return call(&Controller::neverComesUp);
         }},
        {{"class-entry", "directory|file|none",
          "what its device has under /sys/class/i3c-mctp"},
         [](Arguments& arguments)
         {
             return call(&Controller::hasClassEntry, classEntryOf(arguments));
         }},
        {{"refuses-bind", "ERRNO", "a bind fails, e.g. with EIO"},
         [](Arguments& arguments)
         {
             return call(&Controller::refusesBind, arguments.errnoValue());
         }},
        {{"refuses-unbind", "ERRNO", "an unbind fails and changes nothing"},
         [](Arguments& arguments)
         {
             return call(&Controller::refusesUnbind, arguments.errnoValue());
         }},
        {{"node-busy", "[writers]",
          "somebody else holds its node; or it can still be read"},
         [](Arguments& arguments)
         {
             return call(&Controller::nodeRefuses, EBUSY, openersOf(arguments));
         }},
        {{"node-refuses", "ERRNO [writers]",
          "its node cannot be opened, or not for writing"},
         [](Arguments& arguments)
         {
             const auto error = arguments.errnoValue();
             return call(&Controller::nodeRefuses, error, openersOf(arguments));
         }},
    };
}

/** The errno with which an open of a driver file fails. */
int fileErrorOf(Arguments& arguments)
{
    const auto how = arguments.text();
    if (how == "works" || how == "missing")
    {
        return how == "works" ? 0 : ENOENT;
    }
    if (how != "refuses")
    {
        arguments.refuse(inQuotes(how) + " is none of these");
    }
    return arguments.errnoValue();
}

Vocabulary<DriverAction>::Entry fileEntryOf(DriverFile file,
                                            const std::string& name)
{
    return {{name + "-file", "works|missing|refuses ERRNO",
             "whether the " + name + " file is there and can be opened"},
            [file](Arguments& arguments) -> DriverAction
            {
                const auto error = fileErrorOf(arguments);
                return [=](DriverFiles& files)
                {
                    files.refusesToOpen(file, error);
                };
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
