// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * What the tests of discovery share: the names of the two controllers with
 * what the kernel makes for them, and the pieces that its stories are made of.
 */

#include "morrow/morrow.hpp"
#include "morrow/morrow_server.hpp"
#include "tests/support/driver_files.hpp"
#include "tests/support/fake_platform.hpp"
#include "tests/support/record.hpp"
#include "tests/support/story.hpp"

#include <cstddef>
#include <string>

#include <gtest/gtest.h>

namespace discovery
{

using namespace telling;

inline const std::string node0 = "/dev/i3c-mctp-0";
inline const std::string node1 = "/dev/i3c-mctp-1";
inline const std::string entry0 = "/sys/class/i3c-mctp/i3c-mctp-0";
inline const std::string entry1 = "/sys/class/i3c-mctp/i3c-mctp-1";
inline const std::string controller0 = "fff10000.i3c";
inline const std::string controller1 = "fff11000.i3c";

/** How many events a test has put behind it. */
inline std::size_t behind = 0;

/** The main thread's events since. */
inline Texts story()
{
    const auto all = record::textsOf(record::thisThread());
    return {all.begin() + static_cast<std::ptrdiff_t>(behind), all.end()};
}

/** Makes the server's singleton, so that its line is out of the way. */
inline void makeServer()
{
    (void)morrow_dbus_server::get_instance();
    behind += story().size();
}

/** Expects the main thread's events to be these and no others. */
inline void expectStory(const Texts& expected)
{
    EXPECT_EQ(story(), expected);
}

/** What one publish logs while there is no bus. */
inline const Texts publishWithoutBus{
    "log 4 morrow_server: createEndpointObject - Enter\n",
    "log 1 morrow_server: createEndpointObject - Error: Bus pointer not "
    "present\n",
    "trace 1 morrow_server: createEndpointObject - Error: Bus pointer not "
    "present\n",
    "log 4 morrow_server: createEndpointObject - Exit\n",
};

/** What a withdrawal logs while nothing is published. */
inline const Texts withdrawNothing{
    "log 4 morrow_server: deleteAllEndpointObject - Enter\n",
    "log 4 morrow_server: deleteAllEndpointObject - Exit\n",
};

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

/** A whole exchange with an endpoint that answers as it should. */
inline Texts goodExchange(const std::string& node)
{
    return exchangeOpens(node) +
           Texts{
               "send 00 81 0d",
               "log 4 morrow: resp_buffer.len = [4]\n",
               "log 4 morrow: [00]\n",
               "log 4 morrow: [01]\n",
               "log 4 morrow: [0d]\n",
               "log 4 morrow: [00]\n",
               "log 4 morrow: MCTP_CTRL_CMD_DISCOVERY_NOTIFY response "
               "received [" +
                   node + "]\n",
           } +
           publishWithoutBus + Texts{"~mctp_wrapper_ep " + node};
}

/** Tests that touch the driver's files and device nodes. */
class WithFiles : public testing::Test
{
  protected:
    DriverFiles driver;
};

} // namespace discovery
