// SPDX-License-Identifier: Apache-2.0

/*
 * Peers that ask a server: each has a connection of its own and one call in
 * flight at any time.
 *
 * Usage: peers PEERS CALLS METHOD [PATH]
 *
 * METHOD is GetArbitration, GetAll (both of the endpoint at PATH) or
 * GetManagedObjects (of the object manager at PATH). Prints a line when all are
 * connected and the first is about to send, with the seconds on the monotonic
 * clock, and one with the seconds that all the calls together took. CALLS of 0
 * goes on until it is killed, or for a minute if nobody is left who would do
 * so.
 *
 * With PropertiesChanged for METHOD, one peer sends that signal of the internal
 * power state at PATH so often, as fast as the bus takes it.
 */

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>
#include <time.h>
#include <unistd.h>

#define UNUSED __attribute__((unused))

enum
{
    endlessSeconds = 60
};

static const char service[] = "xyz.openbmc_project.mctp";
static const char endpointInterface[] = "xyz.openbmc_project.mctp.Endpoint";

static const char* method;
static const char* path;
static unsigned long started;
static unsigned long answered;
static unsigned long calls;
static sd_event* loop;

static void checked(int result, const char* what)
{
    if (result < 0)
    {
        (void)fprintf(stderr, "peers: %s: %s\n", what, strerror(-result));
        exit(EXIT_FAILURE);
    }
}

static int onAnswer(sd_bus_message* answer, void* data, sd_bus_error* error);

static void call(sd_bus* bus)
{
    int result = 0;
    ++started;
    if (strcmp(method, "GetArbitration") == 0)
    {
        result = sd_bus_call_method_async(bus, NULL, service, path,
                                          endpointInterface, method, onAnswer,
                                          NULL, "y", 0);
    }
    else if (strcmp(method, "GetAll") == 0)
    {
        result = sd_bus_call_method_async(
            bus, NULL, service, path, "org.freedesktop.DBus.Properties", method,
            onAnswer, NULL, "s", endpointInterface);
    }
    else
    {
        result = sd_bus_call_method_async(bus, NULL, service, path,
                                          "org.freedesktop.DBus.ObjectManager",
                                          method, onAnswer, NULL, NULL);
    }
    checked(result, "sd_bus_call_method_async");
}

static int onAnswer(sd_bus_message* answer, UNUSED void* data,
                    UNUSED sd_bus_error* error)
{
    const sd_bus_error* const failure = sd_bus_message_get_error(answer);
    if (failure != NULL)
    {
        (void)fprintf(stderr, "peers: %s: %s\n", method, failure->message);
        exit(EXIT_FAILURE);
    }
    ++answered;
    if (calls == 0 || started < calls)
    {
        call(sd_bus_message_get_bus(answer));
    }
    else if (answered == calls)
    {
        (void)sd_event_exit(loop, 0);
    }
    return 0;
}

/** A state that is only logged, so that nothing else begins. */
static void sendSignals(sd_bus* bus)
{
    for (unsigned long i = 0; i < calls; ++i)
    {
        checked(sd_bus_emit_signal(bus, path, "org.freedesktop.DBus.Properties",
                                   method, "sa{sv}as", "net.example.PowerState",
                                   1, "InternalPowerState", "s",
                                   "net.example.OffPendingS0", 0),
                "sd_bus_emit_signal");
    }
    checked(sd_bus_flush(bus), "sd_bus_flush");
}

static void ask(sd_bus** buses, unsigned long peers)
{
    for (unsigned long i = 0; i < peers && (calls == 0 || i < calls); ++i)
    {
        call(buses[i]);
    }
    checked(sd_event_loop(loop), "sd_event_loop");
}

/** Prints a line at once. */
static void printSeconds(time_t seconds, long nanoseconds)
{
    (void)printf("%.6f\n", (double)seconds + (double)nanoseconds / 1e9);
    (void)fflush(stdout);
}

int main(int argc, char** argv)
{
    struct timespec begin;
    struct timespec end;
    if (argc != 5)
    {
        (void)fprintf(stderr, "Usage: peers PEERS CALLS METHOD PATH\n");
        return 2;
    }
    const unsigned long peers = strtoul(argv[1], NULL, 10);
    calls = strtoul(argv[2], NULL, 10);
    method = argv[3];
    path = argv[4];
    if (calls == 0)
    {
        (void)alarm(endlessSeconds); // nothing else has set one
    }

    sd_bus** const buses = calloc(peers, sizeof(sd_bus*));
    checked(buses == NULL ? -12 : sd_event_new(&loop), "sd_event_new");
    for (unsigned long i = 0; i < peers; ++i)
    {
        const char* name = NULL;
        checked(sd_bus_open_system(&buses[i]), "sd_bus_open_system");
        checked(sd_bus_get_unique_name(buses[i], &name),
                "sd_bus_get_unique_name");
        checked(sd_bus_attach_event(buses[i], loop, 0), "sd_bus_attach_event");
    }
    (void)clock_gettime(CLOCK_MONOTONIC, &begin);
    printSeconds(begin.tv_sec, begin.tv_nsec);
    if (strcmp(method, "PropertiesChanged") == 0)
    {
        sendSignals(buses[0]);
    }
    else
    {
        ask(buses, peers);
    }
    (void)clock_gettime(CLOCK_MONOTONIC, &end);
    printSeconds(end.tv_sec - begin.tv_sec, end.tv_nsec - begin.tv_nsec);
    return EXIT_SUCCESS;
}
