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

[[noreturn]] void fail(const fs::path& path, const std::error_code& error)
{
    throw Error::fromErrno("cannot change " + path.string(), error.value());
}

void removeFile(const fs::path& path)
{
    std::error_code error;
    fs::remove(path, error);
    if (error)
    {
        fail(path, error);
    }
}

/** Only a directory gives way to nothing but its removal. */
void replace(const fs::path& path, const fs::path& by)
{
    if (fs::is_directory(path))
    {
        removeFile(path);
    }
    std::error_code error;
    fs::rename(by, path, error);
    if (error)
    {
        fail(path, error);
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
    replace(path, written);
}

PlatformValues::PlatformValues(Timeline& timeline) : timeline(timeline)
{
}

void PlatformValues::set(const std::string& key, const std::string& value)
{
    timeline.record(event::PlatformValue{key, '"' + value + '"'});
    writePlatformValue(key, value);
}

void PlatformValues::remove(const std::string& key)
{
    const auto path = pathOf(key);
    timeline.record(event::PlatformValue{key, "missing"});
    removeFile(path);
}

void PlatformValues::makeUnreadable(const std::string& key)
{
    const auto path = pathOf(key);
    timeline.record(event::PlatformValue{key, "unreadable"});
    removeFile(path);
    // Root may read every file, but nobody reads a directory.
    std::error_code error;
    fs::create_directory(path, error);
    if (error)
    {
        fail(path, error);
    }
}

namespace
{

PlatformAction actionFor(const std::string& key, Arguments& arguments)
{
    const auto value = arguments.text();
    return [key, value](PlatformValues& values)
    {
        if (value == "missing")
        {
            values.remove(key);
        }
        else if (value == "unreadable")
        {
            values.makeUnreadable(key);
        }
        else
        {
            values.set(key, value);
        }
    };
}

} // namespace

const Vocabulary<PlatformAction>& platformActions()
{
    static const Vocabulary<PlatformAction> known(
        "platform action", {{{"cpu-vendor", "missing|unreadable|VALUE",
                              "the CPU's vendor: 0 is Intel, others are "
                              "others, text is malformed"},
                             [](Arguments& arguments)
                             {
                                 return actionFor(cpuVendor, arguments);
                             }},
                            {{"value", "KEY missing|unreadable|VALUE",
                              "any value that the hardware library reads"},
                             [](Arguments& arguments)
                             {
                                 const auto key = arguments.text();
                                 return actionFor(key, arguments);
                             }}});
    return known;
}

} // namespace board
