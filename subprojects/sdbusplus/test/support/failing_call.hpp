// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

/** Failures of libsystemd that no real bus can be brought to on request.
 *
 *  The test program puts itself between the library and libsystemd for a few
 *  calls and hands them on, except for one that it is told to let fail.
 */
namespace test
{

/** The named call answers once with that negative errno, after having been
 *  handed on that many times; never after this object's end.
 *
 *  Once, because libsystemd makes some of these calls itself.
 */
class FailingCall
{
  public:
    FailingCall(std::string name, int result, int goodCallsBefore = 0);
    ~FailingCall();

    FailingCall(const FailingCall&) = delete;
    FailingCall& operator=(const FailingCall&) = delete;
    FailingCall(FailingCall&&) = delete;
    FailingCall& operator=(FailingCall&&) = delete;
};

} // namespace test
