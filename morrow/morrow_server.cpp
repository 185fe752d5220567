// SPDX-License-Identifier: Apache-2.0
#include "morrow_server.hpp"

#include "bus_connection.hpp"
#include "event_source.hpp"
#include "lasting_connection.hpp"
#include "log.hpp"
#include "termination_block.hpp"

#include <sdbusplus/exception.hpp>
#include <sdbusplus/server/manager.hpp>

#include <array>
#include <cerrno>
#include <cstring>
#include <exception>
#include <new>
#include <optional>
#include <system_error>
#include <utility>

StopPipe serverSignalPipe = closedStopPipe;
sem_t serverReadySemaphore;
sd_event* serverEvent = nullptr;
constinit std::mutex server_mutex;

namespace
{

constexpr auto logSource = logging::sourceName();

constexpr const char* serviceName = "xyz.openbmc_project.mctp";

/** The object managers' paths; the index is the network id. */
constexpr std::array networkManagers{
    "/xyz/openbmc_project/mctp/0",
    "/xyz/openbmc_project/mctp/1",
    "/xyz/openbmc_project/mctp/2",
};

/** What an endpoint's path begins with, by network id. */
const std::map<int32_t, std::string> networkPaths{
    {0, std::string(networkManagers[0]) + "/"},
    {1, std::string(networkManagers[1]) + "/"},
    {2, std::string(networkManagers[2]) + "/"},
};

/** How long a drain of the bus waits for the next message, in microseconds. */
constexpr uint64_t drainWait = 1000;

/** The server thread's connection, for the withdrawal after its end. */
constinit LastingConnection serverConnection;

/** Serialises stops: the second SIGTERM may come while the first stop still
 *  works. */
constinit std::mutex stopMutex;

/** The three object managers; they go in reverse order. */
struct ObjectManagers
{
    explicit ObjectManagers(sdbusplus::bus_t& bus) :
        network0(bus, networkManagers[0]), network1(bus, networkManagers[1]),
        network2(bus, networkManagers[2])
    {
    }

    sdbusplus::server::manager_t network0;
    sdbusplus::server::manager_t network1;
    sdbusplus::server::manager_t network2;
};

/** Reads the stop pipe; an sd_event_io_handler_t of the server thread. */
int morrowProcessSig(sd_event_source* /*source*/, int /*fd*/,
                     uint32_t /*events*/, void* /*userData*/)
{
    const auto byte = readStopPipe(serverSignalPipe);
    if (!byte)
    {
        return 0;
    }
    MORROW_LOG(logging::progress, "%s - signal: %u\n", __func__,
               static_cast<unsigned int>(*byte));
    if (*byte == stopByte)
    {
        (void)sd_event_exit(serverEvent, 0); // the loop runs: we are in it
    }
    return 0;
}

} // namespace

morrow_dbus_server& morrow_dbus_server::get_instance()
{
    static morrow_dbus_server instance;
    return instance;
}

morrow_dbus_server::morrow_dbus_server()
{
    MORROW_LOG(logging::progress, "%s - Default constructor\n", __func__);
}

int32_t morrow_dbus_server::createEndpointObject(
    uint32_t networkId, uint8_t eid,
    const std::vector<uint8_t>& supportedMessageTypes, uint32_t endpointType,
    uint16_t slot, const std::string& devicePath)
{
    MORROW_LOG(logging::progress, "%s - Enter\n", __func__);
    std::unique_lock lock(server_mutex);
    auto serverBus = bus.share();
    int32_t result = 1;
    if (!serverBus)
    {
        MORROW_LOG(logging::error, "%s - Error: Bus pointer not present\n",
                   __func__);
        MORROW_TRACE(logging::error, "%s - Error: Bus pointer not present\n",
                     __func__);
    }
    else
    {
        EndpointProperties properties;
        try
        {
            properties["NetworkId"] = networkId;
            properties["EID"] = eid;
            properties["SupportedMessageTypes"] = supportedMessageTypes;
            properties["EndpointType"] = static_cast<uint16_t>(endpointType);
            properties["Slot"] = slot;
            properties["DevicePath"] = devicePath;
        }
        catch (const std::exception& error)
        {
            MORROW_LOG(logging::error, "EID:%d-Failed to init:%s\n", eid,
                       error.what());
            return 6;
        }
        result = createAndRemember(networkId, eid, properties, *serverBus);
        if (result == 3)
        {
            return result;
        }
    }
    serverBus.reset(); // the last share ends under the mutex
    lock.unlock();
    MORROW_LOG(logging::progress, "%s - Exit\n", __func__);
    return result;
}

/** The part of createEndpointObject, whose name it logs, from the path lookup
 *  on; with the mutex held. */
int32_t
morrow_dbus_server::createAndRemember(uint32_t networkId, uint8_t eid,
                                      const EndpointProperties& properties,
                                      sdbusplus::bus_t& serverBus)
{
    constexpr const char* function = "createEndpointObject";
    const auto prefix = networkPaths.find(static_cast<int32_t>(networkId));
    if (prefix == networkPaths.end())
    {
        MORROW_LOG(logging::error,
                   "%s - Error: Network ID %d not present in map\n", function,
                   static_cast<int>(networkId));
        return 2;
    }
    const std::string path = prefix->second + std::to_string(eid);

    endpoint_object* object = nullptr;
    try
    {
        // Without memory the null pointer is remembered and reported as
        // created; deleting skips it.
        object =
            new (std::nothrow) endpoint_object(serverBus, path, properties);
    }
    catch (const std::exception& error)
    {
        MORROW_LOG(logging::error, "%s -Type:%d,EID:%d,Error:%s\n", function,
                   static_cast<int>(networkId), eid, error.what());
        MORROW_TRACE(logging::error, "%s -Type:%d,EID:%d,Error:%s\n", function,
                     static_cast<int>(networkId), eid, error.what());
        return 5;
    }

    auto* endpoints = endpointsOf(networkId);
    if (endpoints == nullptr)
    {
        // Comes after the creation, so the object stays on the bus. The path
        // table has no such network, so no caller gets here.
        // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDeleteLeaks): see above
        MORROW_LOG(logging::error, "%s - Error: Invalid network ID - %d\n",
                   function, static_cast<int>(networkId));
        return 3;
    }
    (*endpoints)[eid] = object;
    MORROW_LOG(logging::progress, "%s -[%s] object created successful\n",
               function, path.c_str());
    MORROW_TRACE(logging::progress, "%s -[%s] object created successful\n",
                 function, path.c_str());
    return 0;
}

/** The endpoints of a network, null when there is no such network. */
EndpointMap* morrow_dbus_server::endpointsOf(int64_t networkId)
{
    switch (networkId)
    {
        case 0:
            return &network0Endpoints;
        case 1:
            return &network1Endpoints;
        case 2:
            return &network2Endpoints;
        default:
            return nullptr;
    }
}

int32_t morrow_dbus_server::deleteAllEndpointObject(int32_t networkId)
{
    MORROW_LOG(logging::progress, "%s - Enter\n", __func__);
    std::unique_lock lock(server_mutex);
    auto* endpoints = endpointsOf(networkId);
    if (endpoints == nullptr)
    {
        MORROW_LOG(logging::error, "%s - Error: NetworkID %d not supported\n",
                   __func__, networkId);
        return 3;
    }
    for (auto entry = endpoints->begin(); entry != endpoints->end();
         entry = endpoints->erase(entry))
    {
        MORROW_LOG(logging::progress,
                   "%s - EID %d: object deleted successfully\n", __func__,
                   entry->first);
        MORROW_TRACE(logging::progress,
                     "%s - EID %d: object deleted successfully\n", __func__,
                     entry->first);
        delete entry->second;
    }
    lock.unlock();
    MORROW_LOG(logging::progress, "%s - Exit\n", __func__);
    return 0;
}

void morrow_dbus_server::UnloadDBusObjects()
{
    MORROW_LOG(logging::progress, "%s - Enter\n", __func__);
    {
        const std::lock_guard lock(server_mutex);
        for (auto* endpoints :
             {&network0Endpoints, &network1Endpoints, &network2Endpoints})
        {
            for (const auto& [eid, object] : *endpoints)
            {
                delete object;
            }
            endpoints->clear();
        }
    }
    MORROW_LOG(logging::progress, "%s - Exit\n", __func__);
}

int32_t morrow_dbus_server_init()
{
    MORROW_LOG(logging::progress, "%s - Enter\n", __func__);
    auto& server = morrow_dbus_server::get_instance();
    if (sem_init(&serverReadySemaphore, 0, 0) != 0)
    {
        MORROW_LOG(logging::error, "%s -Semaphore init failed:%s\n", __func__,
                   std::strerror(errno));
        MORROW_LOG(logging::progress, "%s - Exit\n", __func__);
        return 1;
    }
    int32_t result = 0;
    if (!openStopPipe(serverSignalPipe))
    {
        MORROW_LOG(logging::error, "%s -Failed to create signal pipe:%s\n",
                   __func__, std::strerror(errno));
        result = 1;
    }
    else
    {
        try
        {
            const TerminationBlock inherited;
            server.server_thread =
                std::thread(&morrow_dbus_server::morrowDBusMgrHandler, &server);
            // Without its server the daemon is not meant to run: when the
            // thread fails, this waits for ever.
            (void)sem_wait(&serverReadySemaphore); // taken up after signals
        }
        catch (const std::exception&)
        {
            MORROW_LOG(logging::error, "%s - Error to create service thread \n",
                       __func__);
            result = 4;
        }
    }
    (void)sem_destroy(&serverReadySemaphore); // fails only if never made
    MORROW_LOG(logging::progress, "%s - Exit\n", __func__);
    return result;
}

void morrow_dbus_server::morrowDBusMgrHandler()
{
    MORROW_LOG(logging::progress, "%s - Enter\n", __func__);
    try
    {
        serveBus();
    }
    catch (const sdbusplus::exception::SdBusError& error)
    {
        MORROW_LOG(logging::error, "%s -Error:%s\n", __func__, error.what());
        (void)bus.exchange({}); // and the name goes, which nobody serves
    }
    MORROW_LOG(logging::progress, "%s - Exit\n", __func__);
}

/** Connects, takes the name, serves until the loop ends and lets go. */
void morrow_dbus_server::serveBus()
{
    auto connected = std::make_shared<sdbusplus::bus_t>(openDefaultSystemBus());
    connected->request_name(serviceName);
    (void)bus.exchange(connected); // there was none
    std::optional<ObjectManagers> managers(*connected);

    createMorrowEventLoop();

    connected.reset();
    auto last = bus.exchange({});
    const std::lock_guard lock(server_mutex); // discovery may be publishing
    // Before the loop's own managers go, so that there is no moment at which
    // discovery could withdraw an endpoint unannounced.
    for (const char* path : networkManagers)
    {
        serverConnection.manage(path);
    }
    last.reset();
    managers.reset();
}

void morrow_dbus_server::createMorrowEventLoop()
{
    MORROW_LOG(logging::progress, "%s - Enter\n", __func__);
    int result = sd_event_default(&serverEvent);
    if (result < 0)
    {
        MORROW_LOG(logging::error, "%s -sd_event_default failed:%s\n", __func__,
                   std::strerror(-result));
    }
    EventSource busSource;
    result = watchInput(busSource, serverEvent, bus.share()->get_fd(),
                        morrowProcessRequest);
    if (result < 0)
    {
        MORROW_LOG(logging::error, "%s -sd_event_add_io bus failed:%s\n",
                   __func__, std::strerror(-result));
    }
    EventSource pipeSource;
    result = watchInput(pipeSource, serverEvent, serverSignalPipe[0],
                        morrowProcessSig);
    if (result < 0)
    {
        MORROW_LOG(logging::error, "%s -sd_event_add_io sig pipe failed: %s\n",
                   __func__, std::strerror(-result));
        return;
    }
    // Not before the loop is sure to run: otherwise the connection would last,
    // and the name with it, without anybody to serve them.
    serverConnection.hold();
    // At the error level, so that it shows at every log setting.
    MORROW_LOG(logging::error,
               "%s - morrow DBus Server Initialization Completed.\n", __func__);
    (void)sem_post(&serverReadySemaphore); // fails only at SEM_VALUE_MAX
    MORROW_LOG(logging::progress, "%s - Starting sd_event_loop\n", __func__);
    (void)sd_event_loop(serverEvent); // ends by the stop byte alone
    MORROW_LOG(logging::progress, "%s - sd_event_loop returned\n", __func__);
}

int morrowProcessRequest(sd_event_source* /*source*/, int /*fd*/,
                         uint32_t /*events*/, void* /*userData*/)
{
    try
    {
        const std::lock_guard lock(server_mutex);
        const auto bus = morrow_dbus_server::get_instance().bus.share();
        while (bus && bus->process_discard())
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

int32_t morrow_dbus_server::stop_morrow_dbus_server()
{
    MORROW_LOG(logging::progress, "%s - Enter\n", __func__);
    const std::lock_guard oneAtATime(stopMutex);
    if (!writeStopByte(serverSignalPipe))
    {
        MORROW_LOG(logging::error, "%s -Signal pipe write failed: %s\n",
                   __func__, std::strerror(errno));
    }
    try
    {
        server_thread.join();
    }
    catch (const std::system_error& error)
    {
        MORROW_LOG(logging::error, "%s -Failed to terminate thread: %s\n",
                   __func__, error.what());
        return 1;
    }
    closeStopPipe(serverSignalPipe);
    // Initialisation has destroyed it already; on Linux a second time is
    // harmless.
    (void)sem_destroy(&serverReadySemaphore);
    UnloadDBusObjects();
    {
        const std::lock_guard lock(server_mutex);
        serverConnection.close();
    }
    MORROW_LOG(logging::progress, "%s - Exit\n", __func__);
    return 0;
}
