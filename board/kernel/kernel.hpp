// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/kernel/fuse_operations.hpp"
#include "board/kernel/mounts.hpp"
#include "board/util/wakeup.hpp"

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

struct fuse;

namespace board
{

/** The simulated kernel: the I3C driver's files under /sys and its nodes in
 *  /dev, served in user space by a FUSE file system of this process.
 *
 *  It takes the place of /sys and of /dev in the sandbox for as long as this
 *  object lives; what /dev had stays there. Everything acts before the system
 *  call that asks for it returns, and nothing is cached: what the driver does
 *  on its own (a device comes up) is seen by the next call.
 *
 *  One thread takes requests one after the other, so that the close of one
 *  opener is done before the open of the next. It runs the driver, the devices
 *  and the endpoints. The functions below are for any other thread and must
 *  not be called from an endpoint's behaviour.
 */
class Kernel
{
  public:
    /** @brief Mount it. The driver is there, no controller is bound.
     *  @throws Error when the system refuses to mount */
    explicit Kernel(Timeline& timeline);

    Kernel(const Kernel&) = delete;
    Kernel& operator=(const Kernel&) = delete;
    ~Kernel();

    /** @brief Bring the board to the state that it has after boot: both
     *         controllers bound, their devices up. Takes no time. */
    void boot();

    /** @brief Run an action on the driver between two requests, and show its
     *         effects. */
    void change(const std::function<void(I3cDriver&)>& action);

  private:
    struct FuseDeleter
    {
        void operator()(fuse* server) const;
    };

    void showDevNames();
    void startFuse();
    void serve();
    void stop();
    [[nodiscard]] int untilNextDue();
    void letTimePass();

    KernelMounts mounts;
    std::mutex mutex; //!< guards the files
    ServedFiles files;
    std::unique_ptr<fuse, FuseDeleter> server;
    std::atomic<bool> stopping = false;
    Wakeup wakeup;
    std::thread thread;
};

} // namespace board
