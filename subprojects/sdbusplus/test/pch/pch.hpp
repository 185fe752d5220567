// SPDX-License-Identifier: Apache-2.0
#include <sdbusplus/server.hpp>

#include <gtest/gtest.h>
