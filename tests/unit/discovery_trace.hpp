// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * What the tests of discovery share: names, and the parts of its traces.
 */

#include "morrow/morrow.hpp"
#include "morrow/morrow_server.hpp"
#include "tests/support/driver_files.hpp"
#include "tests/support/fake_platform.hpp"
#include "tests/support/record.hpp"
#include "tests/unit/bus_trace.hpp"

#include <cstddef>
#include <string>

#include <gtest/gtest.h>

namespace discovery
{

using namespace bus_trace;

inline const std::string node0 = "/dev/i3c-mctp-0";
inline const std::string node1 = "/dev/i3c-mctp-1";
inline const std::string entry0 = "/sys/class/i3c-mctp/i3c-mctp-0";
inline const std::string entry1 = "/sys/class/i3c-mctp/i3c-mctp-1";
inline const std::string controller0 = "fff10000.i3c";
inline const std::string controller1 = "fff11000.i3c";

/** How many events of the main thread are skipped. */
inline std::size_t skipped = 0;

/** The events of the main thread after those. */
inline Texts trace()
{
    const auto all = record::textsOf(record::thisThread());
    return {all.begin() + static_cast<std::ptrdiff_t>(skipped), all.end()};
}

/** Creates the server's singleton and skips its log line. */
inline void makeServer()
{
    (void)morrow_dbus_server::get_instance();
    skipped += trace().size();
}

/** Expects the main thread's events to be these and no others. */
inline void expectTrace(const Texts& expected)
{
    EXPECT_EQ(trace(), expected);
}

/** The opening of an exchange with the endpoint behind a node. */
inline Texts exchangeOpens(const std::string& node)
{
    return {
        "log 4 morrow: Entry [morrow_i3c_device_do_notify]\n",
        "log 4 morrow: Device node path: [" + node + "]\n",
        "log 4 morrow: ep: [00]\n",
        "mctp_wrapper_ep " + node + " eid 0, 0, 0, false, network 0",
    };
}

/** An attempt of it that fails. */
inline Texts attemptFails(const std::string& node)
{
    return {"send 00 81 0d",
            "log 4 morrow: Failed req_disc_notify to i3c device [" + node +
                "]\n"};
}

/** The exchange with an endpoint that answers correctly.
 *  @param published  the events of its publication */
inline Texts goodExchange(const std::string& node,
                          const Texts& published = publishesWithoutBus)
{
    return exchangeOpens(node) +
           Texts{"send 00 81 0d",
                 "log 4 morrow: resp_buffer.len = [4]\n",
                 "log 4 morrow: [00]\n",
                 "log 4 morrow: [01]\n",
                 "log 4 morrow: [0d]\n",
                 "log 4 morrow: [00]\n",
                 "log 4 morrow: MCTP_CTRL_CMD_DISCOVERY_NOTIFY response "
                 "received [" +
                     node + "]\n"} +
           published + Texts{"~mctp_wrapper_ep " + node};
}

/** A scan that finds a node, and the exchange with its endpoint. */
inline Texts scans(const std::string& node,
                   const Texts& published = publishesWithoutBus)
{
    return Texts{"setLockPermission " + node, "setShmPermission " + node,
                 "log 4 morrow: Found i3c device: " + node + "\n"} +
           goodExchange(node, published);
}

/** The end of a tear-down of both controllers, with locks 10 and 11 and shared
 *  memory 20 and 21. */
inline const Texts removesBoth{"sleep 100 ms",
                               "removeLock 10",
                               "removeLock 11",
                               "remove /dev/i3c-mctp-0",
                               "remove /dev/i3c-mctp-1",
                               "removeShm 20",
                               "removeShm 21",
                               "write unbind fff10000.i3c",
                               "write unbind fff11000.i3c"};

/** A full discovery after the tear-down, in which both endpoints answer. */
inline Texts discoversBoth(const Texts& published0 = publishesWithoutBus,
                           const Texts& published1 = publishesWithoutBus)
{
    return Texts{"sleep 2000 ms", "write bind fff10000.i3c", "sleep 100 ms"} +
           scans(node0, published0) +
           Texts{"write bind fff11000.i3c", "sleep 100 ms"} +
           scans(node1, published1) +
           Texts{"log 4 morrow: Discovered i3c device: fff10000.i3c\n",
                 "log 4 morrow: Discovered i3c device: fff11000.i3c\n",
                 "log 4 morrow: Notified i3c devices: /dev/i3c-mctp-0\n",
                 "log 4 morrow: Notified i3c devices: /dev/i3c-mctp-1\n",
                 "log 4 morrow: Number of elements in i3c_device_map: 2\n",
                 "log 4 morrow: Number of elements in i3c_device_notify_map: "
                 "2\n",
                 "log 4 morrow: Discovery complete\n"};
}

/** Tests that touch the driver's files and device nodes. */
class WithFiles : public testing::Test
{
  protected:
    /** Runs a cycle and takes in what it did last. */
    template <typename Cycle>
    void run(const Cycle& cycle)
    {
        EXPECT_EQ(cycle(), 0);
        driver.collect();
    }

    /** Both devices come up and both endpoints answer. */
    void bothAnswer()
    {
        driver.comesUp(controller0);
        driver.comesUp(controller1);
        fake::endpoints[node0] = {fake::answer(0x1D)};
        fake::endpoints[node1] = {fake::answer(0x9D)};
    }

    /** Expects the main thread's last events to be these. */
    static void expectTraceEndsWith(const Texts& expected)
    {
        const auto texts = trace();
        ASSERT_GE(texts.size(), expected.size());
        EXPECT_EQ(
            Texts(texts.end() - static_cast<std::ptrdiff_t>(expected.size()),
                  texts.end()),
            expected);
    }

    static void expectWait(int32_t ticks, uint32_t next)
    {
        EXPECT_EQ(daemon_state, MORROW_WAIT_EVENT);
        EXPECT_EQ(wait_ticks, ticks);
        EXPECT_EQ(state_after_wait, next);
    }

    DriverFiles driver;
};

} // namespace discovery
