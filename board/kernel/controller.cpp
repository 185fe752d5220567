// SPDX-License-Identifier: Apache-2.0
#include "board/kernel/controller.hpp"

#include "board/commands/arguments.hpp"
#include "board/endpoint/behaviours.hpp"

#include <cerrno>

namespace board
{

namespace
{

using commands::errnoOf;
using commands::millisecondsOf;
using commands::Values;
using commands::target::notVirtual;

void setNodeRefusal(ControllerState& controller, const NodeRefusal& refusal)
{
    controller.refusals.node = refusal;
    if (controller.device)
    {
        controller.device->refuse(refusal);
    }
}

ClassEntry classEntryOf(const std::string& word)
{
    return word == "directory" ? ClassEntry::directory
           : word == "file"    ? ClassEntry::file
                               : ClassEntry::none;
}

/** @param values ends with "writers" when readers are let in */
void refuseNode(ControllerState& controller, int error, const Values& values)
{
    const auto forWriters = !values.empty() && values.back() == "writers";
    setNodeRefusal(controller,
                   {error, forWriters ? Openers::writers : Openers::all});
}

template <DriverFile file>
void setFile(I3cDriver& driver, const Values& values)
{
    driver.setFile(file, values[0] == "works"     ? 0
                         : values[0] == "missing" ? ENOENT
                                                  : errnoOf(values[0]));
}

} // namespace

const std::vector<ControllerAction>& controllerActions()
{
    static const std::vector<ControllerAction> table{
        {"default", "Comes up as it should again, and refuses nothing.",
         [](ControllerState& controller, const Values&)
         {
             controller.comingUp = {};
             controller.refusals = {};
             setNodeRefusal(controller, {});
         }},
        {"comes-up-after MS", "Its device comes up so long after a bind.",
         [](ControllerState& controller, const Values& values)
         {
             controller.comingUp.after = millisecondsOf(values[0]);
             controller.comingUp.afterTheOther = false;
         }},
        {"comes-up-after-the-other [MS]",
         "Its device comes up only after the other controller's.",
         [](ControllerState& controller, const Values& values)
         {
             controller.comingUp.after =
                 millisecondsOf(values.empty() ? "0" : values[0]);
             controller.comingUp.afterTheOther = true;
         },
         notVirtual},
        {"never-comes-up", "Its device never comes up.",
         [](ControllerState& controller, const Values&)
         {
             controller.comingUp.after.reset();
         }},
        {"class-entry directory|file|none",
         "What its device has under /sys/class/i3c-mctp.",
         [](ControllerState& controller, const Values& values)
         {
             controller.comingUp.classEntry = classEntryOf(values[0]);
         },
         notVirtual},
        {"refuses-bind ERRNO", "A bind fails, e.g. with EIO.",
         [](ControllerState& controller, const Values& values)
         {
             controller.refusals.bind = errnoOf(values[0]);
         }},
        {"refuses-unbind ERRNO", "An unbind fails and changes nothing.",
         [](ControllerState& controller, const Values& values)
         {
             controller.refusals.unbind = errnoOf(values[0]);
         },
         notVirtual},
        {"node-busy [writers]",
         "Somebody else holds its node; or it can still be read.",
         [](ControllerState& controller, const Values& values)
         {
             refuseNode(controller, EBUSY, values);
         },
         notVirtual},
        {"node-refuses ERRNO [writers]",
         "Its node cannot be opened, or not for writing.",
         [](ControllerState& controller, const Values& values)
         {
             refuseNode(controller, errnoOf(values[0]), values);
         },
         notVirtual},
    };
    return table;
}

const std::vector<DriverAction>& driverActions()
{
    static const std::vector<DriverAction> table{
        {"bind-file works|missing", "Whether the bind file is there.",
         setFile<DriverFile::bind>, notVirtual},
        {"bind-file refuses ERRNO", "The bind file cannot be opened.",
         setFile<DriverFile::bind>, notVirtual},
        {"unbind-file works|missing", "Whether the unbind file is there.",
         setFile<DriverFile::unbind>, notVirtual},
        {"unbind-file refuses ERRNO", "The unbind file cannot be opened.",
         setFile<DriverFile::unbind>, notVirtual},
    };
    return table;
}

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

void Controller::does(const std::string& action) const
{
    change(
        [&](ControllerState& controller)
        {
            commands::run(controllerActions(), controller, action);
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
    behaves(behaviourOf(behaviour));
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
