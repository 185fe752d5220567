// SPDX-License-Identifier: Apache-2.0
#include "board/commands/arguments.hpp"
#include "board/commands/command_table.hpp"
#include "board/commands/commands.hpp"
#include "board/commands/scenario.hpp"
#include "board/util/error.hpp"

#include <csignal>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace
{

using namespace board;
using namespace board::commands;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

/** A table of patterns that do nothing. */
CommandTable tableOf(const std::vector<std::string>& patterns)
{
    std::vector<Command> commands;
    commands.reserve(patterns.size());
    for (const auto& pattern : patterns)
    {
        commands.push_back({pattern, "helps.", {}});
    }
    return CommandTable(std::move(commands));
}

const CommandTable& small()
{
    static const auto table =
        tableOf({"endpoint CONTROLLER silent", "endpoint CONTROLLER eid EID",
                 "expect none", "expect EID...", "note TEXT", "show [COUNT]",
                 "help [WORD]"});
    return table;
}

/** The pattern that a line is understood as, and its values. */
std::vector<std::string> meaning(const std::string& line)
{
    const auto call = small().understand(line);
    if (call.row == nullptr)
    {
        return {};
    }
    auto all = call.values;
    all.insert(all.begin(), call.row->pattern);
    return all;
}

std::string refusal(const std::string& line,
                    const CommandTable& table = small())
{
    try
    {
        static_cast<void>(table.understand(line));
    }
    catch (const Error& error)
    {
        return error.what();
    }
    return "understood";
}

std::vector<std::string> completions(const std::string& line)
{
    return small().complete(line, line.size()).candidates;
}

TEST(Words, AreSeparatedByBlanks)
{
    EXPECT_THAT(meaning(" endpoint\t1  eid 0x42 \r"),
                ElementsAre("endpoint CONTROLLER eid EID", "1", "0x42"));
    EXPECT_THAT(meaning("endpoint 0 silent"),
                ElementsAre("endpoint CONTROLLER silent", "0"));
}

TEST(Words, CommentsAndEmptyLinesMeanNothing)
{
    for (const auto* line : {"", "  \t", "# endpoint", "  #endpoint 0"})
    {
        EXPECT_THAT(meaning(line), IsEmpty()) << line;
    }
}

TEST(Words, TextIsTheRestOfTheLine)
{
    EXPECT_THAT(meaning("note  two  words # and more  "),
                ElementsAre("note TEXT", "two  words # and more"));
}

TEST(Words, SomeArgumentsMayBeLeftOutOrRepeated)
{
    EXPECT_THAT(meaning("show"), ElementsAre("show [COUNT]"));
    EXPECT_THAT(meaning("show 3"), ElementsAre("show [COUNT]", "3"));
    EXPECT_THAT(meaning("expect none"), ElementsAre("expect none"));
    EXPECT_THAT(meaning("expect 29 0x9D"),
                ElementsAre("expect EID...", "29", "0x9D"));
}

TEST(Words, RefusesWhatIsNoCommandWithWhatIsPossible)
{
    EXPECT_EQ(refusal("foo 1"),
              "\"foo\" is not possible; possible: endpoint, expect, note, "
              "show, help");
    EXPECT_EQ(refusal("endpoint 0 foo"),
              "\"foo\" is not possible after \"0\"; possible: silent, eid");
    EXPECT_EQ(refusal("endpoint 2 silent"),
              "\"2\" is not possible after \"endpoint\"; possible: CONTROLLER "
              "(0 or 1)");
    EXPECT_EQ(refusal("endpoint 0 silent now"),
              "\"now\" is not possible after \"silent\"; possible: nothing "
              "more");
}

TEST(Words, RefusesWhatIsNotAllWithWhatIsMissing)
{
    EXPECT_EQ(refusal("endpoint"), "\"endpoint\" is not all; after it: "
                                   "CONTROLLER (0 or 1)");
    EXPECT_EQ(refusal(" endpoint 0 eid"),
              "\"endpoint 0 eid\" is not all; after it: EID (0 to 255, or "
              "0x00 to 0xff)");
    EXPECT_EQ(refusal("note"), "\"note\" is not all; after it: TEXT");
    EXPECT_EQ(refusal("expect"), "\"expect\" is not all; after it: none, EID "
                                 "(0 to 255, or 0x00 to 0xff)");
}

TEST(Words, NumbersAreDecimalOrHexadecimalAndInTheirRange)
{
    EXPECT_EQ(numberOf("29"), 29U);
    EXPECT_EQ(numberOf<int>("0x9d"), 157);
    EXPECT_EQ(millisecondsOf("500"), std::chrono::milliseconds(500));
    EXPECT_TRUE(isOfKind("EID", "0xff"));
    EXPECT_TRUE(isOfKind("PART", "64"));
    EXPECT_FALSE(isOfKind("PART", "0"));
    for (const auto* word : {"", "-1", "+1", "256", "0x", "0x100", "1d", "1 ",
                             "99999999999999999999"})
    {
        EXPECT_FALSE(isOfKind("EID", word)) << word;
    }
}

TEST(Completion, OffersWhatCanFollow)
{
    EXPECT_THAT(completions(""),
                ElementsAre("endpoint", "expect", "note", "show", "help"));
    EXPECT_THAT(completions("e"), ElementsAre("endpoint", "expect"));
    EXPECT_THAT(completions("endpoint "), ElementsAre("0", "1"));
    EXPECT_THAT(completions("endpoint 0 "), ElementsAre("silent", "eid"));
    EXPECT_THAT(completions("endpoint 0 s"), ElementsAre("silent"));
    EXPECT_THAT(completions("endpoint 7 s"), IsEmpty());
    EXPECT_THAT(completions("expect 29 1"), ElementsAre("157"));
    EXPECT_THAT(completions("note s"), IsEmpty());
    EXPECT_THAT(completions("help e"), ElementsAre("endpoint", "expect"));
}

TEST(Words, OfComponentsAreRefusedInTheSameWay)
{
    for (const auto& [line, why] :
         {std::pair("endpoint 0 late",
                    "\"endpoint 0 late\" is not all; after it: MS "
                    "(milliseconds, 0 to 3600000)"),
          std::pair("endpoint 0 late 5 short 4097",
                    "\"4097\" is not possible after \"short\"; possible: BYTES "
                    "(0 to 4096)"),
          std::pair("endpoint 0 first 2 silent then",
                    "\"then\" is not possible after \"silent\"; possible: "
                    "nothing more"),
          std::pair("endpoint 0 silent please",
                    "\"please\" is not possible after \"silent\"; possible: "
                    "nothing more"),
          std::pair("controller 0 refuses-bind EVIL",
                    "\"EVIL\" is not possible after \"refuses-bind\"; "
                    "possible: ERRNO (an errno name such as EIO)"),
          std::pair("controller 0 class-entry socket",
                    "\"socket\" is not possible after \"class-entry\"; "
                    "possible: directory|file|none"),
          std::pair("controller 0 node-busy readers",
                    "\"readers\" is not possible after \"node-busy\"; "
                    "possible: writers"),
          std::pair("driver bind-file refuses",
                    "\"driver bind-file refuses\" is not all; after it: ERRNO "
                    "(an errno name such as EIO)"),
          std::pair("host signal-type host u",
                    "\"host\" is not possible after \"signal-type\"; possible: "
                    "power|reset"),
          std::pair("power", "\"power\" is not all; after it: POWER"),
          std::pair("bus name-taken twice",
                    "\"twice\" is not possible after \"name-taken\"; "
                    "possible: replaceable"),
          std::pair("platform value x",
                    "\"platform value x\" is not all; after it: "
                    "missing|unreadable|VALUE")})
    {
        EXPECT_EQ(refusal(line, allCommands()), why);
    }
    EXPECT_THAT(refusal("endpoint 0 first 2 foo", allCommands()),
                StartsWith("\"foo\" is not possible; possible: answering, "
                           "silent, "));
}

TEST(Completion, KnowsTheWordsOfComponents)
{
    const auto offered = [](const std::string& line)
    {
        return allCommands().complete(line, line.size()).candidates;
    };
    EXPECT_THAT(offered("endpoint 0 late 500 si"), ElementsAre("silent"));
    EXPECT_THAT(offered("controller 1 class-entry "),
                ElementsAre("directory", "file", "none"));
    EXPECT_THAT(offered("controller 0 refuses-bind E"), Contains("EIO"));
    EXPECT_THAT(offered("host Ru"), ElementsAre("Running"));
}

TEST(Completion, LooksAtWhatIsBeforeTheCursor)
{
    const auto completion = small().complete("endpoint 0 si nonsense", 13);
    EXPECT_EQ(completion.begin, 11U);
    EXPECT_THAT(completion.candidates, ElementsAre("silent"));
    EXPECT_EQ(completion.extension(13), "lent ");
}

TEST(Completion, AddsWhatAllHaveInCommon)
{
    EXPECT_EQ(
        tableOf({"start", "status", "stop"}).complete("s", 1).extension(1),
        "t");
    EXPECT_EQ(tableOf({"start", "stop"}).complete("st", 2).extension(2), "");
    EXPECT_EQ(tableOf({"start"}).complete("x", 1).extension(1), "");
}

TEST(CommandTable, HelpsWithOneWordOrAll)
{
    EXPECT_EQ(small().help("expect"),
              "  expect none                     helps.\n"
              "  expect EID...                   helps.\n");
    EXPECT_THAT(small().help(),
                AllOf(HasSubstr("  note TEXT "), HasSubstr("  show [COUNT] ")));
    EXPECT_THROW(static_cast<void>(small().help("foo")), Error);
}

TEST(CommandTable, HelpFitsATerminal)
{
    std::istringstream lines(allCommands().help());
    for (std::string line; std::getline(lines, line);)
    {
        EXPECT_LE(line.size(), 80U) << line;
    }
}

TEST(CommandTable, QuotesNoMoreOfAWordThanCanBeRead)
{
    EXPECT_THAT(refusal(std::string(100'000, 'x')),
                StartsWith('"' + std::string(64, 'x') + "...\" is not "));
}

TEST(CommandTable, KnowsTheEndsOfAProcess)
{
    const auto end = endOf("0x0f");
    EXPECT_EQ(end.status, 15);
    EXPECT_EQ(end.signal, 0);
    EXPECT_EQ(endOf("000").status, 0);
    EXPECT_EQ(endOf("SIGKILL").signal, SIGKILL);
    EXPECT_EQ(endOf("SIGKILL").status, -1);
    for (const auto* line : {"expect exit SIGNONE", "expect exit SIG",
                             "expect exit KILL", "expect exit 256"})
    {
        EXPECT_THROW(static_cast<void>(allCommands().understand(line)), Error)
            << line;
    }
}

/** What a scenario is as JSON, or why it is refused. */
std::string parsed(const std::string& text)
{
    try
    {
        return Scenario("a.board", text).asJson();
    }
    catch (const Error& error)
    {
        return error.what();
    }
}

TEST(Scenario, IsParsedAsAWhole)
{
    EXPECT_EQ(parsed("# a scenario\n\nhost Running\nwait log\n"),
              "a.board:4: \"wait log\" is not all; after it: TEXT");
}

TEST(Scenario, HasItsTargetsLinesCommandsAndArgumentsInJson)
{
    EXPECT_EQ(parsed("# one\ntargets virtual service\n\n  endpoint 0  silent \n"
                     "run echo  \"a\"\n"),
              R"({"file":"a.board","targets":["service","virtual"],)"
              R"("commands":[{"line":4,"text":"endpoint 0  silent",)"
              R"("command":"endpoint CONTROLLER silent","arguments":["0"]},)"
              R"({"line":5,"text":"run echo  \"a\"","command":"run COMMAND",)"
              R"("arguments":["echo  \"a\""]}]})");
    EXPECT_THAT(parsed("quit"), HasSubstr(R"("targets":["simulated"],)"));
}

TEST(Scenario, HasNoCommandThatATargetLacks)
{
    EXPECT_EQ(parsed("broker kill"),
              "a.board:1: \"broker kill\" does not exist on the target "
              "simulated; it does on service, virtual");
    EXPECT_EQ(parsed("targets service virtual\nloglevel 4"),
              "a.board:2: \"loglevel LEVEL\" does not exist on the target "
              "service, virtual; it does on simulated");
    EXPECT_EQ(parsed("targets simulated virtual\nendpoint 0 short 1"),
              "a.board:2: \"endpoint CONTROLLER short BYTES\" does not exist "
              "on the target virtual; it does on simulated, service");
    EXPECT_EQ(parsed("note one\ntargets simulated"),
              "a.board:2: only the first command can be \"targets\"");
    EXPECT_THAT(parsed("targets board"),
                HasSubstr("possible: TARGET (simulated, service or virtual)"));
}

TEST(Scenario, IsRefusedWithoutACommand)
{
    for (const auto* text : {"", "\n\n", "# a comment\n \n", "targets virtual"})
    {
        EXPECT_EQ(parsed(text),
                  "a.board: it has no command; write one on each line");
    }
}

TEST(Scenario, IsPlainText)
{
    using namespace std::string_literals;
    for (const auto& text : {"note one\nno\0te two\n"s, "\n# \0\n"s})
    {
        EXPECT_EQ(parsed(text),
                  "a.board:2: the line has a null byte; commands are plain "
                  "text: save them as UTF-8");
    }
    for (const auto* mark : {"\xEF\xBB\xBF", "\xFF\xFE", "\xFE\xFF"})
    {
        EXPECT_EQ(parsed(mark + "note one\n"s),
                  "a.board:1: the line begins with a byte order mark; commands "
                  "are plain text: save them as UTF-8 without that mark");
    }
}

TEST(Scenario, SaysWhichFileCannotBeRead)
{
    const auto why = [](const std::string& file) -> std::string
    {
        try
        {
            static_cast<void>(Scenario::of(file));
        }
        catch (const Error& error)
        {
            return error.what();
        }
        return "read";
    };
    EXPECT_EQ(
        why("/no/such.board"),
        "cannot open the scenario /no/such.board: No such file or directory");
    EXPECT_EQ(why("/run"), "cannot read the scenario /run: Is a directory");
}

} // namespace
