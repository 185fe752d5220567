// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * SIGTERM into an orderly stop.
 *
 * The signal handler only posts a semaphore. The signal thread waits for it,
 * stops the bus client and the bus server when they were started, and
 * publishes a stop state that the state loop polls. When the loop has seen it,
 * the main thread runs the same stop routine once more and so waits for a
 * second SIGTERM before the process ends: stopping the daemon takes two.
 *
 * SIGSEGV and SIGBUS go back to their default action, so that the faulting
 * access repeats and ends the process.
 *
 * Three contexts meet here: the handler (any thread), the signal thread and
 * the main thread. What they share is the semaphore and two atomic bytes.
 */

#include <semaphore.h>

#include <atomic>
#include <cstdint>
#include <thread>

/** The process's one stop coordinator. */
class morrow_signal
{
  public:
    /** The singleton, made on the first call. Any thread, and the handler. */
    static morrow_signal& get_instance();

    morrow_signal(const morrow_signal&) = delete;
    morrow_signal& operator=(const morrow_signal&) = delete;
    morrow_signal(morrow_signal&&) = delete;
    morrow_signal& operator=(morrow_signal&&) = delete;

    /** Makes the semaphore and the signal thread, unless they are there, and
     *  installs the handlers. Main thread.
     *  @return 0, or 2 when the semaphore or the thread could not be made. */
    uint32_t register_signal();

    /** The stop routine: waits for one SIGTERM, stops the bus sides. Runs on
     *  the signal thread, and once more on the main thread. */
    void signal_thread_fn();

    /** 0 running, 1 stopping, 2 stopped. Any thread. */
    [[nodiscard]] uint8_t get_stop_state() const;

    /** Waits for stop state 2 and joins the signal thread. Main thread. */
    void wait_stop();

    /** Tells the stop routine that there are bus sides to stop. */
    void set_dbus_ready();

    /** Posts the semaphore. Async-signal-safe. */
    void post_stop();

  private:
    morrow_signal();
    ~morrow_signal();

    bool init_semaphore();
    bool start_signal_thread();

    std::thread signal_thread;
    std::atomic<uint8_t> stop_state;
    std::atomic<uint8_t> dbus_ready;
    sem_t stop_semaphore{};
    uint8_t sem_initialised;
};

/** Sets signal handling up. Main thread.
 *  @return what `register_signal` returns. */
uint32_t morrow_init_signal();
