// SPDX-License-Identifier: Apache-2.0
#include "board/timeline/event_json.hpp"
#include "board/timeline/saved_timeline.hpp"

#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace
{

using namespace board;
using testing::ElementsAre;

constexpr auto savedFile = "/run/saved-timeline";

std::string json(Event::Body body)
{
    return jsonLine({7, Time(1'500), std::move(body)});
}

std::vector<std::string> linesOf(const std::string& path)
{
    std::vector<std::string> lines;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);)
    {
        lines.push_back(line);
    }
    return lines;
}

TEST(EventJson, TellsTimeAndKindAndThenTheFacts)
{
    EXPECT_EQ(json(event::Note{"a \"word\"\n"}),
              R"({"at":1500,"event":"note","text":"a \"word\"\n"})");
    EXPECT_EQ(json(event::Told{"host Running"}),
              R"({"at":1500,"event":"told","line":"host Running"})");
    EXPECT_EQ(json(event::HostState{"a.b.Running"}),
              R"({"at":1500,"event":"host_state","value":"a.b.Running"})");
    EXPECT_EQ(json(event::ControlSignal{"/p", "ResetCause", "WarmReset"}),
              R"({"at":1500,"event":"control_signal","path":"/p",)"
              R"("property":"ResetCause","value":"WarmReset","times":1})");
    EXPECT_EQ(json(event::OddSignal{"/p", "an odd one", 2}),
              R"({"at":1500,"event":"odd_signal","path":"/p",)"
              R"("what":"an odd one","times":2})");
    EXPECT_EQ(json(event::HostService{true}),
              R"({"at":1500,"event":"host_service","is_there":true})");
    EXPECT_EQ(json(event::HostAnswer{"no answer"}),
              R"({"at":1500,"event":"host_answer","what":"no answer"})");
}

TEST(EventJson, TellsWhatTheDriverDid)
{
    EXPECT_EQ(json(event::DriverWrite{true, "fff10000.i3c", 0}),
              R"({"at":1500,"event":"driver_write","file":"bind",)"
              R"("controller":"fff10000.i3c","error":0})");
    EXPECT_EQ(json(event::DriverWrite{false, "fff10000.i3c", 19}),
              R"({"at":1500,"event":"driver_write","file":"unbind",)"
              R"("controller":"fff10000.i3c","error":19})");
    EXPECT_EQ(json(event::DriverFileRefused{true, 13}),
              R"({"at":1500,"event":"driver_file_refused","file":"bind",)"
              R"("error":13})");
    for (const auto& [entry, name] :
         {std::pair(ClassEntry::directory, "directory"),
          std::pair(ClassEntry::file, "file"),
          std::pair(ClassEntry::none, "none")})
    {
        EXPECT_EQ(json(event::DeviceUp{1, "i3c-mctp-0", entry}),
                  R"({"at":1500,"event":"device_up","controller":1,)"
                  R"("node":"i3c-mctp-0","class_entry":")" +
                      std::string(name) + "\"}");
    }
    EXPECT_EQ(json(event::DeviceDown{1, "i3c-mctp-0"}),
              R"({"at":1500,"event":"device_down","controller":1,)"
              R"("node":"i3c-mctp-0"})");
}

TEST(EventJson, TellsWhatHappenedToNodes)
{
    EXPECT_EQ(json(event::NodeRemoved{"n"}),
              R"({"at":1500,"event":"node_removed","node":"n"})");
    EXPECT_EQ(json(event::NodeOpened{"n", 13}),
              R"({"at":1500,"event":"node_opened","node":"n","error":13})");
    EXPECT_EQ(json(event::NodeClosed{"n"}),
              R"({"at":1500,"event":"node_closed","node":"n"})");
    EXPECT_EQ(json(event::Packet{"n", true, {1, 0, 255}, 0}),
              R"({"at":1500,"event":"packet","node":"n","to_endpoint":true,)"
              R"("bytes":[1,0,255],"error":0})");
}

TEST(EventJson, TellsWhatHappenedOnTheBus)
{
    EXPECT_EQ(json(event::Broker{false}),
              R"({"at":1500,"event":"broker","is_there":false})");
    EXPECT_EQ(json(event::PlatformValue{"CPU_VENDOR", "\"1\""}),
              R"({"at":1500,"event":"platform_value","key":"CPU_VENDOR",)"
              R"("what":"\"1\""})");
    EXPECT_EQ(json(event::NameOwner{"a.b", ":1.2"}),
              R"({"at":1500,"event":"name_owner","name":"a.b",)"
              R"("owner":":1.2"})");
    EXPECT_EQ(json(event::EndpointAdded{"/p"}),
              R"({"at":1500,"event":"endpoint_added","path":"/p"})");
    EXPECT_EQ(json(event::EndpointRemoved{"/p"}),
              R"({"at":1500,"event":"endpoint_removed","path":"/p"})");
    EXPECT_EQ(json(event::EndpointChanged{"/p", "EID"}),
              R"({"at":1500,"event":"endpoint_changed","path":"/p",)"
              R"("property":"EID"})");
    EXPECT_EQ(json(event::EndpointRead{{"/p", 0, 29, {126, 5}, 1, 2, "/dev"}}),
              R"({"at":1500,"event":"endpoint_read","path":"/p",)"
              R"("network_id":0,"eid":29,)"
              R"("supported_message_types":[126,5],"endpoint_type":1,)"
              R"("slot":2,"device_path":"/dev"})");
}

TEST(EventJson, TellsTheDaemonsLife)
{
    EXPECT_EQ(json(event::Started{12}),
              R"({"at":1500,"event":"started","process":12})");
    EXPECT_EQ(json(event::Notified{"READY=1"}),
              R"({"at":1500,"event":"notified","text":"READY=1"})");
    EXPECT_EQ(json(event::Signalled{SIGTERM}),
              R"({"at":1500,"event":"signalled","signal":15})");
    EXPECT_EQ(json(event::Exited{3, 0}),
              R"({"at":1500,"event":"exited","status":3,"signal":null})");
    EXPECT_EQ(json(event::Exited{-1, SIGKILL}),
              R"({"at":1500,"event":"exited","status":null,"signal":9})");
}

TEST(EventJson, TellsWhatWasLogged)
{
    EXPECT_EQ(json(event::Log{4, 324, "morrow", 57, "text"}),
              R"({"at":1500,"event":"log","level":4,"module":324,)"
              R"("file":"morrow","line":57,"text":"text"})");
    EXPECT_EQ(json(event::Trace{4, "morrow", 57, "text"}),
              R"({"at":1500,"event":"trace","level":4,"file":"morrow",)"
              R"("line":57,"text":"text"})");
    EXPECT_EQ(json(event::Output{"morrow", "text"}),
              R"({"at":1500,"event":"output","program":"morrow",)"
              R"("text":"text"})");
}

TEST(EventJson, StaysUtf8WhateverTheDaemonWrites)
{
    EXPECT_EQ(json(event::Output{"morrow", "\xFF\x1B"}),
              R"({"at":1500,"event":"output","program":"morrow",)"
              "\"text\":\"\xEF\xBF\xBD\\u001b\"}");
}

TEST(SavedTimeline, HoldsEveryEventInOrder)
{
    Timeline timeline;
    SavedTimeline saved(timeline, SaveFile(savedFile));
    timeline.record(event::Note{"one"});
    timeline.record(event::Exited{0, 0});
    saved.finish();
    const auto events = timeline.since();
    EXPECT_THAT(linesOf(savedFile),
                ElementsAre(jsonLine(events[0]), jsonLine(events[1])));
}

TEST(SavedTimeline, TakesThePlaceOfAnEarlierOne)
{
    std::ofstream(savedFile) << "something else\n";
    Timeline timeline;
    SavedTimeline saved(timeline, SaveFile(savedFile));
    saved.finish();
    EXPECT_TRUE(linesOf(savedFile).empty());
}

std::string failureOf(const std::string& path)
{
    try
    {
        Timeline timeline;
        SavedTimeline saved(timeline, SaveFile(path));
        timeline.record(event::Note{"one"});
        timeline.record(event::Note{"two"});
        saved.finish();
    }
    catch (const Error& error)
    {
        return error.what();
    }
    return "no failure";
}

TEST(SavedTimeline, SaysWhyItCannotBeSaved)
{
    EXPECT_EQ(failureOf("/no/such/file"),
              "cannot open /no/such/file to save the timeline: No such file or "
              "directory; name another file with --save");
    EXPECT_EQ(failureOf("/dev/full"),
              "cannot save the timeline in /dev/full: No space left on device; "
              "it is not whole; name another file with --save");
}

} // namespace
