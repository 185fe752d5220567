// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/kernel/i3c_driver.hpp"
#include "board/timeline/timeline.hpp"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace board
{

/** The simulated kernel: the I3C driver's files under /sys and its nodes in
 *  /dev, served in user space by a FUSE file system of this process.
 *
 *  It takes the place of /sys and of /dev in the sandbox for as long as this
 *  object lives; what /dev had stays there. Everything acts before the system
 *  call that asks for it returns, and nothing is cached: what the driver does
 *  on its own (a device comes up) is seen by the next call.
 *
 *  The one thread of this object runs the driver, the devices and the
 *  endpoints; the functions below may be called from any other thread and are
 *  done when they return. They must not be called from an endpoint's
 *  behaviour.
 */
class Kernel
{
  public:
    /** @brief Mount it. The driver is there, no controller is bound.
     *  @throws Error when the system refuses to mount */
    explicit Kernel(Timeline& timeline);

    Kernel(const Kernel&) = delete;
    Kernel& operator=(const Kernel&) = delete;
    Kernel(Kernel&&) = delete;
    Kernel& operator=(Kernel&&) = delete;
    ~Kernel();

    /** @brief Bring the board to the state that it has after boot: both
     *         controllers bound, their devices up. Takes no time. */
    void boot();

    /** @brief Set how a controller's device comes up from the next bind on.
     *  @param controller 0 or 1 */
    void setComingUp(std::size_t controller, const ComingUp& how);

    /** @brief How a controller's device comes up. */
    [[nodiscard]] ComingUp comingUp(std::size_t controller);

    /** @brief Set what fails at a controller from now on. */
    void setRefusals(std::size_t controller, const Refusals& refusals);

    /** @brief What fails at a controller. */
    [[nodiscard]] Refusals refusals(std::size_t controller);

    /** @brief Set whether the bind or the unbind file can be opened.
     *  @param error what an open fails with: 0 it works, ENOENT the file is
     *               not there, any other errno value it is and refuses */
    void setDriverFile(DriverFile file, int error);

    /** @brief Give the endpoint behind a controller another id. */
    void setEid(std::size_t controller, std::uint8_t eid);

    /** @brief The id of the endpoint behind a controller. */
    [[nodiscard]] std::uint8_t eid(std::size_t controller);

    /** @brief Let the endpoint behind a controller behave in another way. */
    void setBehaviour(std::size_t controller, Endpoint::Behaviour behaviour);

    /** @brief The name of a controller's node, "i3c-mctp-N", while its device
     *         is up. */
    [[nodiscard]] std::optional<std::string> node(std::size_t controller);

  private:
    class Files;
    void change(const std::function<void(I3cDriver&)>& action);

    std::unique_ptr<Files> files;
};

} // namespace board
