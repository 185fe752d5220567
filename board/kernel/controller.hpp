// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/commands/row.hpp"
#include "board/kernel/kernel.hpp"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

/** The I3C controllers, the endpoints behind them and their driver, as
 *  scenarios set them up. Objects here are handles on a kernel, for any thread
 *  but an endpoint's behaviour.
 *
 *  How a device comes up applies from the controller's next bind on; all else
 *  applies at once.
 */
namespace board
{

using ControllerAction =
    commands::Row<void(ControllerState&, const commands::Values&)>;

/** @brief What follows "controller N", e.g. "never-comes-up". */
[[nodiscard]] const std::vector<ControllerAction>& controllerActions();

using DriverAction = commands::Row<void(I3cDriver&, const commands::Values&)>;

/** @brief What follows "driver", e.g. "bind-file missing". */
[[nodiscard]] const std::vector<DriverAction>& driverActions();

/** @brief One of the two I3C controllers. */
class Controller
{
  public:
    /** @param index 0 or 1 */
    Controller(Kernel& kernel, std::size_t index);

    void change(const std::function<void(ControllerState&)>& action) const;

    /** @brief Do one of controllerActions(), e.g. "comes-up-after 500".
     *  @throws Error when there is no such action */
    void does(const std::string& action) const;

    /** @brief Its node's name, "i3c-mctp-N", while its device is up. */
    [[nodiscard]] std::optional<std::string> node() const;

  private:
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
    void behaves(const Endpoint::Behaviour& behaviour) const;

    /** @brief It has one of behaviours(), e.g. "late 500".
     *  @throws Error when there is no such behaviour */
    void behaves(const std::string& behaviour) const;

    void hasEid(std::uint8_t eid) const;
    [[nodiscard]] std::uint8_t eid() const;

  private:
    Controller controller;
};

} // namespace board
