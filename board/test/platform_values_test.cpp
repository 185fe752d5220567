// SPDX-License-Identifier: Apache-2.0
#include "board/process/platform_values.hpp"
#include "board/util/error.hpp"

#include <platform/hal.h>

#include <cstdint>
#include <filesystem>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace
{

using namespace board;

/** What the platform's own library makes of the values. */
class Values : public testing::Test
{
  protected:
    void are(const std::string& action)
    {
        PlatformValues values(timeline);
        commands::run(platformActions(), values, action);
    }

    /** @return whether it could be read; then its value is `read` */
    bool reads(const char* key = "CPU_VENDOR")
    {
        std::uint32_t size = sizeof(read);
        return ReadIO_Str_C(key, &read, &size) == 0;
    }

    std::string recorded() const
    {
        return timeline.since().back().as<event::PlatformValue>()->what;
    }

    Timeline timeline;
    std::uint16_t read = 0;
};

TEST_F(Values, CanBeSet)
{
    are("cpu-vendor 0");
    ASSERT_TRUE(reads());
    EXPECT_EQ(read, 0);
    are("cpu-vendor 0xFFFE");
    ASSERT_TRUE(reads());
    EXPECT_EQ(read, 0xFFFE);
    EXPECT_EQ(recorded(), "\"0xFFFE\"");
    are("value OTHER 7");
    ASSERT_TRUE(reads("OTHER"));
    EXPECT_EQ(read, 7);
}

TEST_F(Values, CanBeMissingUnreadableOrMalformed)
{
    are("cpu-vendor unreadable");
    EXPECT_FALSE(reads());
    EXPECT_EQ(recorded(), "unreadable");
    are("cpu-vendor malformed");
    EXPECT_FALSE(reads());
    are("cpu-vendor missing");
    EXPECT_FALSE(reads());
    EXPECT_EQ(recorded(), "missing");
    EXPECT_FALSE(std::filesystem::exists("/run/platform/io/CPU_VENDOR"));
    are("cpu-vendor missing");
    are("cpu-vendor unreadable");
    are("cpu-vendor unreadable");
    are("cpu-vendor 1");
    EXPECT_TRUE(reads());
}

TEST_F(Values, HavePlainNames)
{
    EXPECT_THROW(are("value ../x 1"), Error);
    EXPECT_THROW(are("value .. missing"), Error);
}

} // namespace
