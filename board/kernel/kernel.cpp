// SPDX-License-Identifier: Apache-2.0
#include "board/kernel/kernel.hpp"

#include "board/kernel/fuse_files.hpp"

#include <utility>

namespace board
{

/** The name that the header keeps free of FUSE. */
class Kernel::Files : public FuseFiles
{
  public:
    using FuseFiles::FuseFiles;
};

Kernel::Kernel(Timeline& timeline) : files(std::make_unique<Files>(timeline))
{
}

Kernel::~Kernel() = default;

void Kernel::change(const std::function<void(I3cDriver&)>& action)
{
    files->withDriver(action);
}

void Kernel::boot()
{
    change(
        [](I3cDriver& driver)
        {
            for (std::size_t index = 0; index < controllerCount; ++index)
            {
                auto& how = driver.comingUp(index);
                const auto later =
                    std::exchange(how.after, std::chrono::milliseconds(0));
                // A controller that is bound already stays as it is.
                static_cast<void>(
                    driver.bind(controllerNames.at(index), Clock::now()));
                how.after = later;
            }
        });
}

void Kernel::setComingUp(std::size_t controller, const ComingUp& how)
{
    change(
        [&](I3cDriver& driver)
        {
            driver.comingUp(controller) = how;
        });
}

ComingUp Kernel::comingUp(std::size_t controller)
{
    ComingUp how;
    change(
        [&](I3cDriver& driver)
        {
            how = driver.comingUp(controller);
        });
    return how;
}

void Kernel::setRefusals(std::size_t controller, const Refusals& refusals)
{
    change(
        [&](I3cDriver& driver)
        {
            driver.setRefusals(controller, refusals);
        });
}

Refusals Kernel::refusals(std::size_t controller)
{
    Refusals found;
    change(
        [&](I3cDriver& driver)
        {
            found = driver.refusals(controller);
        });
    return found;
}

void Kernel::setDriverFile(DriverFile file, int error)
{
    change(
        [=](I3cDriver& driver)
        {
            driver.setFile(file, error);
        });
}

void Kernel::setEid(std::size_t controller, std::uint8_t eid)
{
    change(
        [&](I3cDriver& driver)
        {
            driver.endpoint(controller).setEid(eid);
        });
}

std::uint8_t Kernel::eid(std::size_t controller)
{
    std::uint8_t eid = 0;
    change(
        [&](I3cDriver& driver)
        {
            eid = driver.endpoint(controller).eid();
        });
    return eid;
}

void Kernel::setBehaviour(std::size_t controller, Endpoint::Behaviour behaviour)
{
    change(
        [&](I3cDriver& driver)
        {
            driver.endpoint(controller).setBehaviour(std::move(behaviour));
        });
}

std::optional<std::string> Kernel::node(std::size_t controller)
{
    std::optional<std::string> name;
    change(
        [&](I3cDriver& driver)
        {
            name = driver.node(controller);
        });
    return name;
}

} // namespace board
