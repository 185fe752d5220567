// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * Records for the systemd journal, in its native protocol
 * (systemd.io/JOURNAL_NATIVE_PROTOCOL).
 */

#include <sys/types.h>
#include <sys/uio.h>

#include <atomic>
#include <optional>
#include <span>

namespace platform::log
{

/** Never waits: a record that the journal does not take at once is lost, and
 *  their number is reported when it takes records again. A journal that hangs
 *  would otherwise hold up the threads that log, and with them a stop.
 *
 *  send() is async-signal-safe, for any thread. */
class Journal
{
  public:
    /** Reads JOURNAL_STREAM, which getenv does not let a signal handler do,
     *  and opens the socket if it is set. The socket stays open as long as the
     *  process lives: what is destroyed at its end logs as well. */
    Journal();

    /** Whether standard error is the journal's stream; it may be redirected at
     *  any time. Async-signal-safe, for any thread. */
    [[nodiscard]] bool isStandardError() const;

    /** @param fields "NAME=value", each with its line end; at most 8 */
    void send(std::span<const iovec> fields);

  private:
    /** The stream, as the service manager names it. */
    struct Stream
    {
        dev_t device;
        ino_t inode;
    };

    static std::optional<Stream> readStream();
    [[nodiscard]] bool trySend(std::span<const iovec> fields) const;
    [[nodiscard]] bool reportLost(unsigned int records) const;

    std::optional<Stream> stream;
    int socket;
    std::atomic<unsigned int> lost{0};
};

} // namespace platform::log
