// SPDX-License-Identifier: Apache-2.0

/*
 * A server on sd-bus alone with morrow's objects: what publishing, withdrawing
 * and serving endpoints costs at least. Each object is announced while its
 * properties hold their defaults, and each value other than the default follows
 * as a PropertiesChanged of its own, as clients are used to.
 *
 * It is told by lines on standard input, like registry.cpp: "publish N" and
 * "withdraw". Each is answered by a line with the nanoseconds that it took,
 * first on the clock, then of the processor.
 */

#include <poll.h>
#include <pthread.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <systemd/sd-bus.h>
#include <time.h>

#define UNUSED __attribute__((unused))
#define NETWORKS 3
#define EIDS 256

static const char interface[] = "xyz.openbmc_project.mctp.Endpoint";

struct Endpoint
{
    sd_bus_slot* slot;
    char path[48];
    uint32_t networkId;
    uint8_t eid;
    const uint8_t* types;
    size_t typesSize;
    uint16_t endpointType;
    uint16_t position;
    const char* devicePath;
};

static struct Endpoint endpoints[NETWORKS * EIDS];
static unsigned int published;
static sd_bus* bus;
static pthread_mutex_t busMutex = PTHREAD_MUTEX_INITIALIZER;

static void checked(int result, const char* what)
{
    if (result < 0)
    {
        (void)fprintf(stderr, "raw_server: %s: %s\n", what, strerror(-result));
        exit(EXIT_FAILURE);
    }
}

static int getTypes(UNUSED sd_bus* from, UNUSED const char* path,
                    UNUSED const char* of, UNUSED const char* property,
                    sd_bus_message* reply, void* data,
                    UNUSED sd_bus_error* error)
{
    const struct Endpoint* const endpoint = data;
    return sd_bus_message_append_array(reply, 'y', endpoint->types,
                                       endpoint->typesSize);
}

static int getArbitration(sd_bus_message* call, UNUSED void* data,
                          UNUSED sd_bus_error* error)
{
    uint8_t eid = 0;
    const int result = sd_bus_message_read(call, "y", &eid);
    return result < 0 ? result : sd_bus_reply_method_return(call, "u", 0U);
}

static const sd_bus_vtable vtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("GetArbitration", "y", "u", getArbitration,
                  SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_SIGNAL("ArbitrationUpdated", "yuu", 0),
    SD_BUS_PROPERTY("NetworkId", "u", NULL,
                    offsetof(struct Endpoint, networkId),
                    SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
    SD_BUS_PROPERTY("EID", "y", NULL, offsetof(struct Endpoint, eid),
                    SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
    SD_BUS_PROPERTY("SupportedMessageTypes", "ay", getTypes, 0,
                    SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
    SD_BUS_PROPERTY("EndpointType", "q", NULL,
                    offsetof(struct Endpoint, endpointType),
                    SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
    SD_BUS_PROPERTY("Slot", "q", NULL, offsetof(struct Endpoint, position),
                    SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
    SD_BUS_PROPERTY("DevicePath", "s", NULL,
                    offsetof(struct Endpoint, devicePath),
                    SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
    SD_BUS_VTABLE_END,
};

static void announce(const struct Endpoint* endpoint, const char* property)
{
    checked(sd_bus_emit_properties_changed(bus, endpoint->path, interface,
                                           property, NULL),
            "sd_bus_emit_properties_changed");
}

static void publish(unsigned int index)
{
    static const uint8_t types[] = {0x7E, 0x05};
    struct Endpoint* const endpoint = &endpoints[index];
    memset(endpoint, 0, sizeof(*endpoint));
    endpoint->devicePath = "";
    (void)snprintf(endpoint->path, sizeof(endpoint->path),
                   "/xyz/openbmc_project/mctp/%u/%u", index / EIDS,
                   index % EIDS);
    checked(sd_bus_add_object_vtable(bus, &endpoint->slot, endpoint->path,
                                     interface, vtable, endpoint),
            "sd_bus_add_object_vtable");
    checked(sd_bus_emit_object_added(bus, endpoint->path),
            "sd_bus_emit_object_added");
    endpoint->devicePath = "/dev/i3c-mctp-0";
    announce(endpoint, "DevicePath");
    endpoint->eid = (uint8_t)(index % EIDS);
    if (endpoint->eid != 0)
    {
        announce(endpoint, "EID");
    }
    endpoint->endpointType = 1;
    announce(endpoint, "EndpointType");
    endpoint->networkId = index / EIDS;
    if (endpoint->networkId != 0)
    {
        announce(endpoint, "NetworkId");
    }
    endpoint->position = 1;
    announce(endpoint, "Slot");
    endpoint->types = types;
    endpoint->typesSize = sizeof(types);
    announce(endpoint, "SupportedMessageTypes");
}

static void withdraw(struct Endpoint* endpoint)
{
    checked(sd_bus_emit_object_removed(bus, endpoint->path),
            "sd_bus_emit_object_removed");
    (void)sd_bus_slot_unref(endpoint->slot);
}

static void publishMany(unsigned int count)
{
    while (published < count)
    {
        (void)pthread_mutex_lock(&busMutex);
        publish(published++);
        (void)pthread_mutex_unlock(&busMutex);
    }
}

static void withdrawAll(void)
{
    (void)pthread_mutex_lock(&busMutex);
    while (published > 0)
    {
        withdraw(&endpoints[--published]);
    }
    (void)pthread_mutex_unlock(&busMutex);
}

/** Serves all that waits, then sleeps without the mutex. */
static void* serve(UNUSED void* argument)
{
    struct pollfd input = {.fd = sd_bus_get_fd(bus), .events = POLLIN};
    for (;;)
    {
        int result = 0;
        (void)pthread_mutex_lock(&busMutex);
        while ((result = sd_bus_process(bus, NULL)) > 0)
        {
        }
        (void)pthread_mutex_unlock(&busMutex);
        checked(result, "sd_bus_process");
        (void)poll(&input, 1, -1);
    }
    return NULL;
}

static long long now(clockid_t clock)
{
    struct timespec time;
    (void)clock_gettime(clock, &time);
    return time.tv_sec * 1000000000LL + time.tv_nsec;
}

int main(void)
{
    char line[32];
    pthread_t thread;
    checked(sd_bus_open_system(&bus), "sd_bus_open_system");
    checked(sd_bus_request_name(bus, "xyz.openbmc_project.mctp", 0),
            "sd_bus_request_name");
    checked(sd_bus_add_object_manager(bus, NULL, "/xyz/openbmc_project/mctp/0"),
            "sd_bus_add_object_manager");
    checked(sd_bus_add_object_manager(bus, NULL, "/xyz/openbmc_project/mctp/1"),
            "sd_bus_add_object_manager");
    checked(sd_bus_add_object_manager(bus, NULL, "/xyz/openbmc_project/mctp/2"),
            "sd_bus_add_object_manager");
    checked(-pthread_create(&thread, NULL, serve, NULL), "pthread_create");

    while (fgets(line, sizeof(line), stdin) != NULL)
    {
        const long long wall = now(CLOCK_MONOTONIC);
        const long long cpu = now(CLOCK_PROCESS_CPUTIME_ID);
        unsigned int count = 0;
        if (sscanf(line, "publish %u", &count) == 1)
        {
            publishMany(count);
        }
        else
        {
            withdrawAll();
        }
        (void)printf("%lld %lld\n", now(CLOCK_MONOTONIC) - wall,
                     now(CLOCK_PROCESS_CPUTIME_ID) - cpu);
        (void)fflush(stdout);
    }
    return EXIT_SUCCESS;
}
