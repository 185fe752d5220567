// SPDX-License-Identifier: Apache-2.0
#include "board/process/platform_values.hpp"

#include "board/util/error.hpp"
#include "board/util/plain_text.hpp"

#include <filesystem>
#include <fstream>
#include <system_error>

namespace board
{
namespace
{

namespace fs = std::filesystem;

const fs::path directory("/run/platform/io");
constexpr auto cpuVendor = "CPU_VENDOR";

fs::path pathOf(const std::string& key)
{
    if (key.empty() || key == "." || key == ".." ||
        key.find('/') != std::string::npos)
    {
        throw Error("cannot set the platform value " + inQuotes(key) +
                    ": a key is a plain file name, e.g. " + cpuVendor);
    }
    return directory / key;
}

void failOn(const std::error_code& error, const fs::path& path)
{
    if (error)
    {
        throw Error::fromErrno("cannot change " + path.string(), error.value());
    }
}

} // namespace

void writePlatformValue(const std::string& key, const std::string& value)
{
    const auto path = pathOf(key);
    const auto written = fs::path(directory) / ("." + key + ".new");
    std::ofstream file(written);
    file << value << '\n';
    file.close();
    if (!file)
    {
        throw Error("cannot write " + written.string());
    }
    std::error_code error;
    if (fs::is_directory(path))
    {
        // It gives way to nothing but its removal.
        fs::remove(path, error);
    }
    if (!error)
    {
        fs::rename(written, path, error);
    }
    failOn(error, path);
}

PlatformValues::PlatformValues(Timeline& timeline) : timeline(timeline)
{
}

void PlatformValues::set(const std::string& key, const std::string& value)
{
    const auto path = pathOf(key);
    const auto isUnreadable = value == "unreadable";
    if (!isUnreadable && value != "missing")
    {
        timeline.record(event::PlatformValue{key, '"' + value + '"'});
        writePlatformValue(key, value);
        return;
    }
    timeline.record(event::PlatformValue{key, value});
    std::error_code error;
    fs::remove(path, error);
    if (!error && isUnreadable)
    {
        // Root may read every file, but nobody reads a directory.
        fs::create_directory(path, error);
    }
    failOn(error, path);
}

const std::vector<PlatformAction>& platformActions()
{
    using commands::Values;
    using commands::target::simulated;
    static const std::vector<PlatformAction> table{
        {"cpu-vendor missing|unreadable|VALUE",
         "The CPU's vendor: 0 is Intel, others are others, text is malformed.",
         [](PlatformValues& platform, const Values& values)
         {
             platform.set(cpuVendor, values[0]);
         },
         simulated},
        {"value KEY missing|unreadable|VALUE",
         "Any value that the hardware library reads.",
         [](PlatformValues& platform, const Values& values)
         {
             platform.set(values[0], values[1]);
         },
         simulated},
    };
    return table;
}

} // namespace board
