// SPDX-License-Identifier: Apache-2.0
#include "board/endpoint/packet_text.hpp"
#include "board/timeline/log_line.hpp"
#include "board/timeline/printer.hpp"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <memory>

#include <gtest/gtest.h>

namespace
{

using namespace board;
using namespace std::chrono_literals;

std::string shown(Event::Body body, const PrintStyle& style = {})
{
    return printed({0, 1234567us, std::move(body)}, style);
}

TEST(Printer, AlignsTimeWhoAndWhat)
{
    EXPECT_EQ(printedHeading({}), "        ms  who      what\n");
    EXPECT_EQ(shown(event::Notified{"READY=1"}),
              "  1234.567  daemon   says READY=1\n");
    EXPECT_EQ(printed({0, 1us, event::Note{"Begin."}}, {}),
              "     0.001  board    Begin.\n");
}

TEST(Printer, TellsStatesByTheirShortNames)
{
    EXPECT_EQ(shown(event::HostState{
                  "xyz.openbmc_project.State.Host.HostState.Running"}),
              "  1234.567  host     CurrentHostState is Running\n");
    EXPECT_EQ(
        shown(event::ControlSignal{"/p", "InternalPowerState",
                                   "xyz.openbmc_project.State.StateS5"}),
        "  1234.567  host     InternalPowerState is StateS5, announced\n");
}

TEST(Printer, TellsWhereTheHostMisbehaves)
{
    EXPECT_EQ(shown(event::HostState{""}),
              "  1234.567  host     CurrentHostState is \"\"\n");
    EXPECT_EQ(shown(event::ControlSignal{"/o", "ResetCause", "a.b", 3}),
              "  1234.567  host     ResetCause is \"a.b\", announced 3 times"
              "\n");
    EXPECT_EQ(shown(event::OddSignal{"/o", "x.Y with the body \"\"", 2}),
              "  1234.567  host     odd signal 2 times: x.Y with the body "
              "\"\"\n");
    EXPECT_EQ(shown(event::HostService{true}),
              "  1234.567  host     the host-state service comes\n");
    EXPECT_EQ(shown(event::HostService{false}),
              "  1234.567  host     the host-state service is not there\n");
    EXPECT_EQ(shown(event::HostAnswer{"no answer"}),
              "  1234.567  host     asked for CurrentHostState: no answer\n");
}

TEST(Printer, TellsWhatBefallsBusAndPlatform)
{
    EXPECT_EQ(shown(event::Broker{false}),
              "  1234.567  bus      the broker dies\n");
    EXPECT_EQ(shown(event::Broker{true}),
              "  1234.567  bus      a new broker takes the dead one's place\n");
    EXPECT_EQ(shown(event::PlatformValue{"CPU_VENDOR", "missing"}),
              "  1234.567  board    The platform's CPU_VENDOR is missing.\n");
}

TEST(Printer, TellsWhatTheDriverDid)
{
    EXPECT_EQ(shown(event::DriverWrite{true, "fff10000.i3c", 0}),
              "  1234.567  driver   bind fff10000.i3c\n");
    EXPECT_EQ(shown(event::DriverWrite{false, "fff10000.i3c", ENODEV}),
              "  1234.567  driver   unbind fff10000.i3c: No such device\n");
    EXPECT_EQ(shown(event::DeviceUp{0, "i3c-mctp-0", ClassEntry::none}),
              "  1234.567  driver   device i3c-mctp-0 is up, without a class "
              "entry\n");
    EXPECT_EQ(shown(event::DeviceUp{0, "i3c-mctp-0", ClassEntry::file}),
              "  1234.567  driver   device i3c-mctp-0 is up, with a file as "
              "class entry\n");
    EXPECT_EQ(shown(event::DriverFileRefused{false, EACCES}),
              "  1234.567  driver   cannot open the unbind file: Permission "
              "denied\n");
}

TEST(Printer, ExplainsPackets)
{
    EXPECT_EQ(shown(event::Packet{
                  "i3c-mctp-0", true, {0x01, 0, 0x08, 0xC8, 0, 0x81, 0x0D}, 0}),
              "  1234.567  mctp     i3c-mctp-0 > 01 00 08 c8 00 81 0d     "
              "Discovery Notify, request\n");
    EXPECT_EQ(shown(event::Packet{"i3c-mctp-1",
                                  false,
                                  {0x01, 0x08, 0x9D, 0xC0, 0, 0x01, 0x0D, 0},
                                  0}),
              "  1234.567  mctp     i3c-mctp-1 < 01 08 9d c0 00 01 0d 00  "
              "Discovery Notify, success from EID 157\n");
}

TEST(Printer, ShowsAnEndpointWithItsSixProperties)
{
    EXPECT_EQ(
        shown(event::EndpointRead{{"/o/29", 0, 29, {0x7E, 5}, 1, 0, "/d"}}),
        "  1234.567  bus      read /o/29\n"
        "                         NetworkId              0\n"
        "                         EID                    29\n"
        "                         SupportedMessageTypes  7e 05\n"
        "                         EndpointType           1\n"
        "                         Slot                   0\n"
        "                         DevicePath             /d\n");
}

TEST(Printer, TellsHowTheDaemonEnded)
{
    EXPECT_EQ(shown(event::Signalled{SIGTERM}),
              "  1234.567  daemon   gets SIGTERM\n");
    EXPECT_EQ(shown(event::Exited{0, 0}),
              "  1234.567  daemon   ended with status 0\n");
    EXPECT_EQ(shown(event::Exited{-1, SIGSEGV}),
              "  1234.567  daemon   ended by SIGSEGV\n");
}

TEST(Printer, ShowsLogRecordsThatTellProgress)
{
    EXPECT_EQ(shown(event::Log{4, 324, "morrow", 57, "Discovery complete"}),
              "  1234.567  log      morrow:57  Discovery complete\n");
    for (const auto* text : {"Entry [main]", "[0d]", "ep: [00]", ""})
    {
        EXPECT_EQ(shown(event::Log{4, 324, "morrow", 57, text}), "") << text;
    }
    EXPECT_EQ(shown(event::Log{11, 324, "morrow", 57, "x"}), "");
    EXPECT_EQ(shown(event::Log{4, 324, "morrow_server", 57, "x"}), "");
    EXPECT_NE(shown(event::Log{1, 324, "morrow_server", 57, "x"}), "");
}

TEST(Printer, ShowsEverythingWhenAsked)
{
    EXPECT_EQ(shown(event::NodeOpened{"i3c-mctp-0", 0}), "");
    EXPECT_EQ(shown(event::NodeOpened{"i3c-mctp-0", 0}, {.everything = true}),
              "  1234.567  driver   /dev/i3c-mctp-0 opened\n");
    EXPECT_EQ(shown(event::Log{4, 324, "morrow", 57, "Entry [main]"},
                    {.everything = true}),
              "  1234.567  log      morrow:57  Entry [main]\n");
}

TEST(Printer, CutsLongLogRecordsToALine)
{
    const std::string text(200, 'x');
    const auto line = shown(event::Log{4, 324, "morrow", 57, text});
    EXPECT_EQ(line.size(), 100U);
    EXPECT_EQ(line.substr(line.size() - 5), "x...\n");
    EXPECT_GT(
        shown(event::Log{4, 324, "morrow", 57, text}, {.everything = true})
            .size(),
        200U);
}

TEST(Printer, ShowsControlCharactersInsteadOfObeyingThem)
{
    using namespace std::string_literals;
    EXPECT_EQ(shown(event::Output{"morrow", "a\033[2J\r\0\x7F\tb"s}),
              "  1234.567  daemon   a\\x1b[2J\\x0d\\x00\\x7f\tb\n");
    EXPECT_EQ(shown(event::DriverWrite{true, "\a", ENODEV}),
              "  1234.567  driver   bind \\x07: No such device\n");
}

TEST(Printer, UsesColourOnlyWhenAsked)
{
    EXPECT_EQ(shown(event::Note{"x"}).find('\033'), std::string::npos);
    EXPECT_EQ(shown(event::Note{"x"}, {.colour = true}),
              "\033[90m  1234.567\033[0m  \033[1mboard  \033[0m  "
              "\033[1mx\033[0m\n");
}

TEST(Printer, PrintsLiveAndToTheEnd)
{
    char* text = nullptr;
    std::size_t size = 0;
    auto* const stream = open_memstream(&text, &size);
    {
        Timeline timeline;
        const Printer printer(timeline, to(stream), {});
        timeline.record(event::Note{"one"});
        timeline.record(event::Note{"two"});
    }
    ASSERT_EQ(std::fclose(stream), 0);
    const std::unique_ptr<char, void (*)(void*)> owner(text, std::free);
    const std::string printedText(text);
    EXPECT_NE(printedText.find("board    one\n"), std::string::npos);
    EXPECT_NE(printedText.find("board    two\n"), std::string::npos);
}

TEST(PacketText, CutsLongPackets)
{
    EXPECT_EQ(packetText(std::vector<std::uint8_t>(68, 0x02)),
              "02 02 02 02 02 02 02 02 02 02 02 02 02 02 02 02 02 02 02 02 "
              "... (68 bytes)");
}

TEST(PacketText, TellsErrorsAndCutAnswers)
{
    const auto meaning = [](std::vector<std::uint8_t> message)
    {
        std::vector<std::uint8_t> packet{0x01, 0x08, 0x1D, 0xC0};
        packet.insert(packet.end(), message.begin(), message.end());
        const auto text = packetText(packet);
        return text.substr(text.rfind("  ") + 2);
    };
    EXPECT_EQ(meaning({0x00, 0x01, 0x0D, 0x05}),
              "Discovery Notify, error 05 from EID 29");
    EXPECT_EQ(meaning({0x00, 0x01, 0x0D}), "Discovery Notify, cut answer");
    EXPECT_EQ(meaning({0x00, 0x81, 0x02}), "command 02, request");
}

TEST(LogLine, ReadsARecord)
{
    const auto body = parseLogLine("dlog 4 324 morrow:57:Entry [main]: x");
    const auto* const log = std::get_if<event::Log>(&body);
    ASSERT_TRUE(log);
    EXPECT_EQ(log->level, 4);
    EXPECT_EQ(log->module, 324);
    EXPECT_EQ(log->file, "morrow");
    EXPECT_EQ(log->line, 57U);
    EXPECT_EQ(log->text, "Entry [main]: x");
}

TEST(LogLine, ReadsATrace)
{
    const auto body = parseLogLine("trace 4 morrow_client:57:text");
    const auto* const trace = std::get_if<event::Trace>(&body);
    ASSERT_TRUE(trace);
    EXPECT_EQ(trace->level, 4);
    EXPECT_EQ(trace->file, "morrow_client");
    EXPECT_EQ(trace->line, 57U);
    EXPECT_EQ(trace->text, "text");
}

TEST(LogLine, KeepsAllElseAsItIs)
{
    for (const auto* line :
         {"", "dlog", "dlog x 324 morrow:57:text", "dlog 4 324 morrow:text",
          "dlog 4 324 morrow:5x:text", "trace 4 morrow 57 text",
          "==1==ERROR: AddressSanitizer: heap-use-after-free"})
    {
        const auto body = parseLogLine(line);
        const auto* const output = std::get_if<event::Output>(&body);
        ASSERT_TRUE(output) << line;
        EXPECT_EQ(output->line, line);
    }
}

} // namespace
