// SPDX-License-Identifier: Apache-2.0

/*
 * The least that a daemon with the same duties can cost: a C program on sd-bus
 * alone that does the mandated bus and file work and nothing else. The cost of
 * the daemon is given as a multiple of this.
 *
 *  - Two connections to the system bus, each on a thread of its own: one with
 *    the two subscriptions, one with the name and the three object managers.
 *    Each thread sleeps in sd_bus_wait, without an event loop.
 *  - A signal thread that waits for a semaphore, which SIGTERM posts.
 *  - In each iteration the main thread opens its default connection, reads one
 *    property and closes the connection.
 *  - A signal of a power state is logged with one line and sets two flags.
 *  - With --off, an iteration sleeps 100 ms, removes two nodes and writes two
 *    names into the unbind file; without it, it sleeps a second.
 *
 * An error ends the program: there is nothing to measure then.
 */

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <semaphore.h>
#include <signal.h>
#include <stdbool.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-daemon.h>
#include <time.h>
#include <unistd.h>

#define UNUSED __attribute__((unused))

static sem_t stop;
static sem_t ready;
static volatile uint8_t powerDownPending;
static volatile uint8_t awaitHostRunning;

/** Ends the program when a call has failed. */
static int checked(int result, const char* what)
{
    if (result < 0)
    {
        (void)fprintf(stderr, "baseline: %s: %s\n", what, strerror(-result));
        exit(EXIT_FAILURE);
    }
    return result;
}

static void sleepFor(time_t seconds, long nanoseconds)
{
    struct timespec remaining = {.tv_sec = seconds, .tv_nsec = nanoseconds};
    while (nanosleep(&remaining, &remaining) == -1 && errno == EINTR)
    {
    }
}

/** The line that every signal of a power state is logged with. */
static void logPath(sd_bus_message* message)
{
    char line[160];
    const int length = snprintf(line, sizeof(line),
                                "dlog 1 324 baseline:1:powerState:Path:[%s]\n",
                                sd_bus_message_get_path(message));
    (void)!write(STDERR_FILENO, line, (size_t)length);
}

static int onPowerState(sd_bus_message* message, void* key,
                        UNUSED sd_bus_error* error)
{
    const char* name = NULL;
    const char* value = NULL;
    (void)sd_bus_message_skip(message, "s");
    (void)sd_bus_message_enter_container(message, 'a', "{sv}");
    while (sd_bus_message_enter_container(message, 'e', "sv") > 0)
    {
        (void)sd_bus_message_read(message, "s", &name);
        if (strcmp(name, key) == 0 &&
            sd_bus_message_read(message, "v", "s", &value) >= 0 &&
            (strstr(value, ".StateS5") != NULL ||
             strstr(value, ".WarmReset") != NULL))
        {
            powerDownPending = 1;
            awaitHostRunning = 1;
        }
        (void)sd_bus_message_exit_container(message);
    }
    logPath(message);
    return 0;
}

/** Serves a connection; never returns. */
static void serve(sd_bus* bus)
{
    checked(sem_post(&ready), "sem_post");
    for (;;)
    {
        while (checked(sd_bus_process(bus, NULL), "sd_bus_process") > 0)
        {
        }
        checked(sd_bus_wait(bus, UINT64_MAX), "sd_bus_wait");
    }
}

static void* client(UNUSED void* argument)
{
    sd_bus* bus = NULL;
    checked(sd_bus_default_system(&bus), "sd_bus_default_system");
    checked(
        sd_bus_add_match(bus, NULL,
                         "type='signal',member='PropertiesChanged',path='/xyz/"
                         "openbmc_project/control/host0/internal_power_state',"
                         "interface='org.freedesktop.DBus.Properties',",
                         onPowerState, "InternalPowerState"),
        "sd_bus_add_match");
    checked(
        sd_bus_add_match(bus, NULL,
                         "type='signal',member='PropertiesChanged',path='/xyz/"
                         "openbmc_project/control/host0/reset_cause',"
                         "interface='org.freedesktop.DBus.Properties',",
                         onPowerState, "ResetCause"),
        "sd_bus_add_match");
    serve(bus);
    return NULL;
}

static void* server(UNUSED void* argument)
{
    static const char* const managers[] = {
        "/xyz/openbmc_project/mctp/0",
        "/xyz/openbmc_project/mctp/1",
        "/xyz/openbmc_project/mctp/2",
    };
    sd_bus* bus = NULL;
    checked(sd_bus_default_system(&bus), "sd_bus_default_system");
    checked(sd_bus_request_name(bus, "xyz.openbmc_project.mctp",
                                SD_BUS_NAME_ALLOW_REPLACEMENT |
                                    SD_BUS_NAME_REPLACE_EXISTING),
            "sd_bus_request_name");
    for (size_t i = 0; i < sizeof(managers) / sizeof(managers[0]); ++i)
    {
        checked(sd_bus_add_object_manager(bus, NULL, managers[i]),
                "sd_bus_add_object_manager");
    }
    serve(bus);
    return NULL;
}

static void postStop(UNUSED int number)
{
    (void)sem_post(&stop);
}

static void* signalThread(UNUSED void* argument)
{
    while (sem_wait(&stop) == -1 && errno == EINTR)
    {
    }
    _exit(EXIT_SUCCESS);
}

/** Starts a thread that never ends. */
static void start(void* (*body)(void*))
{
    pthread_t thread;
    checked(-pthread_create(&thread, NULL, body, NULL), "pthread_create");
}

static void startOnTheBus(void* (*body)(void*))
{
    start(body);
    while (sem_wait(&ready) == -1 && errno == EINTR)
    {
    }
}

static void unbind(const char* controller)
{
    const int fd = open("/sys/bus/platform/drivers/silvaco-i3c-master/unbind",
                        O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd >= 0)
    {
        // Fails for a controller that is not bound.
        (void)!write(fd, controller, strlen(controller));
        (void)close(fd);
    }
}

static void cleanUp(void)
{
    sleepFor(0, 100000000);
    (void)remove("/dev/i3c-mctp-0"); // usually absent
    (void)remove("/dev/i3c-mctp-1");
    unbind("fff10000.i3c");
    unbind("fff11000.i3c");
}

static void readHostState(char state[64])
{
    sd_bus* bus = NULL;
    sd_bus_message* reply = NULL;
    const char* text = NULL;
    checked(sd_bus_default(&bus), "sd_bus_default");
    checked(sd_bus_get_property(bus, "xyz.openbmc_project.State.Host0",
                                "/xyz/openbmc_project/state/host0",
                                "xyz.openbmc_project.State.Host",
                                "CurrentHostState", NULL, &reply, "s"),
            "sd_bus_get_property");
    checked(sd_bus_message_read(reply, "s", &text), "sd_bus_message_read");
    (void)snprintf(state, 64, "%s", text);
    (void)sd_bus_message_unref(reply);
    (void)sd_bus_unref(bus);
}

int main(int argc, char** argv)
{
    const bool off = argc == 2 && strcmp(argv[1], "--off") == 0;
    char state[64];

    checked(sem_init(&stop, 0, 0), "sem_init");
    checked(sem_init(&ready, 0, 0), "sem_init");
    start(signalThread);
    (void)signal(SIGTERM, postStop);
    startOnTheBus(client);
    startOnTheBus(server);
    sleepFor(1, 0);
    (void)sd_notify(0, "READY=1");
    for (;;)
    {
        if (off)
        {
            cleanUp();
        }
        else
        {
            sleepFor(1, 0);
        }
        readHostState(state);
    }
}
