// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/bus/broker.hpp"
#include "board/bus/endpoint_object.hpp"
#include "board/bus/sd.hpp"
#include "board/commands/row.hpp"
#include "board/timeline/timeline.hpp"
#include "board/util/event_thread.hpp"

#include <sys/types.h>

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace board
{

/** The board's system bus: a real broker with the policy of a system bus, the
 *  daemon's shipped policy, and one for the host-state service. So a call that
 *  the shipped policy does not allow fails as it would in the field.
 *
 *  A thread of this object records the daemon's announcements on the timeline.
 */
class Bus
{
  public:
    /** @brief Start the broker; it takes connections when this returns.
     *  @param policy the daemon's policy file, as shipped
     *  @throws Error when it does not start, with its output */
    Bus(Timeline& timeline, const std::filesystem::path& policy);

    Bus(const Bus&) = delete;
    Bus& operator=(const Bus&) = delete;
    ~Bus();

    [[nodiscard]] static std::string address();

    /** @brief Its address for programs outside of the sandbox, for this user
     * and root, while this process lives. */
    [[nodiscard]] static std::string outsideAddress();

    /** @brief The environment variables for a client, "NAME=value". */
    [[nodiscard]] static std::vector<std::string> environment();

    /** @brief The names of the variables that a client must not inherit. */
    [[nodiscard]] static std::vector<std::string> misleadingVariables();

    /** @brief The published endpoints of all networks, ordered by path, as a
     *         client's GetManagedObjects gets them.
     *  @throws Error when the daemon does not answer */
    [[nodiscard]] std::vector<EndpointObject> endpoints() const;

    /** @brief Whether this process owns the daemon's name now. */
    [[nodiscard]] bool hasDaemonsName(pid_t process) const;

    /** @brief Another peer takes the daemon's name, if need be from the daemon.
     *  @param replaceable whether it can be replaced in turn
     *  @throws Error when the name's owner keeps it */
    void takesDaemonsName(bool replaceable);

    /** @brief That peer, if there is one, leaves. */
    void givesUpDaemonsName();

    /** @brief The broker is killed, and every connection ends. */
    void dies();

    /** @brief A new broker listens at the same address, without any peers. It
     *         ends with the calling thread.
     *  @throws Error when it does not start, or has not died */
    void comesBack();

  private:
    void observe(sd_event* loop);
    void stopObserving();
    void match(const std::string& rule, sd_bus_message_handler_t handler);

    Timeline& timeline;
    const std::string policies;
    std::optional<Broker> broker;
    std::function<bool()> takeBrokerOutput;
    sd::Bus observer;
    std::vector<sd::Slot> matches;
    sd::Source brokerSource;
    sd::Bus peer; //!< who took the daemon's name, if anybody did
    EventThread thread;
};

using BusAction = commands::Row<void(Bus&, const commands::Values&)>;

/** @brief What follows "bus", e.g. "broker-dies". */
[[nodiscard]] const std::vector<BusAction>& busActions();

} // namespace board
