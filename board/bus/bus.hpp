// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/bus/endpoint_object.hpp"
#include "board/bus/sd.hpp"
#include "board/commands/vocabulary.hpp"
#include "board/process/process.hpp"
#include "board/timeline/timeline.hpp"
#include "board/util/event_thread.hpp"
#include "board/util/line_reader.hpp"

#include <sys/types.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace board
{

/** The board's system bus: a real broker of system type at the system bus's
 *  own address in the sandbox.
 *
 *  Its policy is that of a system bus, where nobody may own a name or call a
 *  method unless that is granted; the daemon's shipped policy grants what it
 *  grants, and one more lets root play the host-state service. So a call that
 *  the shipped policy forgets fails here as it would in the field.
 *
 *  A connection of its own listens to what the daemon announces and records
 *  it on the timeline, on a thread of this object.
 */
class Bus
{
  public:
    /** @brief Start the broker; it takes connections when this returns.
     *  @param policy the daemon's policy file, as shipped
     *  @throws Error when it does not start, with what it said */
    Bus(Timeline& timeline, const std::filesystem::path& policy);

    Bus(const Bus&) = delete;
    Bus& operator=(const Bus&) = delete;
    ~Bus();

    /** @brief Its address, for DBUS_SYSTEM_BUS_ADDRESS. */
    [[nodiscard]] static std::string address();

    /** @brief Its address for programs outside of the sandbox: through this
     *         process's root directory, which is open to this user and to
     *         root for as long as this process lives. */
    [[nodiscard]] static std::string outsideAddress();

    /** @brief The variables that lead a process to this bus, "NAME=value". */
    [[nodiscard]] static std::vector<std::string> environment();

    /** @brief The names of the variables that would lead it elsewhere. */
    [[nodiscard]] static std::vector<std::string> misleadingVariables();

    /** @brief The endpoints that the daemon publishes now, in all networks,
     *         ordered by path: a client's GetManagedObjects.
     *  @throws Error when the daemon does not answer */
    [[nodiscard]] std::vector<EndpointObject> endpoints() const;

    /** @brief Whether this process owns the daemon's name now; none does when
     *         the broker has died. */
    [[nodiscard]] bool hasDaemonsName(pid_t process) const;

    /** @brief Another peer owns the daemon's name, also instead of a daemon
     *         that lets itself be replaced.
     *  @param replaceable whether it lets itself be replaced in turn
     *  @throws Error when the name's owner keeps it */
    void takesDaemonsName(bool replaceable);

    /** @brief That peer, if there is one, gives the name up and leaves. */
    void givesUpDaemonsName();

    /** @brief The broker is killed: every connection ends, nobody can make
     *         another one. */
    void dies();

    /** @brief A new broker listens at the same address. Nobody is on it: the
     *         host's service has to come anew.
     *
     *  From a thread that lives as long as the bus shall: the broker ends with
     *  the thread that started it.
     *  @throws Error when it does not start, or has not died */
    void comesBack();

  private:
    void startBroker();
    void awaitBroker(Pipe& address);
    void observe(sd_event* loop);
    void stopObserving();
    void match(const std::string& rule, sd_bus_message_handler_t handler);

    Timeline& timeline;
    std::unique_ptr<Process> broker;
    std::unique_ptr<LineReader> brokerOutput;
    std::function<bool()> takeBrokerOutput;
    sd::Bus observer;
    std::vector<sd::Slot> matches;
    sd::Source brokerSource;
    sd::Bus peer; //!< who took the daemon's name, if anybody did
    EventThread thread;
};

/** @brief What happens to the bus. */
using BusAction = std::function<void(Bus&)>;

/** @brief What can be said of the bus in words, e.g. "broker-dies". */
[[nodiscard]] const Vocabulary<BusAction>& busActions();

} // namespace board
