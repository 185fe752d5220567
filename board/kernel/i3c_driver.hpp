// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/endpoint/endpoint.hpp"
#include "board/kernel/file_tree.hpp"
#include "board/kernel/mctp_device.hpp"
#include "board/timeline/timeline.hpp"

#include <array>
#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace board
{

/** @brief The board has two I3C controllers. */
inline constexpr std::size_t controllerCount = 2;

/** @brief Their platform names, as bind and unbind take them. */
inline constexpr std::array<const char*, controllerCount> controllerNames{
    "fff10000.i3c", "fff11000.i3c"};

/** @brief How a controller's MCTP device comes up after a bind. */
struct ComingUp
{
    /** Time from bind to the device's coming up; none: never. */
    std::optional<std::chrono::milliseconds> after =
        std::chrono::milliseconds(150);
    ClassEntry classEntry = ClassEntry::directory;
    /** The time begins only when the other controller's device is up. */
    bool afterTheOther = false;
};

/** @brief The errors of the requests to a controller: errno values, 0 for
 *         none. */
struct Refusals
{
    int bind = 0;
    int unbind = 0;
    NodeRefusal node{};
};

/** @brief What the driver knows about one controller. */
struct ControllerState
{
    std::shared_ptr<Endpoint> endpoint; //!< outlives every bind
    ComingUp comingUp{}; //!< from the next bind on
    Refusals refusals{};
    bool bound = false;
    std::optional<Clock::time_point> upAt{};
    /** Since its bind: it waits for the other's device, then this long. */
    std::optional<std::chrono::milliseconds> upAfterTheOther{};
    std::shared_ptr<MctpDevice> device{}; //!< while up
    std::size_t number = 0; //!< while up
};

/** @brief The driver's two files. */
enum class DriverFile
{
    bind,
    unbind,
};

/** The silvaco-i3c-master driver with its two controllers: what happens on
 *  bind and unbind, and which names appear and vanish with it.
 *
 *  A bound controller's device comes up after a while, under the lowest
 *  number that no other device has then, and brings its directory below
 *  sys/devices, its class entry (a link to that directory) and its node. On
 *  unbind all of this goes before the call returns, whether the device had
 *  come up or not. It goes, too, when the endpoint takes its device along;
 *  the controller stays bound then, and a new device comes up with the next
 *  bind.
 *
 *  No lock and no thread of its own; the caller passes the time. What happens
 *  is recorded on the timeline.
 */
class I3cDriver
{
  public:
    /** @param tree where the names appear; outlives this
     *  @param timeline outlives this */
    I3cDriver(FileTree& tree, Timeline& timeline);

    /** @brief Bind a controller.
     *  @return 0, ENODEV for an unknown name, EBUSY for a bound one, or the
     *          controller's refusal */
    int bind(std::string_view name, Clock::time_point now);

    /** @brief Unbind a controller.
     *  @return 0, ENODEV for a name that is unknown or not bound, or the
     *          controller's refusal */
    int unbind(std::string_view name, Clock::time_point now);

    /** @brief Do what is due. */
    void advance(Clock::time_point now);

    /** @brief When the next thing is due, if anything is. */
    [[nodiscard]] std::optional<Clock::time_point> nextDue() const;

    /** @brief Remove a node from dev/; the device lives on.
     *  @return 0, or ENOENT when there is no such node */
    int removeNode(std::string_view node);

    /** @brief Set whether the bind or the unbind file can be opened.
     *  @param error what an open fails with: 0 it works, ENOENT the file is
     *               not there, any other errno value it is and refuses */
    void setFile(DriverFile file, int error);

    /** @param index 0 or 1 */
    [[nodiscard]] ControllerState& controller(std::size_t index);

  private:
    [[nodiscard]] ControllerState* find(std::string_view name);
    [[nodiscard]] ControllerState* firstToComeUp(Clock::time_point now);
    [[nodiscard]] std::size_t indexOf(const ControllerState& controller) const;
    [[nodiscard]] std::size_t lowestFreeNumber() const;
    [[nodiscard]] bool isOtherUp(const ControllerState& controller) const;
    void startComingUp(ControllerState& controller, Clock::time_point now);
    void startWaiting(Clock::time_point now);
    void bringUp(ControllerState& controller);
    void takeDown(ControllerState& controller);

    FileTree& tree;
    Timeline& timeline;
    std::array<ControllerState, controllerCount> controllers;
};

} // namespace board
