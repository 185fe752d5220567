// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/commands/vocabulary.hpp"
#include "board/kernel/kernel.hpp"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

/** The I3C controllers, the endpoints behind them and their driver, as
 *  scenarios set them up. Objects here are handles on a kernel: cheap to make
 *  and to copy, for any thread but an endpoint's behaviour, valid as long as
 *  the kernel.
 *
 *  How a device comes up applies from the controller's next bind on; all else
 *  applies at once.
 */
namespace board
{

/** @brief One of the two I3C controllers. */
class Controller
{
  public:
    /** @param index 0 or 1 */
    Controller(Kernel& kernel, std::size_t index);

    /** @brief All is as in the beginning: its device comes up 150 ms after a
     *         bind, with a class entry, and nothing is refused. */
    void behavesWell();

    /** @brief Its device comes up this long after a bind. */
    void comesUpAfter(std::chrono::milliseconds delay);

    /** @brief Its device comes up this long after the other controller's, or
     *         after its own bind where the other's is up then; so the other's
     *         device has the lower number, whatever the order of the binds. */
    void comesUpAfterTheOther(
        std::chrono::milliseconds delay = std::chrono::milliseconds(0));

    void neverComesUp();

    /** @brief Its device's class entry is this. */
    void hasClassEntry(ClassEntry entry);

    /** @brief A write of its name to the bind file fails.
     *  @param error an errno value; 0 ends it */
    void refusesBind(int error);

    /** @brief A write of its name to the unbind file fails, and it stays
     *         bound.
     *  @param error an errno value; 0 ends it */
    void refusesUnbind(int error);

    /** @brief Its device's node cannot be opened; a descriptor that is open
     *         still works.
     *  @param error an errno value; 0 ends it
     *  @param who   with Openers::writers the node can still be read */
    void nodeRefuses(int error, Openers who = Openers::all);

    /** @brief Its node's name, "i3c-mctp-N", while its device is up. */
    [[nodiscard]] std::optional<std::string> node() const;

  private:
    void change(const std::function<void(ControllerState&)>& action) const;

    Kernel& kernel;
    std::size_t index;
};

/** @brief The MCTP endpoint behind one of the two controllers. */
class EndpointControl
{
  public:
    /** @param index that of the controller, 0 or 1 */
    EndpointControl(Kernel& kernel, std::size_t index);

    /** @brief It behaves in this way from the next message on. */
    void behaves(Endpoint::Behaviour behaviour);

    /** @brief It answers by the standard. */
    void answers();

    /** @brief It never answers. */
    void staysSilent();

    void hasEid(std::uint8_t eid);
    [[nodiscard]] std::uint8_t eid() const;

  private:
    Kernel& kernel;
    std::size_t index;
};

/** @brief The driver's bind and unbind file. */
class DriverFiles
{
  public:
    explicit DriverFiles(Kernel& kernel);

    /** @brief The file is there and can be opened. */
    void works(DriverFile file);

    void isMissing(DriverFile file);

    /** @brief The file cannot be opened.
     *  @param error an errno value, e.g. EACCES */
    void refusesToOpen(DriverFile file, int error);

  private:
    Kernel& kernel;
};

using ControllerAction = std::function<void(Controller&)>;

/** @brief The phrases for a controller, e.g. "never-comes-up". */
[[nodiscard]] const Vocabulary<ControllerAction>& controllerActions();

using DriverAction = std::function<void(DriverFiles&)>;

/** @brief The phrases for the driver's files, e.g. "bind-file missing". */
[[nodiscard]] const Vocabulary<DriverAction>& driverActions();

} // namespace board
