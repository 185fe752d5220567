// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * The daemon's client side on the system bus: the host's power state.
 *
 * A thread with a connection and an sd-event loop of its own receives the
 * PropertiesChanged signals of the host's internal power state and of its
 * reset cause; the handlers set the power flags that the state loop acts on.
 * The state loop itself reads the host's CurrentHostState once per iteration
 * through `getcurrentpowerstate`, on the main thread and over that thread's
 * own default connection: the client's connection is never used for it.
 *
 * The maps are filled on the client thread before `morrow_dbus_client_init`
 * returns and only read afterwards, so they need no lock.
 */

#include "stop_pipe.hpp"

#include <sdbusplus/bus.hpp>
#include <sdbusplus/message.hpp>
#include <semaphore.h>
#include <systemd/sd-event.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <variant>
#include <vector>

/** The pipe that ends the client thread's loop. */
extern StopPipe clientSignalPipe;

/** Posted by the client thread when its loop is about to run. */
extern sem_t clientReadySemaphore;

/** The client thread's event loop. */
extern sd_event* clientEvent;

/** Held while the client's bus is drained. */
extern std::mutex clientBusMutex;

/** A D-Bus property's value. The order decides how a variant is read: the
 *  first alternative that fits is taken, and alternative 0, empty, stands for
 *  a type that none of them fits. */
using PropertyValue =
    std::variant<std::vector<std::string>, std::string, int64_t, uint64_t,
                 double, int32_t, uint32_t, int16_t, uint16_t, uint8_t, bool>;

/** Takes an object's key, a property's name and its value. */
using PropertyCallback =
    std::function<void(std::string, std::string, PropertyValue)>;

/** A remote object; the texts live as long as the process. */
struct ObjectEntry
{
    const char* service;
    const char* object;
    const char* interface;
};

/** A remote method; the texts live as long as the process. */
struct MethodEntry
{
    const char* service;
    const char* object;
    const char* interface;
    const char* method;
};

/** The process's one bus client. */
class morrow_dbus_client
{
  public:
    /** The singleton, made on the first call. Any thread. */
    static morrow_dbus_client& get_instance();

    morrow_dbus_client(const morrow_dbus_client&) = delete;
    morrow_dbus_client& operator=(const morrow_dbus_client&) = delete;
    morrow_dbus_client(morrow_dbus_client&&) = delete;
    morrow_dbus_client& operator=(morrow_dbus_client&&) = delete;

    /** Fills `objectMap` with the objects that the daemon reads. */
    void FillobjectMap();

    /** Adds an object under a key, unless the key is there. */
    void FillStaticObject(const std::string& key, const char* service,
                          const char* object, const char* interface);

    /** Fills `methodMap`. The method in it is registered and listed, but
     *  nothing calls it. */
    void FillMethodMap();

    /** Logs what `objectMap` holds. */
    void ReadObjectMap();

    /** Logs what `methodMap` holds. */
    void ReadMethodMap();

    /** Reads a property of a registered object and hands it to `callback`.
     *  Uses the calling thread's default connection and waits for the answer
     *  at most as long as sd-bus does by default.
     *
     *  @param key       the object's key in `objectMap`
     *  @param property  the property's name
     *  @param callback  called with the value, on this thread
     *  @return 0 read and delivered, 1 bus error, 2 key not in `objectMap`,
     *          3 method error reply
     *  @throws what `callback` throws
     */
    int GetProperty(const std::string& key, const std::string& property,
                    const PropertyCallback& callback);

    /** Ends the loop and joins the thread. May be called again, also from
     *  another thread meanwhile.
     *  @return 0 stopped, 1 the thread could not be joined */
    int stop_morrow_dbus_client();

  private:
    friend int morrow_dbus_client_init();
    friend int morrowClientProcessRequest(sd_event_source*, int, uint32_t,
                                          void*);

    morrow_dbus_client();
    ~morrow_dbus_client() = default;

    void morrowClientDBusHandler();
    void registerSignalMatches();
    void createMorrowEventLoop();

    std::shared_ptr<sdbusplus::bus_t> bus;
    std::thread client_thread;
    std::map<std::string, ObjectEntry> objectMap;
    std::map<std::string, MethodEntry> methodMap;
};

/** Starts the client side and returns when its loop is about to run. Main
 *  thread, once.
 *  @return 0 the client thread runs its loop, 1 it could not be started */
int morrow_dbus_client_init();

/** Serves all that waits on the client's connection; an sd_event_io_handler_t
 *  of the client thread. @return 0 */
int morrowClientProcessRequest(sd_event_source* source, int fd, uint32_t events,
                               void* userData);

/** Reads the host's CurrentHostState into `current_host_state` and raises the
 *  power flags when it is not running. Main thread.
 *  @return 0 read, 1 not */
int getcurrentpowerstate();

/** Takes the host's state: see `getcurrentpowerstate`, whose callback it is.
 *  @throws std::bad_variant_access when the value is no string */
void readproperty(const std::string& objectName,
                  const std::string& propertyName, const PropertyValue& value);

/** Handles a PropertiesChanged of the internal power state. Client thread.
 *  @throws std::bad_variant_access when the property is no string */
void signalHandler_internalpowerstate(sdbusplus::message_t& message);

/** Handles a PropertiesChanged of the reset cause. Client thread.
 *  @throws std::bad_variant_access when the property is no string */
void signalHandler_warmreset(sdbusplus::message_t& message);
