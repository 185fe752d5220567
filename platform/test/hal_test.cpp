// SPDX-License-Identifier: Apache-2.0
#include "files.hpp"
#include "hal/status.hpp"

#include <platform/hal.h>

#include <sys/stat.h>

#include <array>
#include <cstdint>
#include <filesystem>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace platform::hal
{
namespace
{

using test::writeFile;

const std::string directory = "/run/platform/io/";

class Hal : public testing::Test
{
  protected:
    void SetUp() override
    {
        std::filesystem::remove_all(directory);
        std::filesystem::create_directories(directory);
    }

    static constexpr std::uint8_t untouched = 0xA5;

    /** Reads into the first `size` bytes of a buffer full of `untouched`. */
    Status read(const std::string& key, std::uint32_t size = 2)
    {
        buffer.fill(untouched);
        return static_cast<Status>(
            ReadIO_Str_C(key.c_str(), buffer.data(), &size));
    }

    Status readText(std::string_view text, std::uint32_t size = 2)
    {
        writeFile(directory + "VALUE", text);
        return read("VALUE", size);
    }

    void expectFailure(Status expected, Status status)
    {
        EXPECT_EQ(status, expected);
        EXPECT_THAT(buffer, testing::Each(untouched));
    }

    std::array<std::uint8_t, 12> buffer{};
};

TEST_F(Hal, StoresADecimalOrHexadecimalNumberLittleEndian)
{
    EXPECT_EQ(readText(" \t0xFFfe \r\n"), Status::ok);
    EXPECT_EQ(buffer[0], 0xFE);
    EXPECT_EQ(buffer[1], 0xFF);
    EXPECT_EQ(readText("4660\n"), Status::ok);
    EXPECT_EQ(buffer[0], 0x34);
    EXPECT_EQ(buffer[1], 0x12);
    EXPECT_EQ(buffer[2], untouched);
}

TEST_F(Hal, FillsABufferWiderThanTheValueWithZeros)
{
    EXPECT_EQ(readText("0xffffffffffffffff", 10), Status::ok);
    EXPECT_EQ(buffer[7], 0xFF);
    EXPECT_EQ(buffer[8], 0);
    EXPECT_EQ(buffer[9], 0);
    EXPECT_EQ(buffer[10], untouched);
}

TEST_F(Hal, ReportsAMissingValue)
{
    expectFailure(Status::missing, read("CPU_VENDOR"));
    std::filesystem::remove_all(directory);
    expectFailure(Status::missing, read("CPU_VENDOR"));
}

TEST_F(Hal, ReportsAnUnreadableValue)
{
    std::filesystem::create_directories(directory + "VALUE");
    expectFailure(Status::unreadable, read("VALUE"));
    std::filesystem::create_symlink("LOOP", directory + "LOOP");
    expectFailure(Status::unreadable, read("LOOP"));
}

TEST_F(Hal, DoesNotBlockOnAPipe)
{
    const auto pipe = directory + "PIPE";
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    expectFailure(Status::malformed, read("PIPE"));
}

TEST_F(Hal, ReportsTextThatIsNoNumber)
{
    for (const auto* const text :
         {"", "\n", "intel", "0x", "0xg", "12z", "-1", "+1", "1 2", "0x-1"})
    {
        SCOPED_TRACE(text);
        expectFailure(Status::malformed, readText(text));
    }
    expectFailure(Status::malformed, readText(std::string(4096, '1')));
}

TEST_F(Hal, ReportsAValueTooLargeForTheBuffer)
{
    EXPECT_EQ(readText("65535"), Status::ok);
    expectFailure(Status::tooLarge, readText("65536"));
    expectFailure(Status::tooLarge, readText("0x100", 1));
    expectFailure(Status::tooLarge, readText("18446744073709551616", 12));
}

TEST_F(Hal, RejectsKeysThatLeaveTheDirectory)
{
    writeFile("/run/platform/secret", "1");
    writeFile(directory + "inner/VALUE", "1");
    for (const auto* const key : {"../secret", "/run/platform/secret", "..",
                                  ".", "", "inner/VALUE", "inner/"})
    {
        SCOPED_TRACE(key);
        expectFailure(Status::badKey, read(key));
    }
}

TEST_F(Hal, RejectsMissingArgumentsAndEmptyBuffers)
{
    writeFile(directory + "VALUE", "1");
    std::uint32_t size = 2;
    constexpr auto badArgument = static_cast<int32_t>(Status::badArgument);
    EXPECT_EQ(ReadIO_Str_C(nullptr, buffer.data(), &size), badArgument);
    EXPECT_EQ(ReadIO_Str_C("VALUE", nullptr, &size), badArgument);
    EXPECT_EQ(ReadIO_Str_C("VALUE", buffer.data(), nullptr), badArgument);
    expectFailure(Status::badArgument, read("VALUE", 0));
}

} // namespace
} // namespace platform::hal
