// SPDX-License-Identifier: Apache-2.0
#include "board/endpoint/packet_text.hpp"
#include "board/timeline/log_line.hpp"
#include "board/timeline/printer.hpp"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace
{

using namespace board;
using namespace std::chrono_literals;

std::string shown(Event::Body body, const PrintStyle& style = {})
{
    return printed({0, 1234567us, std::move(body)}, style);
}

TEST(Printer, AlignsTheColumns)
{
    EXPECT_EQ(printedHeading({}), "        ms  who      what\n");
    EXPECT_EQ(shown(event::Notified{"READY=1"}),
              "  1234.567  daemon   says READY=1\n");
    EXPECT_EQ(printed({0, 1us, event::Note{"Begin."}}, {}),
              "     0.001  board    Begin.\n");
}

struct Line
{
    Event::Body body;
    std::string text;
};

TEST(Printer, ShowsWhoAndWhat)
{
    const std::vector<Line> lines{
        {event::HostState{"xyz.openbmc_project.State.Host.HostState.Running"},
         "host     CurrentHostState is Running"},
        {event::HostState{""}, "host     CurrentHostState is \"\""},
        {event::ControlSignal{"/p", "InternalPowerState",
                              "xyz.openbmc_project.State.StateS5"},
         "host     InternalPowerState is StateS5, announced"},
        {event::ControlSignal{"/o", "ResetCause", "a.b", 3},
         "host     ResetCause is \"a.b\", announced 3 times"},
        {event::MalformedSignal{"/o", "x.Y with the body \"\"", 2},
         "host     malformed signal 2 times: x.Y with the body \"\""},
        {event::HostService{true}, "host     the host-state service comes"},
        {event::HostService{false},
         "host     the host-state service is not there"},
        {event::HostAnswer{"no answer"},
         "host     asked for CurrentHostState: no answer"},
        {event::Broker{false}, "bus      the broker dies"},
        {event::Broker{true},
         "bus      a new broker takes the dead one's place"},
        {event::PlatformValue{"CPU_VENDOR", "missing"},
         "board    The platform's CPU_VENDOR is missing."},
        {event::DriverWrite{true, "fff10000.i3c", 0},
         "driver   bind fff10000.i3c"},
        {event::DriverWrite{false, "fff10000.i3c", ENODEV},
         "driver   unbind fff10000.i3c: No such device"},
        {event::DeviceUp{0, "i3c-mctp-0", ClassEntry::none},
         "driver   device i3c-mctp-0 is up, without a class entry"},
        {event::DeviceUp{0, "i3c-mctp-0", ClassEntry::file},
         "driver   device i3c-mctp-0 is up, with a file as class entry"},
        {event::DriverFileRefused{false, EACCES},
         "driver   cannot open the unbind file: Permission denied"},
        {event::Packet{"i3c-mctp-0", true, {1, 0, 8, 0xC8, 0, 0x81, 0x0D}, 0},
         "mctp     i3c-mctp-0 > 01 00 08 c8 00 81 0d     Discovery Notify, "
         "request"},
        {event::Packet{
             "i3c-mctp-1", false, {1, 8, 0x9D, 0xC0, 0, 1, 0x0D, 0}, 0},
         "mctp     i3c-mctp-1 < 01 08 9d c0 00 01 0d 00  Discovery Notify, "
         "success from EID 157"},
        {event::Signalled{SIGTERM}, "daemon   gets SIGTERM"},
        {event::Exited{0, 0}, "daemon   ended with status 0"},
        {event::Exited{-1, SIGSEGV}, "daemon   ended by SIGSEGV"},
    };
    for (const auto& [body, text] : lines)
    {
        EXPECT_EQ(shown(body), "  1234.567  " + text + '\n');
    }
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

TEST(Printer, ShowsLogRecordsThatShowProgress)
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
        const Follower printer(timeline, printing(to(stream), {}));
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

TEST(PacketText, ShowsErrorsAndCutAnswers)
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

TEST(LogLine, ReadsRecordsAndTraces)
{
    const auto record = parseLogLine("dlog 4 324 morrow:57:Entry [main]: x");
    const auto* const log = std::get_if<event::Log>(&record);
    ASSERT_TRUE(log);
    EXPECT_EQ(log->level, 4);
    EXPECT_EQ(log->module, 324);
    EXPECT_EQ(log->file, "morrow");
    EXPECT_EQ(log->line, 57U);
    EXPECT_EQ(log->text, "Entry [main]: x");
    const auto other = parseLogLine("trace 4 morrow_client:57:text");
    const auto* const trace = std::get_if<event::Trace>(&other);
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
