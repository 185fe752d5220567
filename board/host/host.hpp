// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/bus/sd.hpp"
#include "board/commands/row.hpp"
#include "board/timeline/timeline.hpp"
#include "board/util/event_thread.hpp"

#include <cstddef>
#include <string>
#include <vector>

namespace board
{

/** @brief The host's control objects, which announce what happens to it. */
enum class ControlObject
{
    powerState, //!< with the property InternalPowerState
    resetCause, //!< with the property ResetCause
};

/** @brief A property in a signal of a control object. */
struct ControlProperty
{
    std::string name;
    std::string value; //!< whole, of the types "s" and "o"; else not used
    std::string type = "s"; //!< the signature of one complete type
};

/** @brief A signal of a control object in all its details; the defaults are
 *         those of a regular one. */
struct ControlMessage
{
    ControlObject object = ControlObject::powerState;
    std::vector<ControlProperty> properties{};
    std::string interface = "org.freedesktop.DBus.Properties";
    std::string member = "PropertiesChanged";
    /** The interface whose property changed; empty: the object's own. */
    std::string changed{};
    /** The body's signature; any other than this one is filled with sample
     *  values instead of the properties. */
    std::string body = regularBody;

    static constexpr auto regularBody = "sa{sv}as";
};

/** The host as the BMC sees it: the host-state service with its property
 *  CurrentHostState, and the two control objects that announce power states
 *  and resets.
 *
 *  Service and control objects have a connection each, so that one can leave
 *  without the other. Events are recorded before anybody can see them, and
 *  sent when a function returns. States are short names, e.g. "Running" or
 *  "StateS5", unless a function takes a whole text.
 */
class Host
{
  public:
    /** @brief Take the service's name, with the host being in this state.
     *  @param address the bus
     *  @throws Error when the name cannot be had */
    Host(Timeline& timeline, std::string address, const std::string& state);

    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;
    ~Host();

    /** @brief Change CurrentHostState. A state that is none of hostStates()
     *         may be a typing error, so it is noted on the timeline. */
    void goesTo(const std::string& state);

    /** @brief Let CurrentHostState be this whole text, whatever it is. */
    void says(const std::string& text);

    /** @brief The service leaves the bus as if its process had ended. The
     *         control objects stay. */
    void leaves();

    /** @brief The service comes (back) to the bus. Both connections are made
     *         again, in case there is another broker.
     *  @throws Error when the name cannot be had */
    void comes();

    /** @brief A read of CurrentHostState gets its value. */
    void answers();

    /** @brief A read never gets an answer. */
    void neverAnswers();

    /** @brief A read gets an error.
     *  @param name e.g. "org.freedesktop.DBus.Error.AccessDenied"
     *  @throws Error when it is no name of an error */
    void answersWithError(const std::string& name,
                          const std::string& message = "It is not available.");

    /** @brief A read gets a sample value of another type.
     *  @param signature that of one complete type, e.g. "u", "o", "as"
     *  @throws Error when it is none */
    void answersWithType(const std::string& signature);

    /** @brief Announce an InternalPowerState, e.g. "StateS5". */
    void entersPowerState(const std::string& state, std::size_t times = 1);

    /** @brief Announce a ResetCause, e.g. "WarmReset". */
    void isReset(const std::string& cause, std::size_t times = 1);

    /** @brief Send any signal from a control object.
     *  @param times so many of it, as fast as the bus takes them
     *  @throws Error when the bus forbids such a signal, or is gone */
    void sends(const ControlMessage& message, std::size_t times = 1);

  private:
    /** How the service answers a read of the state. */
    struct Answer
    {
        enum class Kind
        {
            value,
            otherType,
            error,
            none,
        };

        Kind kind = Kind::value;
        std::string detail{}; //!< the type's signature, the error's name
        std::string message{}; //!< the error's
    };

    void announce(sd_event* loop);
    void serve(sd_event* loop);
    void leave();
    void setAnswer(const Answer& newAnswer);
    void record(const ControlMessage& message, std::size_t times);
    [[nodiscard]] sd::Message newSignal(const ControlMessage& message,
                                        const std::string& what);
    static int readState(sd_bus* bus, const char* path, const char* interface,
                         const char* property, sd_bus_message* reply,
                         void* self, sd_bus_error* error);
    static int onCall(sd_bus_message* call, void* self, sd_bus_error* error);

    Timeline& timeline;
    const std::string address;
    // What follows is used on the thread only.
    std::string current;
    Answer answer;
    sd::Bus service; //!< empty while the service is not there
    sd::Bus control;
    EventThread thread;
};

/** @brief The short names of the states that a host can be in. */
[[nodiscard]] const std::vector<std::string>& hostStates();

using HostAction = commands::Row<void(Host&, const commands::Values&)>;

/** @brief The commands "host", "power" and "reset". */
[[nodiscard]] const std::vector<HostAction>& hostActions();

} // namespace board
