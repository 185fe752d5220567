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

ControllerAction refusingNode(int error, Arguments& arguments)
{
    const auto word = arguments.textOr("all");
    if (word != "all" && word != "writers")
    {
        arguments.refuse(inQuotes(word) + R"( is not "writers")");
    }
    const NodeRefusal refusal{error,
                              word == "all" ? Openers::all : Openers::writers};
    return [=](ControllerState& controller)
    {
        setNodeRefusal(controller, refusal);
    };
}

std::vector<Vocabulary<ControllerAction>::Entry> controllerTable()
{
    return {
        {{"default", "", "comes up as it should again, and refuses nothing"},
         [](Arguments&)
         {
             return [](ControllerState& controller)
             {
                 controller.comingUp = {};
                 controller.refusals = {};
                 setNodeRefusal(controller, {});
             };
         }},
        {{"comes-up-after", "MS", "its device comes up so long after a bind"},
         [](Arguments& arguments)
         {
             const milliseconds delay(arguments.number(aMinute));
             return [=](ControllerState& controller)
             {
                 controller.comingUp.after = delay;
                 controller.comingUp.afterTheOther = false;
             };
         }},
        {{"comes-up-after-the-other", "[MS]",
          "its device comes up only after the other controller's"},
         [](Arguments& arguments)
         {
             const milliseconds delay(arguments.numberOr(aMinute, 0));
             return [=](ControllerState& controller)
             {
                 controller.comingUp.after = delay;
                 controller.comingUp.afterTheOther = true;
             };
         }},
        {{"never-comes-up", "", "its device never comes up"},
         [](Arguments&)
         {
             return [](ControllerState& controller)
             {
                 controller.comingUp.after.reset();
             };
         }},
        {{"class-entry", "directory|file|none",
          "what its device has under /sys/class/i3c-mctp"},
         [](Arguments& arguments)
         {
             return
                 [entry = classEntryOf(arguments)](ControllerState& controller)
             {
                 controller.comingUp.classEntry = entry;
             };
         }},
        {{"refuses-bind", "ERRNO", "a bind fails, e.g. with EIO"},
         [](Arguments& arguments)
         {
             return
                 [error = arguments.errnoValue()](ControllerState& controller)
             {
                 controller.refusals.bind = error;
             };
         }},
        {{"refuses-unbind", "ERRNO", "an unbind fails and changes nothing"},
         [](Arguments& arguments)
         {
             return
                 [error = arguments.errnoValue()](ControllerState& controller)
             {
                 controller.refusals.unbind = error;
             };
         }},
        {{"node-busy", "[writers]",
          "somebody else holds its node; or it can still be read"},
         [](Arguments& arguments)
         {
             return refusingNode(EBUSY, arguments);
         }},
        {{"node-refuses", "ERRNO [writers]",
          "its node cannot be opened, or not for writing"},
         [](Arguments& arguments)
         {
             return refusingNode(arguments.errnoValue(), arguments);
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
                return [=](I3cDriver& driver)
                {
                    driver.setFile(file, error);
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

Controller::Controller(Kernel& kernel, std::size_t index) :
    kernel(kernel), index(index)
{
}

void Controller::change(const ControllerAction& action) const
{
    kernel.change(
        [&](I3cDriver& driver)
        {
            action(driver.controller(index));
        });
}

void Controller::does(const std::string& action) const
{
    change(controllerActions().understand(wordsOf(action)));
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
    controller(kernel, index)
{
}

void EndpointControl::behaves(const Endpoint::Behaviour& behaviour) const
{
    controller.change(
        [&](ControllerState& state)
        {
            state.endpoint->setBehaviour(behaviour);
        });
}

void EndpointControl::behaves(const std::string& behaviour) const
{
    behaves(behaviourFromWords(wordsOf(behaviour)));
}

void EndpointControl::hasEid(std::uint8_t eid) const
{
    controller.change(
        [=](ControllerState& state)
        {
            state.endpoint->setEid(eid);
        });
}

std::uint8_t EndpointControl::eid() const
{
    std::uint8_t eid = 0;
    controller.change(
        [&](ControllerState& state)
        {
            eid = state.endpoint->eid();
        });
    return eid;
}

} // namespace board
