// SPDX-License-Identifier: Apache-2.0
#include "board/kernel/fuse_files.hpp"

#include "board/kernel/fuse_operations.hpp"
#include "board/util/error.hpp"

#include <poll.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <limits>

namespace board
{

FuseFiles::FuseFiles(Timeline& timeline) :
    timeline(timeline), driver(tree, timeline)
{
    showDevNames();
    startSession();
    server = std::thread(&FuseFiles::serve, this);
    try
    {
        mounts.putInPlace();
    }
    catch (...)
    {
        stopping = true;
        wakeup.wake();
        server.join();
        throw;
    }
}

FuseFiles::~FuseFiles()
{
    stopping = true;
    wakeup.wake();
    server.join();
    // libfuse allocates it with malloc.
    std::free(buffer.mem); // NOLINT(cppcoreguidelines-no-malloc)
}

void FuseFiles::showDevNames()
{
    for (const auto& [name, directory, target] : mounts.devNames())
    {
        auto entry = !target.empty() ? linkEntry(target)
                     : directory     ? directoryEntry()
                                     : fileEntry("");
        entry.fixed = true;
        tree.add("dev/" + name, std::move(entry));
    }
}

void FuseFiles::startSession()
{
    std::string program("morrow-board");
    std::array<char*, 1> words{program.data()};
    fuse_args arguments = FUSE_ARGS_INIT(1, words.data());
    session.reset(fuse_session_new(&arguments, &fuseOperations(),
                                   sizeof(fuse_lowlevel_ops), this));
    fuse_opt_free_args(&arguments);
    auto fd = mounts.takeServer();
    const auto place = "/dev/fd/" + std::to_string(fd.get());
    if (!session || fuse_session_mount(session.get(), place.c_str()) != 0)
    {
        throw Error("cannot start a FUSE session");
    }
    // The session closes it.
    static_cast<void>(fd.release());
}

void FuseFiles::withDriver(const std::function<void(I3cDriver&)>& action)
{
    {
        const std::lock_guard lock(mutex);
        action(driver);
        wakePollers();
    }
    // Something may be due earlier now.
    wakeup.wake();
}

void FuseFiles::serve()
{
    while (!stopping && fuse_session_exited(session.get()) == 0)
    {
        std::array<pollfd, 2> sources{
            pollfd{fuse_session_fd(session.get()), POLLIN, 0},
            pollfd{wakeup.fd(), POLLIN, 0}};
        const auto ready = poll(sources.data(), sources.size(), untilNextDue());
        if (ready > 0 && sources[1].revents != 0)
        {
            wakeup.clear();
        }
        if (ready > 0 && sources[0].revents != 0)
        {
            handleRequest();
        }
        letTimePass();
    }
}

int FuseFiles::untilNextDue()
{
    const std::lock_guard lock(mutex);
    const auto due = driver.nextDue();
    if (!due)
    {
        return -1;
    }
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(*due - Clock::now());
    return static_cast<int>(std::clamp<std::int64_t>(
        left.count(), 0, std::numeric_limits<int>::max()));
}

void FuseFiles::handleRequest()
{
    const auto size = fuse_session_receive_buf(session.get(), &buffer);
    if (size > 0)
    {
        const std::lock_guard lock(mutex);
        fuse_session_process_buf(session.get(), &buffer);
    }
}

void FuseFiles::letTimePass()
{
    const std::lock_guard lock(mutex);
    driver.advance(Clock::now());
    wakePollers();
}

void FuseFiles::wakePollers()
{
    for (auto& [handle, file] : openFiles)
    {
        constexpr unsigned worthWaking = POLLIN | POLLHUP | POLLERR;
        if (file.poller && file.device &&
            (file.device->readiness() & worthWaking) != 0)
        {
            // Fails only when the poller is gone, who need not be told then.
            static_cast<void>(fuse_lowlevel_notify_poll(file.poller.get()));
            file.poller.reset();
        }
    }
}

} // namespace board
