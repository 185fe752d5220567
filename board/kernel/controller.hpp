// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/commands/vocabulary.hpp"
#include "board/kernel/kernel.hpp"

#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>

/** The I3C controllers and their driver as a story tells them how to behave,
 *  well and badly. Objects here are handles on a kernel: cheap to make and to
 *  copy, for any thread but an endpoint's behaviour, valid as long as the
 *  kernel.
 *
 *  What is said about a device's coming up holds from the controller's next
 *  bind on; what is said about refusals holds at once.
 */
namespace board
{

/** @brief One of the two I3C controllers, to be told how to behave. */
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
     *         device has the lower number, whatever the order of the binds.
     *         Who binds one and waits for it before the other waits in vain.
     */
    void comesUpAfterTheOther(
        std::chrono::milliseconds delay = std::chrono::milliseconds(0));

    /** @brief Its device never comes up. */
    void neverComesUp();

    /** @brief Its device has a class entry, or has none. */
    void hasClassEntry(bool has);

    /** @brief Its device's class entry is this. */
    void hasClassEntry(ClassEntry entry);

    /** @brief A write of its name to the bind file fails.
     *  @param error an errno value; 0 ends it */
    void refusesBind(int error);

    /** @brief A write of its name to the unbind file fails, and it stays
     *         bound.
     *  @param error an errno value; 0 ends it */
    void refusesUnbind(int error);

    /** @brief Its device's node cannot be opened, as EBUSY while somebody
     *         else holds it. Whoever has it open keeps it.
     *  @param error an errno value; 0 ends it
     *  @param who   with Openers::writers a node can be read still, so that
     *               it seems well until it is used */
    void nodeRefuses(int error, Openers who = Openers::all);

    /** @brief Its node's name, while its device is up. */
    [[nodiscard]] std::optional<std::string> node() const;

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

    /** @brief The file is not there. */
    void isMissing(DriverFile file);

    /** @brief The file cannot be opened.
     *  @param error an errno value, e.g. EACCES */
    void refusesToOpen(DriverFile file, int error);

  private:
    Kernel& kernel;
};

/** @brief What a controller is told to do. */
using ControllerAction = std::function<void(Controller&)>;

/** @brief What a controller can be told in words, e.g. "never-comes-up". */
[[nodiscard]] const Vocabulary<ControllerAction>& controllerActions();

/** @brief What becomes of the driver's files. */
using DriverAction = std::function<void(DriverFiles&)>;

/** @brief What can be said of the driver's files in words, e.g.
 *         "bind-file missing". */
[[nodiscard]] const Vocabulary<DriverAction>& driverActions();

} // namespace board
