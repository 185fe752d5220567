// SPDX-License-Identifier: Apache-2.0
// What takes most of the compilation of the daemon's sources, precompiled where
// they are tested. The daemon itself is built without it.
#include <sdbusplus/server.hpp>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>
#include <xyz/openbmc_project/mctp/Endpoint/server.hpp>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
