// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

/** A real broker of the test's own, started and stopped with the object.
 *
 *  While it lives, the system bus of this process is that broker. It lets
 *  everybody do everything and starts no services. It also goes when the test
 *  program dies, and leaves no file behind: its socket has none.
 */
namespace test
{

class PrivateBus
{
  public:
    /** Returns when the broker takes connections.
     *  @throws std::runtime_error saying what it was that did not work
     */
    PrivateBus();
    ~PrivateBus();

    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;
    PrivateBus(PrivateBus&&) = delete;
    PrivateBus& operator=(PrivateBus&&) = delete;

    /** Ends the broker as a crash would. */
    void dies();

  private:
    pid_t _broker = -1;
};

} // namespace test
