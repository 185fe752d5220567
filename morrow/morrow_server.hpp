// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * The daemon's server side on the system bus.
 *
 * It has a connection of its own, which holds the name
 * "xyz.openbmc_project.mctp" and three object managers, a thread that serves
 * it with an sd-event loop, and the registry of the endpoint objects.
 *
 * Discovery calls the registry on the main thread, the stop routine on the
 * signal thread, and the server thread answers requests. An sd-bus connection
 * is for one thread at a time, so all of them hold `server_mutex` while they
 * use it: the registry for each of its operations, the server thread for each
 * drain of the bus and when it lets go of its objects. Only the server
 * thread's set-up runs without it, while nobody else has the connection yet.
 */

#include "endpoint_object.hpp"
#include "shared_bus.hpp"
#include "stop_pipe.hpp"

#include <sdbusplus/bus.hpp>
#include <semaphore.h>
#include <systemd/sd-event.h>

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

/** The pipe that ends the server thread's loop. */
extern StopPipe serverSignalPipe;

/** Posted by the server thread when its loop is about to run. */
extern sem_t serverReadySemaphore;

/** The server thread's event loop. */
extern sd_event* serverEvent;

/** Serialises the use of the server's connection and of the registry. */
extern std::mutex server_mutex;

/** Endpoint objects of one network by EID. */
using EndpointMap = std::map<uint8_t, endpoint_object*>;

/** The process's one bus server. */
class morrow_dbus_server
{
  public:
    /** The singleton, made on the first call. Any thread. */
    static morrow_dbus_server& get_instance();

    morrow_dbus_server(const morrow_dbus_server&) = delete;
    morrow_dbus_server& operator=(const morrow_dbus_server&) = delete;
    morrow_dbus_server(morrow_dbus_server&&) = delete;
    morrow_dbus_server& operator=(morrow_dbus_server&&) = delete;

    /** Publishes one endpoint. Any thread but the server's.
     *
     *  @param networkId              0, 1 or 2
     *  @param eid                    the last element of the object's path
     *  @param supportedMessageTypes  MCTP message types, DSP0239
     *  @param endpointType           its low 16 bits are published
     *  @param slot                   the endpoint's slot
     *  @param devicePath             its device node
     *  @return 0 created, 1 no bus, 2 network id not in the path table,
     *          3 invalid network id, 5 the object could not be created,
     *          6 the property set could not be built
     */
    int32_t
    createEndpointObject(uint32_t networkId, uint8_t eid,
                         const std::vector<uint8_t>& supportedMessageTypes,
                         uint32_t endpointType, uint16_t slot,
                         const std::string& devicePath);

    /** Withdraws every endpoint of a network. Any thread but the server's.
     *  @return 0 done, 3 network id not supported */
    int32_t deleteAllEndpointObject(int32_t networkId);

    /** Withdraws every endpoint of all networks. */
    void UnloadDBusObjects();

    /** Ends the loop, joins the thread, withdraws all endpoints and leaves the
     *  bus. May be called again, also from another thread meanwhile.
     *  @return 0 stopped, 1 the thread could not be joined */
    int32_t stop_morrow_dbus_server();

  private:
    friend int32_t morrow_dbus_server_init();
    friend int morrowProcessRequest(sd_event_source*, int, uint32_t, void*);

    morrow_dbus_server();
    ~morrow_dbus_server() = default;

    void morrowDBusMgrHandler();
    void createMorrowEventLoop();

    void serveBus();
    EndpointMap* endpointsOf(int64_t networkId);
    int32_t createAndRemember(uint32_t networkId, uint8_t eid,
                              const EndpointProperties& properties,
                              sdbusplus::bus_t& serverBus);

    SharedBus bus;
    std::thread server_thread;
    EndpointMap network0Endpoints;
    EndpointMap network1Endpoints;
    EndpointMap network2Endpoints;
};

/** Starts the server side and returns when its loop is about to run; never
 *  returns when the bus or the name cannot be had. Main thread, once.
 *  @return 0 ready, 1 semaphore or pipe could not be created, 4 the thread
 *          could not be created */
int32_t morrow_dbus_server_init();

/** Serves all that waits on the server's connection; an sd_event_io_handler_t
 *  of the server thread. @return 0 */
int morrowProcessRequest(sd_event_source* source, int fd, uint32_t events,
                         void* userData);
