// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/kernel/file_tree.hpp"
#include "board/kernel/i3c_driver.hpp"
#include "board/kernel/mounts.hpp"
#include "board/timeline/timeline.hpp"
#include "board/util/fd.hpp"
#include "board/util/wakeup.hpp"

#ifndef FUSE_USE_VERSION
#define FUSE_USE_VERSION 314
#endif
#include <fuse_lowlevel.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace board
{

/** Serves a file tree and the driver behind it through FUSE.
 *
 *  One thread takes the kernel's requests one after the other, so that they
 *  are answered in the order in which they were made: the close of one opener
 *  is done before the open of the next. The same thread lets the driver's
 *  time pass. The lock keeps other threads' calls of withDriver() apart from
 *  it.
 */
class FuseFiles
{
  public:
    /** @brief Mount and serve.
     *  @throws Error when the system refuses to mount */
    explicit FuseFiles(Timeline& timeline);

    FuseFiles(const FuseFiles&) = delete;
    FuseFiles& operator=(const FuseFiles&) = delete;
    FuseFiles(FuseFiles&&) = delete;
    FuseFiles& operator=(FuseFiles&&) = delete;
    ~FuseFiles();

    /** @brief Run an action on the driver, apart from all requests, and let its
     *         effects be seen. From any thread but the serving one. */
    void withDriver(const std::function<void(I3cDriver&)>& action);

  private:
    friend struct FuseOperations;

    struct PollHandleDeleter
    {
        void operator()(fuse_pollhandle* handle) const
        {
            fuse_pollhandle_destroy(handle);
        }
    };

    struct SessionDeleter
    {
        void operator()(fuse_session* session) const
        {
            fuse_session_destroy(session);
        }
    };

    /** What one open(2) made. */
    struct OpenFile
    {
        FileTree::Id entry = 0;
        std::shared_ptr<MctpDevice> device{}; //!< of a device node
        /** Who waits in poll(2), to be told. */
        std::unique_ptr<fuse_pollhandle, PollHandleDeleter> poller{};
    };

    void startSession();
    void showDevNames();
    void serve();
    [[nodiscard]] int untilNextDue();
    void handleRequest();
    void letTimePass();
    void wakePollers();

    Timeline& timeline;
    KernelMounts mounts;
    std::mutex mutex;
    FileTree tree;
    I3cDriver driver;
    std::map<std::uint64_t, OpenFile> openFiles;
    std::uint64_t lastHandle = 0;
    std::unique_ptr<fuse_session, SessionDeleter> session;
    fuse_buf buffer{};
    std::atomic<bool> stopping = false;
    Wakeup wakeup;
    std::thread server;
};

} // namespace board
