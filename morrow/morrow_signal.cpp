// SPDX-License-Identifier: Apache-2.0
#include "morrow_signal.hpp"

#include "log.hpp"
#include "morrow_client.hpp"
#include "morrow_server.hpp"
#include "sleep.hpp"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <exception>
#include <system_error>

namespace
{

constexpr auto logSource = logging::sourceName();

constexpr uint8_t running = 0;
constexpr uint8_t stopping = 1;
constexpr uint8_t stopped = 2;

constexpr uint32_t succeeded = 0;
constexpr uint32_t failed = 2;

/** Serves SIGTERM, SIGSEGV and SIGBUS. That get_instance logs from here is
 *  meant: the log is async-signal-safe, and the line shows the signal. The code
 *  that is interrupted finds its errno as it was. */
extern "C" void handleSignal(int number)
{
    const int interrupted = errno;
    auto& instance = morrow_signal::get_instance();
    switch (number)
    {
        case SIGTERM:
            instance.post_stop();
            break;
        case SIGBUS:
        case SIGSEGV:
            (void)std::signal(number, SIG_DFL); // nothing to do if it fails
            break;
        default:
            break;
    }
    errno = interrupted;
}

} // namespace

morrow_signal& morrow_signal::get_instance()
{
    MORROW_LOG(logging::progress, "Entry [%s]\n", __func__);
    static morrow_signal instance;
    return instance;
}

morrow_signal::morrow_signal() : stop_state(running), dbus_ready(0)
{
    MORROW_LOG(logging::progress, "Entry [%s]\n", __func__);
    sem_initialised = 0;
}

morrow_signal::~morrow_signal()
{
    MORROW_LOG(logging::progress, "Entry [%s]\n", __func__);
    if (sem_initialised != 0 && sem_destroy(&stop_semaphore) != 0)
    {
        MORROW_LOG(logging::progress, "%s\n", "Failed to destroy semaphore");
    }
}

uint32_t morrow_signal::register_signal()
{
    MORROW_LOG(logging::progress, "Entry [%s]\n", __func__);
    if (!init_semaphore() || !start_signal_thread())
    {
        return failed;
    }
    for (const int number : {SIGTERM, SIGSEGV, SIGBUS})
    {
        (void)std::signal(number, handleSignal); // fails for no such number
    }
    return succeeded;
}

bool morrow_signal::init_semaphore()
{
    if (sem_initialised != 0)
    {
        return true;
    }
    if (sem_init(&stop_semaphore, 0, 0) != 0)
    {
        MORROW_LOG(logging::progress, "%s\n", "Failed to initialize semaphore");
        return false;
    }
    sem_initialised = 1;
    return true;
}

bool morrow_signal::start_signal_thread()
{
    if (signal_thread.joinable())
    {
        MORROW_LOG(logging::progress, "%s\n",
                   "Signal thread is already created");
        return true;
    }
    try
    {
        signal_thread = std::thread(&morrow_signal::signal_thread_fn, this);
    }
    catch (const std::exception&)
    {
        MORROW_LOG(logging::progress, "%s\n", "Failed to create signal thread");
        return false;
    }
    MORROW_LOG(logging::progress, "%s\n", "Created signal thread");
    return true;
}

void morrow_signal::signal_thread_fn()
{
    MORROW_LOG(logging::progress, "Entry [%s]\n", __func__);
    (void)sem_wait(&stop_semaphore); // taken up again after a signal
    MORROW_LOG(logging::progress, "%s\n", "Got signal Stopping MORROW");
    stop_state = stopping;
    if (dbus_ready != 0)
    {
        auto& client = morrow_dbus_client::get_instance();
        auto& server = morrow_dbus_server::get_instance();
        MORROW_LOG(logging::progress, "%s\n", "Stopping Dbus");
        (void)client.stop_morrow_dbus_client(); // logs its own failures
        (void)server.stop_morrow_dbus_server();
    }
    stop_state = stopped;
    MORROW_LOG(logging::progress, "%s\n", "Stopped MORROW");
}

uint8_t morrow_signal::get_stop_state() const
{
    return stop_state;
}

void morrow_signal::wait_stop()
{
    MORROW_LOG(logging::progress, "Entry [%s]\n", __func__);
    while (stop_state != stopped)
    {
        sleepFor(std::chrono::milliseconds(100));
    }
    try
    {
        signal_thread.join();
    }
    catch (const std::system_error& error)
    {
        MORROW_LOG(logging::progress, "Failed to terminate thread [%s].\n",
                   error.what());
    }
}

void morrow_signal::set_dbus_ready()
{
    MORROW_LOG(logging::progress, "Entry [%s]\n", __func__);
    dbus_ready = 1;
}

void morrow_signal::post_stop()
{
    (void)sem_post(&stop_semaphore); // fails only at SEM_VALUE_MAX
}

uint32_t morrow_init_signal()
{
    auto& instance = morrow_signal::get_instance();
    MORROW_LOG(logging::progress, "Entry [%s]\n", __func__);
    return instance.register_signal();
}
