// SPDX-License-Identifier: Apache-2.0
// What takes most of a source's compilation, precompiled. Sources include what
// they use all the same.
#include <algorithm>
#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <variant>
#include <vector>
