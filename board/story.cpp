// SPDX-License-Identifier: Apache-2.0
#include "board/story.hpp"

#include <array>
#include <cstdio>

namespace board
{
namespace
{

using namespace std::chrono_literals;

constexpr Timeline::Limit stopLimit = 10s;

void tell(Board& board, const std::string& text)
{
    board.timeline().record(event::Note{text});
}

void expect(bool asTold, const std::string& otherwise)
{
    if (!asTold)
    {
        throw StoryDiffers(otherwise);
    }
}

/** What both controllers with their well-behaved endpoints are published as:
 *  vendor-defined PCI messages and SPDM, slots by endpoint id. */
std::vector<EndpointObject> expectedEndpoints()
{
    const std::vector<std::uint8_t> types{0x7E, 0x05};
    return {{"/xyz/openbmc_project/mctp/0/157", 0, 0x9D, types, 1, 1,
             "/dev/i3c-mctp-1"},
            {"/xyz/openbmc_project/mctp/0/29", 0, 0x1D, types, 1, 0,
             "/dev/i3c-mctp-0"}};
}

/** Waits until every controller was written to the file, in table order, each
 *  with the result 0. */
void awaitWrites(Board& board, bool bind, std::size_t from)
{
    for (const auto* controller : controllerNames)
    {
        const auto what =
            std::string(bind ? "bind of " : "unbind of ") + controller;
        const auto write = board.await(
            what,
            [&](const Event& event)
            {
                const auto* const write = event.as<event::DriverWrite>();
                return write != nullptr && write->bind == bind &&
                       write->controller == controller;
            },
            from);
        const auto error = write.as<event::DriverWrite>()->error;
        expect(error == 0,
               what + " failed with errno " + std::to_string(error));
        from = write.index + 1;
    }
}

/** Waits until the device of every controller is gone. */
void awaitDevicesGone(Board& board, std::size_t from)
{
    for (std::size_t index = 0; index < controllerCount; ++index)
    {
        const auto isGone = [index](const Event& event)
        {
            const auto* const down = event.as<event::DeviceDown>();
            return down != nullptr && down->controller == index;
        };
        static_cast<void>(board.await(std::string("end of the device of ") +
                                          controllerNames.at(index),
                                      isGone, from));
    }
}

template <typename Kind>
void awaitEndpoint(Board& board, const std::string& path, std::size_t from)
{
    const auto announced = [&path](const Event& event)
    {
        const auto* const object = event.as<Kind>();
        return object != nullptr && object->path == path;
    };
    static_cast<void>(board.await("announcement of " + path, announced, from));
}

void getsReady(Board& board)
{
    tell(board, "The daemon starts and gets ready.");
    const auto from = board.timeline().size();
    board.daemon().start();
    board.daemon().awaitReady(Board::usualLimit);
    awaitWrites(board, false, from);
    awaitDevicesGone(board, from);
}

void discovers(Board& board)
{
    tell(board, "The host runs: both endpoints are discovered.");
    const auto from = board.timeline().size();
    board.host().goesTo("Running");
    awaitWrites(board, true, from);
    for (const auto& endpoint : expectedEndpoints())
    {
        awaitEndpoint<event::EndpointAdded>(board, endpoint.path, from);
    }
}

void isReadByAClient(Board& board)
{
    tell(board, "A client reads them.");
    const auto objects = board.bus().endpoints();
    for (const auto& object : objects)
    {
        board.timeline().record(event::EndpointRead{object});
    }
    expect(objects == expectedEndpoints(),
           "the endpoints on the bus are not those behind the controllers");
}

void withdraws(Board& board)
{
    tell(board, "The host goes off: endpoints withdrawn, controllers unbound.");
    const auto from = board.timeline().size();
    // The state first: the daemon asks for it right after the announcement.
    board.host().goesTo("Off");
    board.host().entersPowerState("StateS5");
    for (const auto& endpoint : expectedEndpoints())
    {
        awaitEndpoint<event::EndpointRemoved>(board, endpoint.path, from);
    }
    awaitWrites(board, false, from);
    awaitDevicesGone(board, from);
    expect(board.bus().endpoints().empty(), "an endpoint is still published");
}

void stops(Board& board)
{
    tell(board, "SIGTERM twice ends the daemon.");
    const auto end = board.stopDaemon(stopLimit);
    expect(end.signal == 0 && end.status == 0,
           "the daemon did not end with status 0");
}

} // namespace

std::string playStory(Board& board)
{
    getsReady(board);
    discovers(board);
    isReadByAClient(board);
    withdraws(board);
    stops(board);
    return "As told: ready, two endpoints published and withdrawn, exit "
           "status 0, in " +
           secondsOf(board.timeline().now()) + ".";
}

std::string secondsOf(Time time)
{
    std::array<char, 64> text{};
    static_cast<void>(
        std::snprintf(text.data(), text.size(), "%.1f s",
                      std::chrono::duration<double>(time).count()));
    return text.data();
}

} // namespace board
