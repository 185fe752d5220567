// SPDX-License-Identifier: Apache-2.0
#include "program.hpp"

#include <filesystem>
#include <set>
#include <sstream>
#include <string>
#include <utility>

#include <gtest/gtest.h>

/*
 * What makes the platform's libraries replaceable: exact symbols and sonames,
 * and calls that all go through the loader.
 */

namespace platform::test
{
namespace
{

/** The symbols that a library defines for others. */
std::set<std::string> exportsOf(const char* library)
{
    const auto outcome =
        run({{fromEnvironment("NM"), "--dynamic", "--defined-only",
              "--format=posix", fromEnvironment(library)},
             {}});
    EXPECT_EQ(outcome.status, 0);
    std::set<std::string> names;
    std::istringstream lines(outcome.output);
    for (std::string line; std::getline(lines, line);)
    {
        names.insert(line.substr(0, line.find(' ')));
    }
    return names;
}

using Names = std::set<std::string>;

TEST(Exports, AreTheContract)
{
    const std::string string =
        "RKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE";
    const std::string constructor = string + "hmmb25_mctp_wrapper_network_id_";
    EXPECT_EQ(exportsOf("LIBRARY_LOG"), (Names{"dlog_printf", "dmctp_trace"}));
    EXPECT_EQ(exportsOf("LIBRARY_HAL"), Names{"ReadIO_Str_C"});
    EXPECT_EQ(exportsOf("LIBRARY_LOCK"),
              (Names{"_Z11acquireLock" + string, "_Z8getShmId" + string,
                     "_Z10removeLocki", "_Z9removeShmi",
                     "_Z17setLockPermission" + string,
                     "_Z16setShmPermission" + string}));
    EXPECT_EQ(exportsOf("LIBRARY_MCTP"),
              (Names{"_ZN15mctp_wrapper_epC1E" + constructor,
                     "_ZN15mctp_wrapper_epC2E" + constructor,
                     "_ZN15mctp_wrapper_epD1Ev", "_ZN15mctp_wrapper_epD2Ev",
                     "_ZN15mctp_wrapper_ep21send_message_blockingE"
                     "R31__mctp_wrapper_request_buffer_t"
                     "R28__mctp_wrapper_resp_buffer_t"}));
}

TEST(Sonames, HaveTheVersion)
{
    for (const auto& [library, soname] :
         {std::pair("LIBRARY_LOG", "libplatform-log.so.1"),
          std::pair("LIBRARY_HAL", "libplatform-hal.so.1"),
          std::pair("LIBRARY_LOCK", "libplatform-lock.so.1"),
          std::pair("LIBRARY_MCTP", "libplatform-mctp.so.1")})
    {
        const auto outcome = run({{fromEnvironment("READELF"), "--dynamic",
                                   fromEnvironment(library)},
                                  {}});
        EXPECT_NE(outcome.output.find("soname: [" + std::string(soname) + "]"),
                  std::string::npos)
            << outcome.output;
    }
}

TEST(Replacement, IsNotNeeded)
{
    const auto outcome = run({{fromEnvironment("CONTRACT_CALLER")}, {}});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.output, "3\n-1\n-1\n2\n");
}

/** What the caller prints when another library has taken every function. */
constexpr const char* replaced = "dlog_printf\n"
                                 "dmctp_trace\n"
                                 "ReadIO_Str_C\n1001\n"
                                 "acquireLock\n1002\n"
                                 "getShmId\n1003\n"
                                 "removeLock\n"
                                 "removeShm\n"
                                 "setLockPermission\n"
                                 "setShmPermission\n"
                                 "mctp_wrapper_ep\n"
                                 "send_message_blocking\n"
                                 "~mctp_wrapper_ep\n"
                                 "1004\n";

TEST(Replacement, ByPreloadTakesOverEachFunction)
{
    const auto outcome =
        run({{fromEnvironment("CONTRACT_CALLER")},
             {{"LD_PRELOAD", fromEnvironment("CONTRACT_PRELOAD")},
              // The sanitizer's runtime comes later then.
              {"ASAN_OPTIONS", "verify_asan_link_order=0"}}});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.output, replaced);
}

TEST(Replacement, ByLibraryPathTakesOverEachFunction)
{
    const std::filesystem::path directory = "/run/replacement";
    std::filesystem::create_directories(directory);
    for (const char* name : {"log", "hal", "lock", "mctp"})
    {
        std::filesystem::create_symlink(
            fromEnvironment("CONTRACT_PRELOAD"),
            directory / ("libplatform-" + std::string(name) + ".so.1"));
    }
    const auto outcome = run({{fromEnvironment("CONTRACT_CALLER")},
                              {{"LD_LIBRARY_PATH", directory.string()}}});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.output, replaced);
}

} // namespace
} // namespace platform::test
