// SPDX-License-Identifier: Apache-2.0
#include <sdbusplus/exception.hpp>

#include <cerrno>
#include <string>
#include <type_traits>
#include <utility>

#include <gtest/gtest.h>

namespace
{

using sdbusplus::exception::SdBusError;

static_assert(!std::is_copy_constructible_v<SdBusError>);
static_assert(std::is_base_of_v<sdbusplus::internal_exception_t, SdBusError>);
static_assert(
    std::is_base_of_v<sdbusplus::exception_t, sdbusplus::internal_exception_t>);

TEST(SdBusError, NamesTheCallTheErrorAndItsText)
{
    const SdBusError error(EINVAL, "sd_bus_request_name");
    EXPECT_STREQ(error.what(),
                 "sd_bus_request_name: "
                 "org.freedesktop.DBus.Error.InvalidArgs: Invalid argument");
    EXPECT_STREQ(error.name(), "org.freedesktop.DBus.Error.InvalidArgs");
    EXPECT_STREQ(error.description(), "Invalid argument");
    EXPECT_EQ(error.get_errno(), EINVAL);
    EXPECT_STREQ(error.get_error()->name, error.name());
}

TEST(SdBusError, NamesAnErrnoWithoutDBusNameByItsSymbol)
{
    EXPECT_STREQ(SdBusError(ENXIO, "x").what(),
                 "x: System.Error.ENXIO: No such device or address");
}

TEST(SdBusError, TakesANegativeErrnoAsItsPositive)
{
    EXPECT_EQ(SdBusError(-ENOENT, "x").get_errno(), ENOENT);
}

TEST(SdBusError, CannotBeMadeOfErrnoZero)
{
    try
    {
        const SdBusError error(0, "x");
        FAIL() << "was made: " << error.what();
    }
    catch (const std::runtime_error& e)
    {
        EXPECT_STREQ(e.what(), "Failed to create SdBusError");
    }
}

TEST(SdBusError, TakesTheContentOfAnSdBusErrorOver)
{
    sd_bus_error raw{};
    sd_bus_error_set(&raw, "net.example.Error.Odd", "too odd");
    const SdBusError error(&raw, "sd_bus_call");
    EXPECT_EQ(raw.name, nullptr);
    EXPECT_EQ(raw.message, nullptr);
    EXPECT_STREQ(error.what(), "sd_bus_call: net.example.Error.Odd: too odd");
    EXPECT_EQ(error.get_errno(), EIO);
}

TEST(SdBusError, LeavesOutTheTextThatAnErrorDoesNotHave)
{
    sd_bus_error raw{};
    sd_bus_error_set(&raw, "net.example.Error.Odd", nullptr);
    EXPECT_STREQ(SdBusError(&raw, "sd_bus_call").what(),
                 "sd_bus_call: net.example.Error.Odd");
}

TEST(SdBusError, IsEmptyAfterItWasMovedFrom)
{
    SdBusError error(ENOENT, "x");
    const SdBusError moved(std::move(error));
    EXPECT_STREQ(error.what(), ""); // NOLINT(bugprone-use-after-move)
    EXPECT_EQ(error.name(), nullptr);
    EXPECT_EQ(moved.get_errno(), ENOENT);
}

TEST(SdBusError, ReplacesItsContentWhenAssigned)
{
    SdBusError error(EPERM, "x");
    error = SdBusError(ENOENT, "y");
    EXPECT_STREQ(error.what(), "y: org.freedesktop.DBus.Error.FileNotFound: "
                               "No such file or directory");
}

} // namespace
