// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

/** Failures of libsystemd that no real bus produces on request: the test
 *  program defines a few of its calls and forwards them, except the failing
 *  one.
 */
namespace test
{

/** The named call returns that negative errno, once, after it was forwarded
 *  `goodCallsBefore` times. Only once, because libsystemd makes some of these
 *  calls itself.
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
