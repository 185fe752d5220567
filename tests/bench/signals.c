// SPDX-License-Identifier: Apache-2.0

/*
 * Sends PropertiesChanged of the internal power state as fast as the bus takes
 * it. The state is one that is only logged.
 *
 * Usage: signals COUNT
 *
 * Prints the seconds on the monotonic clock before it sends the first.
 */

#include <stdio.h>
#include <stdlib.h>
#include <systemd/sd-bus.h>
#include <time.h>

static void check(int result)
{
    if (result < 0)
    {
        (void)fprintf(stderr, "signals: error %d of sd-bus\n", -result);
        exit(EXIT_FAILURE);
    }
}

int main(int argc, char** argv)
{
    const unsigned long count = argc == 2 ? strtoul(argv[1], NULL, 10) : 0;
    struct timespec begin;
    const char* name = NULL;
    sd_bus* bus = NULL;

    check(sd_bus_open_system(&bus));
    check(sd_bus_get_unique_name(bus, &name)); // waits for the connection
    (void)clock_gettime(CLOCK_MONOTONIC, &begin);
    (void)printf("%.6f\n", (double)begin.tv_sec + (double)begin.tv_nsec / 1e9);
    for (unsigned long i = 0; i < count; ++i)
    {
        check(sd_bus_emit_signal(
            bus, "/xyz/openbmc_project/control/host0/internal_power_state",
            "org.freedesktop.DBus.Properties", "PropertiesChanged", "sa{sv}as",
            "net.example.PowerState", 1, "InternalPowerState", "s",
            "net.example.OffPendingS0", 0));
    }
    check(sd_bus_flush(bus));
    (void)sd_bus_flush_close_unref(bus);
    return EXIT_SUCCESS;
}
