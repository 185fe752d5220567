// SPDX-License-Identifier: Apache-2.0
// What takes most of a test's compilation, precompiled. Sources include what
// they use all the same.
#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <variant>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
