// SPDX-License-Identifier: Apache-2.0
#include "board/timeline/event_json.hpp"
#include "board/timeline/saved_timeline.hpp"

#include <nlohmann/json.hpp>

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

TEST(EventJson, HasTimeKindAndValues)
{
    EXPECT_EQ(json(event::Note{"a \"word\"\n"}),
              R"({"at":1500,"event":"note","text":"a \"word\"\n"})");
    EXPECT_EQ(json(event::ControlSignal{"/p", "ResetCause", "WarmReset"}),
              R"({"at":1500,"event":"control_signal","path":"/p",)"
              R"("property":"ResetCause","value":"WarmReset","times":1})");
    EXPECT_EQ(json(event::DriverWrite{true, "fff10000.i3c", 0}),
              R"({"at":1500,"event":"driver_write","file":"bind",)"
              R"("controller":"fff10000.i3c","error":0})");
    EXPECT_EQ(json(event::DriverFileRefused{false, 13}),
              R"({"at":1500,"event":"driver_file_refused","file":"unbind",)"
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
    EXPECT_EQ(json(event::Packet{"n", true, {1, 0, 255}, 0}),
              R"({"at":1500,"event":"packet","node":"n","to_endpoint":true,)"
              R"("bytes":[1,0,255],"error":0})");
    EXPECT_EQ(json(event::EndpointRead{{"/p", 0, 29, {126, 5}, 1, 2, "/dev"}}),
              R"({"at":1500,"event":"endpoint_read","path":"/p",)"
              R"("network_id":0,"eid":29,)"
              R"("supported_message_types":[126,5],"endpoint_type":1,)"
              R"("slot":2,"device_path":"/dev"})");
    EXPECT_EQ(json(event::Exited{3, 0}),
              R"({"at":1500,"event":"exited","status":3,"signal":null})");
    EXPECT_EQ(json(event::Exited{-1, SIGKILL}),
              R"({"at":1500,"event":"exited","status":null,"signal":9})");
}

/** Calls a function with an event of each kind. */
template <std::size_t... index>
void forEachKind(std::index_sequence<index...>, const auto& function)
{
    (function(Event::Body(std::in_place_index<index>)), ...);
}

TEST(EventJson, HasEveryKindThatIsDocumented)
{
    std::ifstream file(TIMELINE_DOCUMENT);
    const std::string document(std::istreambuf_iterator<char>(file), {});
    forEachKind(std::make_index_sequence<std::variant_size_v<Event::Body>>(),
                [&](const Event::Body& body)
                {
                    const auto object = nlohmann::json::parse(json(body));
                    const auto row = document.find(
                        "| `" + object.at("event").get<std::string>() + "` |");
                    ASSERT_NE(row, std::string::npos) << object;
                    const auto text =
                        document.substr(row, document.find('\n', row) - row);
                    for (const auto& [name, value] : object.items())
                    {
                        EXPECT_TRUE(name == "at" || name == "event" ||
                                    text.find('`' + name + '`') !=
                                        std::string::npos)
                            << name << " in " << object;
                    }
                });
}

TEST(EventJson, StaysUtf8WhateverTheDaemonWrites)
{
    EXPECT_EQ(json(event::Output{"morrow", "\xFF\x1B"}),
              R"({"at":1500,"event":"output","program":"morrow",)"
              "\"text\":\"\xEF\xBF\xBD\\u001b\"}");
}

TEST(SavedTimeline, HasEveryEventInOrderAndNothingOfAnEarlierOne)
{
    std::ofstream(savedFile) << "something else\n";
    Timeline timeline;
    SavedTimeline saved(timeline, SaveFile(savedFile));
    timeline.record(event::Note{"one"});
    timeline.record(event::Exited{0, 0});
    saved.finish();
    const auto events = timeline.since();
    EXPECT_THAT(linesOf(savedFile),
                ElementsAre(jsonLine(events[0]), jsonLine(events[1])));
}

} // namespace
