// SPDX-License-Identifier: Apache-2.0
#include "files.hpp"
#include "program.hpp"
#include "util/file_descriptor.hpp"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace platform::test
{
namespace
{

using Environment = std::vector<std::pair<std::string, std::string>>;
using Fields = std::map<std::string, std::string>;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Key;
using testing::Not;
using testing::Pair;

constexpr std::string_view journalPath = "/run/systemd/journal/socket";

/** All datagrams that wait on a socket, one string each. */
std::vector<std::string> drain(int descriptor)
{
    std::vector<std::string> datagrams;
    std::array<char, 65536> buffer{};
    ssize_t got = 0;
    while ((got = ::recv(descriptor, buffer.data(), buffer.size(),
                         MSG_DONTWAIT)) > 0)
    {
        datagrams.emplace_back(buffer.data(), static_cast<std::size_t>(got));
    }
    return datagrams;
}

/** The fields of one datagram of the journal's native protocol: NAME=value
 *  lines, or for values with line ends NAME, the 64-bit length and the value.
 */
Fields parseJournalEntry(std::string_view entry)
{
    Fields fields;
    while (!entry.empty())
    {
        const auto line = entry.substr(0, entry.find('\n'));
        entry.remove_prefix(line.size() + 1);
        if (const auto equals = line.find('='); equals != line.npos)
        {
            fields.emplace(line.substr(0, equals), line.substr(equals + 1));
            continue;
        }
        std::uint64_t size = 0;
        std::memcpy(&size, entry.data(), sizeof(size));
        fields.emplace(line, entry.substr(sizeof(size), size));
        entry.remove_prefix(sizeof(size) + size + 1);
    }
    return fields;
}

/** Runs the log speaker with a standard error that keeps each write(2) apart.
 */
class Log : public testing::Test
{
  protected:
    void SetUp() override
    {
        std::array<int, 2> ends{};
        ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0,
                               ends.data()),
                  0);
        reader = FileDescriptor(ends[0]);
        writer = FileDescriptor(ends[1]);
    }

    /** @return the writes to standard error */
    std::vector<std::string> say(std::vector<std::string> words,
                                 Environment environment = {})
    {
        words.insert(words.begin(), fromEnvironment("LOG_SPEAKER"));
        const auto outcome =
            run({std::move(words), std::move(environment), writer.get()});
        EXPECT_EQ(outcome.status, 0);
        return drain(reader.get());
    }

    FileDescriptor reader{-1};
    FileDescriptor writer{-1};
};

/** A Log whose standard error is the stream to a journal. */
class Journal : public Log
{
  protected:
    void SetUp() override
    {
        Log::SetUp();
        std::filesystem::remove_all("/run/systemd");
        std::filesystem::create_directories("/run/systemd/journal");
        journal =
            FileDescriptor(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
        std::ranges::copy(journalPath, address.sun_path);
        ASSERT_EQ(::bind(journal.get(),
                         reinterpret_cast<const sockaddr*>(&address),
                         sizeof(address)),
                  0);
    }

    /** The name of the stream, or with other numbers added. */
    [[nodiscard]] std::string stream(int otherDevice = 0,
                                     int otherInode = 0) const
    {
        struct stat status = {};
        EXPECT_EQ(::fstat(writer.get(), &status), 0);
        return std::to_string(status.st_dev + otherDevice) + ":" +
               std::to_string(status.st_ino + otherInode);
    }

    /** @return the journal's entries */
    std::vector<Fields> entriesOf(std::vector<std::string> words)
    {
        EXPECT_THAT(say(std::move(words),
                        {{"JOURNAL_STREAM", stream()}, {"DLOG_LEVEL", "99"}}),
                    IsEmpty());
        std::vector<Fields> entries;
        for (const auto& datagram : drain(journal.get()))
        {
            entries.push_back(parseJournalEntry(datagram));
        }
        return entries;
    }

    FileDescriptor journal{-1};
};

TEST_F(Log, WritesEachRecordAsOneLineAtOnce)
{
    EXPECT_THAT(say({"entry"}, {{"DLOG_LEVEL", "4"}}),
                ElementsAre("dlog 4 324 morrow:57:Entry [main]\n",
                            "trace 4 morrow:58:Common Morrow [main]\n"));
}

TEST_F(Log, MakesOneLineOfAnyText)
{
    EXPECT_THAT(say({"dlog", "1", "one\ntwo\n\n", "trace", "1", "x\n\n", "dlog",
                     "1", "\n"}),
                ElementsAre("dlog 1 324 morrow:57:one two\n",
                            "trace 1 morrow:58:x\n",
                            "dlog 1 324 morrow:57:\n"));
}

TEST_F(Log, ShowsNoControlCharacter)
{
    EXPECT_THAT(say({"dlog", "1", "a\rb\tc\x1B[2Jd\x7F", "trace", "1",
                     "\xC2\x9B"
                     "e\xC3\xA4\n\x01"}),
                ElementsAre("dlog 1 324 morrow:57:a?b c?[2Jd?\n",
                            "trace 1 morrow:58:\xC2?e\xC3\xA4 ?\n"));
}

TEST_F(Log, CutsALongTextAndNeverSplitsIt)
{
    std::string expected = "dlog 1 324 morrow:57:";
    expected.resize(1023, 'x');
    EXPECT_THAT(say({"dlog", "1", std::string(5000, 'x')}),
                ElementsAre(expected + "\n"));
    const std::string text(1023 - std::strlen("trace 1 morrow:58:"), 'x');
    EXPECT_THAT(say({"trace", "1", text}),
                ElementsAre("trace 1 morrow:58:" + text + "\n"));
}

TEST_F(Log, WritesToNoFileInPlaceOfAClosedStandardError)
{
    constexpr auto file = "/run/opened";
    const auto outcome = run({{"/bin/sh", "-c", "exec \"$@\" 2>&-", "sh",
                               fromEnvironment("LOG_SPEAKER"), "open", file,
                               "dlog", "1", "text", "trace", "1", "text"},
                              {},
                              writer.get()});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(std::filesystem::file_size(file), 0U);
}

TEST_F(Log, WritesAFormatWithoutPlaceAsItIs)
{
    EXPECT_THAT(say({"without-place"}),
                ElementsAre("dlog 1 324 no place, 7\n"));
}

TEST_F(Log, ShowsLevelsUpToTwoByDefault)
{
    ::unsetenv("DLOG_LEVEL");
    EXPECT_THAT(say({"dlog", "1", "a", "dlog", "2", "b", "dlog", "3", "c",
                     "trace", "2", "d", "trace", "3", "e"}),
                ElementsAre("dlog 1 324 morrow:57:a\n",
                            "dlog 2 324 morrow:57:b\n",
                            "trace 2 morrow:58:d\n"));
}

TEST_F(Log, ShowsLevelsUpToTheOneInTheEnvironment)
{
    const std::vector<std::string> words{"dlog", "4",  "a", "dlog",  "11", "b",
                                         "dlog", "12", "c", "trace", "12", "d"};
    EXPECT_THAT(
        say(words, {{"DLOG_LEVEL", "11"}}),
        ElementsAre("dlog 4 324 morrow:57:a\n", "dlog 11 324 morrow:57:b\n"));
    EXPECT_THAT(say(words, {{"DLOG_LEVEL", "0"}}), IsEmpty());
}

TEST_F(Log, KeepsTheDefaultWhenTheLevelIsNoNumber)
{
    for (const auto* const level : {"", "all", "4x", "x4", " 4", "0x4", "4.5"})
    {
        SCOPED_TRACE(level);
        EXPECT_THAT(
            say({"dlog", "2", "a", "dlog", "3", "b"}, {{"DLOG_LEVEL", level}}),
            ElementsAre("dlog 2 324 morrow:57:a\n"));
    }
}

TEST_F(Log, ReadsTheLevelOnce)
{
    EXPECT_THAT(say({"change-level", "11", "dlog", "4", "a", "change-level",
                     "0", "dlog", "2", "b"},
                    {{"DLOG_LEVEL", "2"}}),
                ElementsAre("dlog 2 324 morrow:57:b\n"));
}

TEST_F(Log, DoesNotLookAtAHiddenRecord)
{
    EXPECT_THAT(say({"unprintable"}, {{"DLOG_LEVEL", "10"}}), IsEmpty());
}

TEST_F(Log, TakesNothingFromTheHeapForAHiddenRecord)
{
    EXPECT_THAT(say({"hidden"}, {{"DLOG_LEVEL", "10"}}), IsEmpty());
}

TEST_F(Log, LeavesErrno)
{
    EXPECT_THAT(say({"with-errno"}), ElementsAre("dlog 1 324 morrow:1:kept\n",
                                                 "trace 1 morrow:2:kept\n"));
    writer = FileDescriptor(::open("/dev/full", O_WRONLY | O_CLOEXEC));
    EXPECT_THAT(say({"with-errno"}), IsEmpty());
}

TEST_F(Log, WorksInASignalHandler)
{
    writer = FileDescriptor(::open("/dev/null", O_WRONLY | O_CLOEXEC));
    EXPECT_THAT(say({"from-handler"}), IsEmpty());
}

TEST_F(Journal, GetsARecordWithItsFields)
{
    const auto entries = entriesOf({"entry"});
    ASSERT_EQ(entries.size(), 2);
    EXPECT_THAT(entries[0],
                testing::UnorderedElementsAre(
                    Pair("MESSAGE", "Entry [main]"), Pair("PRIORITY", "6"),
                    Pair("DLOG_LEVEL", "4"), Pair("DLOG_MODULE", "324"),
                    Pair("CODE_FILE", "morrow"), Pair("CODE_LINE", "57"),
                    Pair("SYSLOG_IDENTIFIER", "platform-log-speaker")));
    EXPECT_THAT(entries[1],
                testing::UnorderedElementsAre(
                    Pair("MESSAGE", "Common Morrow [main]"),
                    Pair("PRIORITY", "6"), Pair("DLOG_LEVEL", "4"),
                    Pair("CODE_FILE", "morrow"), Pair("CODE_LINE", "58"),
                    Pair("SYSLOG_IDENTIFIER", "platform-log-speaker")));
}

TEST_F(Journal, GetsThePriorityFromTheLevel)
{
    const std::vector<std::pair<std::string, std::string>> priorities{
        {"-2147483648", "3"}, {"0", "3"}, {"1", "3"}, {"2", "4"},
        {"3", "5"},           {"4", "6"}, {"5", "7"}, {"11", "7"}};
    for (const auto& [level, priority] : priorities)
    {
        SCOPED_TRACE(level);
        const auto entries = entriesOf({"dlog", level, "text"});
        ASSERT_EQ(entries.size(), 1);
        EXPECT_THAT(entries[0], Contains(Pair("PRIORITY", priority)));
        EXPECT_THAT(entries[0], Contains(Pair("DLOG_LEVEL", level)));
    }
}

TEST_F(Journal, GetsOneEntryOfBoundedLengthForAnyText)
{
    const auto lines = entriesOf({"dlog", "1", "one\ntwo\n\n"});
    ASSERT_EQ(lines.size(), 1);
    EXPECT_THAT(lines[0], Contains(Pair("MESSAGE", "one two")));
    const auto entries = entriesOf({"dlog", "1", std::string(5000, 'x')});
    ASSERT_EQ(entries.size(), 1);
    EXPECT_EQ(entries[0].at("MESSAGE"),
              std::string(1023 - std::strlen("MESSAGE="), 'x'));
}

TEST_F(Journal, GetsNoPlaceWhenTheFormatHasNone)
{
    const auto entries = entriesOf({"without-place"});
    ASSERT_EQ(entries.size(), 1);
    EXPECT_THAT(entries[0], Contains(Pair("MESSAGE", "no place, 7")));
    EXPECT_THAT(entries[0], Not(Contains(Key("CODE_FILE"))));
    EXPECT_THAT(entries[0], Not(Contains(Key("CODE_LINE"))));
}

TEST_F(Journal, LeavesErrno)
{
    const auto entries = entriesOf({"with-errno"});
    ASSERT_EQ(entries.size(), 2);
    EXPECT_EQ(entries[0].at("MESSAGE"), "kept");
}

TEST_F(Journal, GetsNoControlCharacter)
{
    const auto entries = entriesOf({"dlog", "1", "a\rb\x1B[2Jc"});
    ASSERT_EQ(entries.size(), 1);
    EXPECT_EQ(entries[0].at("MESSAGE"), "a?b?[2Jc");
}

/** The program would not end if it waited. */
TEST_F(Journal, IsNotWaitedFor)
{
    const auto entries = entriesOf({"flood"});
    ASSERT_FALSE(entries.empty());
    EXPECT_LT(entries.size(), 20'000U);
    EXPECT_EQ(entries.back().at("MESSAGE"), std::to_string(entries.size() - 1));
}

TEST_F(Journal, GetsTheNumberOfRecordsThatItMissed)
{
    const std::string away = std::string(journalPath) + ".away";
    std::filesystem::rename(journalPath, away);
    const auto entries = entriesOf({"dlog", "1", "a", "trace", "1", "b",
                                    "rename", away, std::string(journalPath),
                                    "dlog", "1", "c", "dlog", "1", "d"});
    std::vector<std::string> messages;
    for (const auto& entry : entries)
    {
        messages.push_back(entry.at("MESSAGE"));
    }
    EXPECT_THAT(messages, ElementsAre("2 log records were lost", "c", "d"));
    EXPECT_THAT(entries.front(),
                testing::UnorderedElementsAre(
                    Pair("MESSAGE", "2 log records were lost"),
                    Pair("PRIORITY", "4"),
                    Pair("SYSLOG_IDENTIFIER", "platform-log-speaker")));
}

TEST_F(Journal, IsLeftAloneWhenStandardErrorIsNotItsStream)
{
    for (const auto& other : {stream(1, 0), stream(0, 1), std::string("x"),
                              std::string(), stream() + "x", stream() + ":"})
    {
        SCOPED_TRACE(other);
        EXPECT_THAT(say({"dlog", "1", "a"}, {{"JOURNAL_STREAM", other}}),
                    ElementsAre("dlog 1 324 morrow:57:a\n"));
        EXPECT_THAT(drain(journal.get()), IsEmpty());
    }
}

} // namespace
} // namespace platform::test
