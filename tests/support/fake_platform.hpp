// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * A fake of the platform contract: every call is recorded, and its answer is
 * set here. Sleeping is recorded and takes no time. The transport clears a
 * request record, so that each attempt needs a new one. Semaphores are real,
 * but creating and destroying them can fail.
 */

#include <semaphore.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace fake
{

/** What a read of the CPU vendor gives. */
struct VendorRead
{
    int32_t status;
    uint16_t vendor;
};

/** Results of the next reads of the CPU vendor; the last one repeats. */
extern std::deque<VendorRead> vendorReads;

/** Lock and shared-memory ids by device node; -1 for one that is not here. */
extern std::map<std::string, int> lockIds;
extern std::map<std::string, int> shmIds;

/** What one attempt to talk to an endpoint ends in. */
struct Attempt
{
    int result = 0; //!< 0 or a positive errno value
    std::vector<uint8_t> response{}; //!< the message
    uint8_t eid = 0; //!< endpoint id of the responder
    uint8_t stop = 0; //!< the stop flag
    bool throws = false; //!< raises std::runtime_error instead
    uint64_t beyond = 0; //!< what the length says too much
};

/** The correct answer to Discovery Notify. */
Attempt answer(uint8_t eid);

/** The attempt of an endpoint that does not answer. */
Attempt silence();

/** Results of the next attempts on a device node; the last one repeats. A node
 *  without an entry is silent. */
extern std::map<std::string, std::deque<Attempt>> endpoints;

/** The 64-bit words of the last request and, as the caller laid it out, of the
 *  last response record; the pointers in them are left out as 0. */
extern std::vector<uint64_t> lastRequestWords;
extern std::vector<uint64_t> lastResponseWords;

/** Called on the sleeping thread after each sleep was recorded, with its
 *  length in milliseconds. */
extern std::function<void(int64_t)> onSleep;

/** How many of the next sleeps are interrupted half-way, as by a signal. */
extern int interruptedSleeps;

/** Fails the next sleeps with something else than an interruption. */
extern int brokenSleeps;

/** What the debug log leaves in errno; 0 for leaving it alone. */
extern std::atomic<int> errnoOfLog;

/** What making a semaphore fails with: an errno value, 0 for not at all. */
extern std::atomic<int> semaphoreInitError;

/** The same for destroying one. */
extern std::atomic<int> semaphoreDestroyError;

/** How a semaphore was made and how often it has been destroyed since. */
struct Semaphore
{
    int shared;
    unsigned int value;
    int destroyed;
};

/** What became of a semaphore. Any thread. */
Semaphore semaphore(const sem_t* address);

/** What became of all of them. Any thread. */
std::vector<Semaphore> semaphores();

/** How often each that was not destroyed can be waited for at once. Any
 *  thread. */
std::vector<int> semaphoreValues();

/** The signals whose disposition was set, in order. */
std::vector<int> signalsSet();

/** Called on the thread that destroys a semaphore, before it does. */
extern std::function<void()> onSemaphoreDestroy;

/** Called on the thread that reads the CPU vendor, before the read. */
extern std::function<void()> onVendorRead;

} // namespace fake
