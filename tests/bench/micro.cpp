// SPDX-License-Identifier: Apache-2.0

/**
 * What the daemon does often, piece by piece: decoding property values, the
 * signal handlers, the MCTP wire format, and the log call with its level shown
 * and hidden. Built with the daemon's own sources.
 *
 * Messages are made for a connection to nobody and read over and over. What is
 * logged goes to standard error, for which /dev/null is the place.
 */

#include "morrow/log.hpp"
#include "morrow/morrow_client.hpp"
#include "morrow/power_state.hpp"
#include "platform/mctp/wire.hpp"

#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <systemd/sd-bus.h>

#include <array>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>

// What the handlers set belongs to the state loop, which is not in here.
uint8_t power_down_pending = 0;
uint8_t await_host_running = 1;
std::string current_host_state;

namespace
{

constexpr auto logSource = logging::sourceName();

struct BusUnref
{
    void operator()(sd_bus* bus) const noexcept
    {
        sd_bus_close_unref(bus);
    }
};

using Bus = std::unique_ptr<sd_bus, BusUnref>;

/** Ends the program when a call has failed: there is nothing to measure. */
void check(int result)
{
    if (result < 0)
    {
        std::abort();
    }
}

/** A connection to nobody. */
Bus unanswered()
{
    std::array<int, 2> sockets{};
    check(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0,
                     sockets.data()));
    sd_bus* bus = nullptr;
    check(sd_bus_new(&bus));
    Bus owned(bus);
    check(sd_bus_set_fd(bus, sockets[0], sockets[0]));
    check(sd_bus_start(bus)); // the other end stays open until the end
    return owned;
}

/** A signal, filled by `fill` and closed for reading. */
sdbusplus::message_t
signalMessage(const char* path,
              const std::function<void(sd_bus_message*)>& fill)
{
    static const Bus bus = unanswered();
    sd_bus_message* message = nullptr;
    check(sd_bus_message_new_signal(bus.get(), &message, path,
                                    "org.freedesktop.DBus.Properties",
                                    "PropertiesChanged"));
    sdbusplus::message_t owned(message, std::false_type());
    fill(message);
    check(sd_bus_message_seal(message, 1, 0));
    return owned;
}

/** Reads a property value of a kind over and over. */
void decodeProperty(benchmark::State& state, const char* contents,
                    const std::function<void(sd_bus_message*)>& append)
{
    auto message = signalMessage(
        "/",
        [&](sd_bus_message* open)
        {
            check(sd_bus_message_open_container(open, 'v', contents));
            append(open);
            check(sd_bus_message_close_container(open));
        });
    for (auto _ : state)
    {
        check(sd_bus_message_rewind(message.get(), 1));
        PropertyValue value;
        message.read(value);
        benchmark::DoNotOptimize(value);
    }
}

void decodeString(benchmark::State& state)
{
    decodeProperty(
        state, "s",
        [](sd_bus_message* message)
        {
            check(sd_bus_message_append(message, "s", hostStateRunning));
        });
}

void decodeStrings(benchmark::State& state)
{
    decodeProperty(state, "as",
                   [](sd_bus_message* message)
                   {
                       check(sd_bus_message_append(message, "as", 3, "one",
                                                   "two", "three"));
                   });
}

void decodeBool(benchmark::State& state)
{
    decodeProperty(state, "b",
                   [](sd_bus_message* message)
                   {
                       check(sd_bus_message_append(message, "b", 1));
                   });
}

void decodeOther(benchmark::State& state)
{
    decodeProperty(state, "o",
                   [](sd_bus_message* message)
                   {
                       check(sd_bus_message_append(message, "o", "/a/path"));
                   });
}

void handlePowerState(benchmark::State& state)
{
    auto message = signalMessage(
        "/xyz/openbmc_project/control/host0/internal_power_state",
        [](sd_bus_message* open)
        {
            check(sd_bus_message_append(
                open, "sa{sv}as",
                "xyz.openbmc_project.Control.Host.InternalPowerState", 1,
                "InternalPowerState", "s",
                "xyz.openbmc_project.Control.Host.State.StateS5", 0));
        });
    for (auto _ : state)
    {
        check(sd_bus_message_rewind(message.get(), 1));
        signalHandler_internalpowerstate(message);
    }
}

void handleResetCause(benchmark::State& state)
{
    auto message = signalMessage(
        "/xyz/openbmc_project/control/host0/reset_cause",
        [](sd_bus_message* open)
        {
            check(sd_bus_message_append(
                open, "sa{sv}as", "xyz.openbmc_project.Control.Host.ResetCause",
                1, "ResetCause", "s",
                "xyz.openbmc_project.Control.Host.Cause.WarmReset", 0));
        });
    for (auto _ : state)
    {
        check(sd_bus_message_rewind(message.get(), 1));
        signalHandler_warmreset(message);
    }
}

constexpr platform::mctp::Envelope request{
    .destination = 0, .source = 8, .tagOwner = true, .tag = 0};

void wireRequest(benchmark::State& state)
{
    constexpr std::array<uint8_t, 3> message{0x00, 0x81, 0x0D};
    for (auto _ : state)
    {
        auto packets = platform::mctp::fragment(request, message);
        benchmark::DoNotOptimize(packets);
    }
}

void wireAnswer(benchmark::State& state)
{
    constexpr std::array<uint8_t, 4> message{0x00, 0x01, 0x0D, 0x00};
    const auto packets = platform::mctp::fragment(
        platform::mctp::answerTo(request, 0x1D), message);
    for (auto _ : state)
    {
        platform::mctp::Reassembler reassembler(message.size());
        const auto packet = platform::mctp::decode(packets.front());
        benchmark::DoNotOptimize(reassembler.add(*packet));
    }
}

void logHidden(benchmark::State& state)
{
    for (auto _ : state)
    {
        MORROW_LOG(logging::progress, "%s - Enter\n", __func__);
    }
}

void logShown(benchmark::State& state)
{
    for (auto _ : state)
    {
        MORROW_LOG(logging::error, "%s - Enter\n", __func__);
    }
}

BENCHMARK(decodeString);
BENCHMARK(decodeStrings);
BENCHMARK(decodeBool);
BENCHMARK(decodeOther);
BENCHMARK(handlePowerState);
BENCHMARK(handleResetCause);
BENCHMARK(wireRequest);
BENCHMARK(wireAnswer);
BENCHMARK(logHidden);
BENCHMARK(logShown);

} // namespace

BENCHMARK_MAIN();
