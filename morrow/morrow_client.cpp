// SPDX-License-Identifier: Apache-2.0
#include "morrow_client.hpp"

#include "bus_connection.hpp"
#include "event_source.hpp"
#include "log.hpp"
#include "power_state.hpp"
#include "termination_block.hpp"

#include <sdbusplus/bus/match.hpp>
#include <sdbusplus/exception.hpp>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <exception>
#include <string_view>
#include <system_error>
#include <utility>

StopPipe clientSignalPipe = closedStopPipe;
sem_t clientReadySemaphore;
sd_event* clientEvent = nullptr;
constinit std::mutex clientBusMutex;

namespace
{

constexpr auto logSource = logging::sourceName();

/** How long a drain of the bus waits for the next message, in microseconds. */
constexpr uint64_t drainWait = 1000;

constexpr const char* propertiesInterface = "org.freedesktop.DBus.Properties";

// Whole strings, so that reading the host's state allocates none in each
// iteration.
const std::string hostStateKey = "currenthoststate";
const std::string hostStateProperty = "CurrentHostState";

/** Serialises stops: the second SIGTERM may come while the first stop still
 *  works. */
constinit std::mutex stopMutex;

/** Reads the stop pipe; an sd_event_io_handler_t of the client thread. */
int morrowProcessSig(sd_event_source* /*source*/, int /*fd*/,
                     uint32_t /*events*/, void* /*userData*/)
{
    const auto byte = readStopPipe(clientSignalPipe);
    if (!byte)
    {
        return 0;
    }
    // At the error level, so that a stop shows at every log setting.
    MORROW_LOG(logging::error, "%s - signal: %u\n", __func__,
               static_cast<unsigned int>(*byte));
    if (*byte == stopByte)
    {
        (void)sd_event_exit(clientEvent, 0); // the loop runs: we are in it
    }
    return 0;
}

using Match = std::unique_ptr<sdbusplus::bus::match_t>;

/** Subscribes to the PropertiesChanged signals of a path, from any sender and
 *  for any interface. A subscription that fails is ignored,
 *  also where the bus wrapper raises it. */
Match matchPropertiesChanged(sdbusplus::bus_t& bus, const char* path,
                             void (*handler)(sdbusplus::message_t&))
{
    namespace rules = sdbusplus::bus::match::rules;
    const std::string rule = std::string(rules::type::signal()) +
                             rules::member("PropertiesChanged") +
                             rules::path(path) +
                             rules::interface(propertiesInterface);
    try
    {
        return std::make_unique<sdbusplus::bus::match_t>(bus, rule, handler);
    }
    catch (const sdbusplus::exception::SdBusError&)
    {
        return nullptr;
    }
}

/** The properties that a PropertiesChanged signal brings. */
using ChangedProperties = std::vector<std::pair<std::string, PropertyValue>>;

/** The common opening of both signal handlers.
 *  @param function  the handler's name
 *  @return the changed properties; none when there is nothing to handle */
ChangedProperties readChangedProperties(sdbusplus::message_t& message,
                                        const char* function)
{
    if (message.is_method_error())
    {
        MORROW_LOG(logging::error, "%s - method Error \n", function);
        return {};
    }
    MORROW_LOG(logging::error, "%s:Path:[%s]\n", function, message.get_path());
    if (message.get_member() != std::string_view("PropertiesChanged"))
    {
        return {};
    }
    std::string interface;
    ChangedProperties properties;
    try
    {
        message.read(interface, properties);
    }
    catch (const sdbusplus::exception::SdBusError& error)
    {
        MORROW_LOG(logging::failure, "Exception: %s\n", error.what());
        return {};
    }
    return properties;
}

/** A power state that the internal power state object may report. */
struct PowerState
{
    const char* substring; //!< identifies it
    const char* logFormat; //!< of the log: file, line, function
    const char* traceFormat; //!< of the trace: function
    bool armsPowerDown;
};

/** The first row whose substring occurs decides, so ".StateS5" stands after the
 *  two names that contain it. OffPendingS0 is only logged, and Unknown arms the
 *  power-down: both are intended. */
constexpr std::array powerStates{
    PowerState{".S0InReset", "%s:%u:%s:Power state is S0InReset\n",
               "%s:Power state is S0InReset\n", true},
    PowerState{".PreStandby", "%s:%u:%s:Power state is PreStandby\n",
               "%s:Power state is PreStandby\n", true},
    PowerState{".StateS6", "%s:%u:%s:Power state is StateS6\n",
               "%s:Power state is StateS6\n", true},
    PowerState{".StateS5Early", "%s:%u:%s:Power state is StateS5Early\n",
               "%s:Power state is StateS5Early\n", true},
    PowerState{".StateS5S3Mbusy", "%s:%u:%s:Power state is StateS5S3Mbusy\n",
               "%s:Power state is StateS5S3Mbusy\n", true},
    PowerState{".StateS5", "%s:%u:%s:Power state is StateS5\n",
               "%s:Power state is StateS5\n", true},
    PowerState{".S5OnPending", "%s:%u:%s:Power state is S5OnPending\n",
               "%s:Power state is S5OnPending\n", true},
    PowerState{".OffPendingS0", "%s:%u:%s:Power state is OffPendingS0\n",
               "%s:Power state is OffPendingS0\n", false},
    PowerState{".Unknown", "%s:%u:%s:Power state is Unknown\n",
               "%s:Power state is Unknown\n", true},
};

} // namespace

morrow_dbus_client& morrow_dbus_client::get_instance()
{
    static morrow_dbus_client instance;
    return instance;
}

morrow_dbus_client::morrow_dbus_client()
{
    MORROW_LOG(logging::progress, "%s - Default constructor\n", __func__);
}

int morrow_dbus_client_init()
{
    MORROW_LOG(logging::progress, "%s - Enter\n", __func__);
    auto& client = morrow_dbus_client::get_instance();
    if (sem_init(&clientReadySemaphore, 0, 0) != 0)
    {
        MORROW_LOG(logging::error, "%s -Semaphore init failed:%s\n", __func__,
                   std::strerror(errno));
        MORROW_LOG(logging::progress, "%s - Exit\n", __func__);
        return 1;
    }
    int result = 0;
    if (!openStopPipe(clientSignalPipe))
    {
        MORROW_LOG(logging::error, "%s -Failed to create signal pipe: %s\n",
                   __func__, std::strerror(errno));
        result = 1;
    }
    else
    {
        try
        {
            const TerminationBlock inherited;
            client.client_thread = std::thread(
                &morrow_dbus_client::morrowClientDBusHandler, &client);
            (void)sem_wait(&clientReadySemaphore); // taken up after signals
        }
        catch (const std::exception&)
        {
            MORROW_LOG(logging::error, "%s -Error creating thread\n", __func__);
            result = 1;
        }
    }
    (void)sem_destroy(&clientReadySemaphore); // fails only if never made
    MORROW_LOG(logging::progress, "%s - Exit\n", __func__);
    return result;
}

void morrow_dbus_client::morrowClientDBusHandler()
{
    MORROW_LOG(logging::progress, "%s - Enter\n", __func__);
    try
    {
        bus = std::make_shared<sdbusplus::bus_t>(openDefaultSystemBus());
    }
    catch (const sdbusplus::exception::SdBusError& error)
    {
        MORROW_LOG(logging::error, "%s -Error: %s\n", __func__, error.what());
    }
    registerSignalMatches();
    MORROW_LOG(logging::progress, "%s - Exit\n", __func__);
}

/** Without a connection there is nothing to subscribe to or to watch; the maps
 *  are filled and the loop runs all the same, so that start-up goes on and a
 *  stop works. */
void morrow_dbus_client::registerSignalMatches()
{
    Match powerStateMatch;
    Match resetCauseMatch; // goes first
    if (bus)
    {
        powerStateMatch = matchPropertiesChanged(
            *bus, "/xyz/openbmc_project/control/host0/internal_power_state",
            signalHandler_internalpowerstate);
        resetCauseMatch = matchPropertiesChanged(
            *bus, "/xyz/openbmc_project/control/host0/reset_cause",
            signalHandler_warmreset);
    }
    FillobjectMap();
    ReadObjectMap();
    FillMethodMap();
    ReadMethodMap();
    createMorrowEventLoop();
    bus.reset();
}

void morrow_dbus_client::createMorrowEventLoop()
{
    MORROW_LOG(logging::progress, "%s - Enter\n", __func__);
    int result = sd_event_default(&clientEvent);
    if (result < 0)
    {
        MORROW_LOG(logging::error, "%s -sd_event_default failed:%s\n", __func__,
                   std::strerror(-result));
    }
    EventSource busSource;
    if (bus)
    {
        result = watchInput(busSource, clientEvent, bus->get_fd(),
                            morrowClientProcessRequest);
        if (result < 0)
        {
            MORROW_LOG(logging::error, "%s -sd_event_add_io bus failed:%s\n",
                       __func__, std::strerror(-result));
        }
    }
    EventSource pipeSource;
    result = watchInput(pipeSource, clientEvent, clientSignalPipe[0],
                        morrowProcessSig);
    if (result < 0)
    {
        MORROW_LOG(logging::error, "%s -sd_event_add_io sig pipe failed: %s\n",
                   __func__, std::strerror(-result));
        return;
    }
    MORROW_LOG(logging::progress,
               "%s - morrow DBus Client Initialization Completed.\n", __func__);
    (void)sem_post(&clientReadySemaphore); // fails only at SEM_VALUE_MAX
    MORROW_LOG(logging::progress, "%s - Starting sd_event_loop\n", __func__);
    (void)sd_event_loop(clientEvent); // ends by the stop byte alone
    MORROW_LOG(logging::progress, "%s - sd_event_loop returned\n", __func__);
}

int morrowClientProcessRequest(sd_event_source* /*source*/, int /*fd*/,
                               uint32_t /*events*/, void* /*userData*/)
{
    // Outside the try block: a failure is logged with the bus still held, and
    // the lock is released last.
    const std::lock_guard lock(clientBusMutex);
    const auto bus = morrow_dbus_client::get_instance().bus;
    if (!bus)
    {
        return 0;
    }
    try
    {
        while (bus->process_discard())
        {
            (void)bus->wait(drainWait); // a time-out is as good as a message
        }
    }
    catch (const sdbusplus::exception::SdBusError& error)
    {
        MORROW_LOG(logging::error, "%s -Error:%s\n", __func__, error.what());
    }
    return 0;
}

int morrow_dbus_client::stop_morrow_dbus_client()
{
    MORROW_LOG(logging::progress, "%s - Enter\n", __func__);
    const std::lock_guard oneAtATime(stopMutex);
    if (!writeStopByte(clientSignalPipe))
    {
        MORROW_LOG(logging::error, "%s -Signal pipe write failed: %s\n",
                   __func__, std::strerror(errno));
    }
    try
    {
        client_thread.join();
    }
    catch (const std::system_error& error)
    {
        MORROW_LOG(logging::error, "%s -Failed to terminate thread: %s\n",
                   __func__, error.what());
        return 1;
    }
    closeStopPipe(clientSignalPipe);
    // Initialisation has destroyed it already; on Linux a second time is
    // harmless.
    (void)sem_destroy(&clientReadySemaphore);
    MORROW_LOG(logging::progress, "%s - Exit\n", __func__);
    return 0;
}

void morrow_dbus_client::FillobjectMap()
{
    MORROW_LOG(logging::progress, "%s - Enter\n", __func__);
    // The service's name ends in "Host0", the interface's in "Host".
    FillStaticObject(hostStateKey, "xyz.openbmc_project.State.Host0",
                     "/xyz/openbmc_project/state/host0",
                     "xyz.openbmc_project.State.Host");
}

void morrow_dbus_client::FillStaticObject(const std::string& key,
                                          const char* service,
                                          const char* object,
                                          const char* interface)
{
    MORROW_LOG(logging::progress, "%s - Enter\n", __func__);
    objectMap.try_emplace(key, ObjectEntry{service, object, interface});
    MORROW_LOG(logging::progress, "%s - Exit\n", __func__);
}

void morrow_dbus_client::FillMethodMap()
{
    MORROW_LOG(logging::progress, "%s - Enter\n", __func__);
    methodMap.try_emplace("UpdateModulesPICPWRPolicy",
                          MethodEntry{"com.kestrel.bmc.power",
                                      "/com/kestrel/bmc/power",
                                      "com.kestrel.bmc.power.PowerPolicy",
                                      "UpdateModulesPICPWRPolicy"});
    MORROW_LOG(logging::progress, "%s - Exit\n", __func__);
}

void morrow_dbus_client::ReadObjectMap()
{
    MORROW_LOG(logging::progress, "%s - Enter\n", __func__);
    if (objectMap.empty())
    {
        MORROW_LOG(logging::error, "%s - No object present in objectMap\n",
                   __func__);
    }
    for (const auto& [key, entry] : objectMap)
    {
        MORROW_LOG(logging::progress, "%s-Key:%s,Ser:%s,Obj:%s\n", __func__,
                   key.c_str(), entry.service, entry.object);
        MORROW_LOG(logging::progress, "%s-Key:%s,Int:%s\n", __func__,
                   key.c_str(), entry.interface);
    }
    MORROW_LOG(logging::progress, "%s - Exit\n", __func__);
}

void morrow_dbus_client::ReadMethodMap()
{
    MORROW_LOG(logging::progress, "%s - Enter\n", __func__);
    if (methodMap.empty())
    {
        MORROW_LOG(logging::error, "%s - No method present in methodMap\n",
                   __func__);
    }
    for (const auto& [key, entry] : methodMap)
    {
        MORROW_LOG(logging::progress, "%s-Key:%s,Ser:%s,Obj:%s\n", __func__,
                   key.c_str(), entry.service, entry.object);
        MORROW_LOG(logging::progress, "%s-Key:%s,Int:%s,Met:%s\n", __func__,
                   key.c_str(), entry.interface, entry.method);
    }
    MORROW_LOG(logging::progress, "%s - Exit\n", __func__);
}

int morrow_dbus_client::GetProperty(const std::string& key,
                                    const std::string& property,
                                    const PropertyCallback& callback)
{
    MORROW_LOG(logging::progress, "%s - Enter\n", __func__);
    PropertyValue value;
    int result = 0;
    const auto entry = objectMap.find(key);
    if (entry == objectMap.end())
    {
        MORROW_LOG(logging::error, "%s -'%s' not found\n", __func__,
                   key.c_str());
        result = 2;
    }
    else
    {
        try
        {
            const TerminationBlock whileOnTheBus;
            auto bus = openDefaultBus();
            auto call =
                bus.new_method_call(entry->second.service, entry->second.object,
                                    propertiesInterface, "Get");
            call.append(entry->second.interface, property);
            auto reply = bus.call(call);
            reply.read(value);
            // A wrapper that raises error replies never gets here with one.
            if (reply.is_method_error())
            {
                MORROW_LOG(logging::error, "%s -method error: %s object\n",
                           __func__, entry->second.object);
                result = 3;
            }
            else
            {
                callback(key, property, value);
            }
        }
        catch (const sdbusplus::exception::SdBusError& error)
        {
            MORROW_LOG(logging::error, "%s -SdBusError:%s\n", __func__,
                       error.what());
            result = 1;
        }
    }
    MORROW_LOG(logging::progress, "%s - Exit\n", __func__);
    return result;
}

int getcurrentpowerstate()
{
    auto& client = morrow_dbus_client::get_instance();
    MORROW_LOG(logging::iteration, "Entry [%s]\n", __func__);
    if (client.GetProperty(hostStateKey, hostStateProperty, readproperty) != 0)
    {
        MORROW_LOG(logging::failure, "%s\n", "Failed to set read property");
        return 1;
    }
    return 0;
}

void readproperty(const std::string& objectName,
                  const std::string& propertyName, const PropertyValue& value)
{
    MORROW_LOG(logging::progress, "%s:objectName:[%s],propertyName:[%s]\n",
               __func__, objectName.c_str(), propertyName.c_str());
    current_host_state = std::get<std::string>(value);
    if (current_host_state == hostStateRunning)
    {
        MORROW_LOG(logging::progress, "%s:Power State is on\n", __func__);
    }
    else
    {
        MORROW_LOG(logging::progress, "%s:Power State is off\n", __func__);
        armPowerDown();
    }
    MORROW_LOG(logging::progress, "%s:property value is [%s]\n", __func__,
               current_host_state.c_str());
}

void signalHandler_internalpowerstate(sdbusplus::message_t& message)
{
    for (const auto& [key, value] : readChangedProperties(message, __func__))
    {
        if (key != "InternalPowerState")
        {
            continue;
        }
        const auto& text = std::get<std::string>(value);
        MORROW_LOG(logging::progress, "%s:Property name is  [%s]\n", __func__,
                   key.c_str());
        MORROW_LOG(logging::progress, "Property value is [%s]\n", text.c_str());
        const auto* const state = std::find_if(
            powerStates.begin(), powerStates.end(),
            [&text](const auto& known)
            {
                return text.find(known.substring) != std::string::npos;
            });
        if (state == powerStates.end())
        {
            continue;
        }
        // The formats are literals of the table, not of this place.
        dlog_printf(logging::progress, logging::module, state->logFormat,
                    logSource.data(), static_cast<unsigned int>(__LINE__),
                    __func__);
        dmctp_trace(logging::progress, logSource.data(),
                    static_cast<unsigned int>(__LINE__), state->traceFormat,
                    __func__);
        if (state->armsPowerDown)
        {
            armPowerDown();
        }
    }
}

void signalHandler_warmreset(sdbusplus::message_t& message)
{
    for (const auto& [key, value] : readChangedProperties(message, __func__))
    {
        if (key != "ResetCause")
        {
            continue;
        }
        const auto& text = std::get<std::string>(value);
        MORROW_LOG(logging::progress, "%s:Property name is [%s]\n", __func__,
                   key.c_str());
        MORROW_LOG(logging::progress, "%s:Property value is [%s]\n", __func__,
                   text.c_str());
        if (text.find(".WarmReset") != std::string::npos)
        {
            MORROW_LOG(logging::progress, "%s: Power State is WarmReset\n",
                       __func__);
            MORROW_TRACE(logging::progress, "%s: Power State is WarmReset\n",
                         __func__);
            armPowerDown();
        }
    }
}
