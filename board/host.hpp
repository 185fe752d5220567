// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/event_thread.hpp"
#include "board/sd.hpp"
#include "board/timeline.hpp"

#include <string>

namespace board
{

/** The host as the BMC sees it: the host-state service with its property
 *  CurrentHostState, and the two control objects that announce power states
 *  and resets.
 *
 *  It serves on a connection and a thread of its own. What the functions below
 *  do is recorded before anybody can see it, and sent when they return. They
 *  take the short names of states, e.g. "Running" or "StateS5".
 */
class Host
{
  public:
    /** @brief Take the service's name, with the host being in this state.
     *  @param address the bus
     *  @throws Error when the name cannot be had */
    Host(Timeline& timeline, const std::string& address,
         const std::string& state);

    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;
    Host(Host&&) = delete;
    Host& operator=(Host&&) = delete;
    ~Host();

    /** @brief Change CurrentHostState, e.g. to "Running" or "Off". */
    void goesTo(const std::string& state);

    /** @brief Announce an InternalPowerState, e.g. "StateS5". */
    void entersPowerState(const std::string& state);

    /** @brief Announce a ResetCause, e.g. "WarmReset". */
    void isReset(const std::string& cause);

  private:
    void serve(sd_event* loop, const std::string& address);
    void announce(const std::string& object, const std::string& interface,
                  const std::string& property, const std::string& value);
    static int readState(sd_bus* bus, const char* path, const char* interface,
                         const char* property, sd_bus_message* reply,
                         void* self, sd_bus_error* error);

    Timeline& timeline;
    std::string current; //!< used on the thread only
    sd::Bus bus;
    EventThread thread;
};

} // namespace board
