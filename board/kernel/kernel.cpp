// SPDX-License-Identifier: Apache-2.0
#include "board/kernel/kernel.hpp"

#include "board/util/error.hpp"

#define FUSE_USE_VERSION 314
#include <fuse.h>
#include <fuse_lowlevel.h>
#include <poll.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <utility>

namespace board
{

Kernel::Kernel(Timeline& timeline) : files(timeline)
{
    showDevNames();
    startFuse();
    thread = std::thread(&Kernel::serve, this);
    try
    {
        mounts.putInPlace();
    }
    catch (...)
    {
        stop();
        throw;
    }
}

Kernel::~Kernel()
{
    stop();
}

void Kernel::stop()
{
    stopping = true;
    wakeup.wake();
    thread.join();
}

void Kernel::FuseDeleter::operator()(fuse* server) const
{
    fuse_destroy(server);
}

void Kernel::showDevNames()
{
    for (const auto& [name, directory, target] : mounts.devNames())
    {
        files.tree.add("dev/" + name, !target.empty() ? linkEntry(target)
                                      : directory     ? directoryEntry()
                                                      : readableEntry(""));
    }
}

void Kernel::startFuse()
{
    std::string program("morrow-board");
    std::array<char*, 1> words{program.data()};
    fuse_args arguments = FUSE_ARGS_INIT(1, words.data());
    server.reset(fuse_new(&arguments, &fuseOperations(),
                          sizeof(fuse_operations), &files));
    fuse_opt_free_args(&arguments);
    auto fd = mounts.takeServer();
    const auto place = "/dev/fd/" + std::to_string(fd.get());
    if (!server || fuse_mount(server.get(), place.c_str()) != 0)
    {
        throw Error("cannot start a FUSE session");
    }
    // The session closes it.
    static_cast<void>(fd.release());
}

void Kernel::change(const std::function<void(I3cDriver&)>& action)
{
    {
        const std::lock_guard lock(mutex);
        action(files.driver);
        files.wakePollers();
    }
    // Something may be due earlier now.
    wakeup.wake();
}

void Kernel::boot()
{
    change(
        [](I3cDriver& driver)
        {
            for (std::size_t index = 0; index < controllerCount; ++index)
            {
                auto& after = driver.controller(index).comingUp.after;
                const auto later =
                    std::exchange(after, std::chrono::milliseconds(0));
                // A controller that is bound already stays as it is.
                static_cast<void>(
                    driver.bind(controllerNames.at(index), Clock::now()));
                after = later;
            }
        });
}

void Kernel::serve()
{
    auto* const session = fuse_get_session(server.get());
    fuse_buf buffer{};
    while (!stopping && fuse_session_exited(session) == 0)
    {
        std::array<pollfd, 2> sources{
            pollfd{fuse_session_fd(session), POLLIN, 0},
            pollfd{wakeup.fd(), POLLIN, 0}};
        const auto ready = poll(sources.data(), sources.size(), untilNextDue());
        if (ready > 0 && sources[1].revents != 0)
        {
            wakeup.clear();
        }
        if (ready > 0 && sources[0].revents != 0 &&
            fuse_session_receive_buf(session, &buffer) > 0)
        {
            const std::lock_guard lock(mutex);
            fuse_session_process_buf(session, &buffer);
        }
        letTimePass();
    }
    // libfuse allocates it with malloc.
    std::free(buffer.mem); // NOLINT(cppcoreguidelines-no-malloc)
}

int Kernel::untilNextDue()
{
    const std::lock_guard lock(mutex);
    const auto due = files.driver.nextDue();
    if (!due)
    {
        return -1;
    }
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(*due - Clock::now());
    return static_cast<int>(std::clamp<std::int64_t>(
        left.count(), 0, std::numeric_limits<int>::max()));
}

void Kernel::letTimePass()
{
    const std::lock_guard lock(mutex);
    files.driver.advance(Clock::now());
    files.wakePollers();
}

} // namespace board
