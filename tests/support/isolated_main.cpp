// SPDX-License-Identifier: Apache-2.0

/**
 * The main function of the unit test programs: each test in a process and in
 * trees of its own.
 *
 * The daemon's singletons, threads and globals live as long as their process,
 * and its files have fixed paths. So every test is run in a child with fresh
 * /sys, /dev, /run and System V IPC, and a test that ends its process, as some
 * behaviour of the daemon does, ends nobody else. Results are printed as TAP, a
 * skipped test with its reason; the output of a failed test follows as
 * comments, with the events it recorded.
 */

#include "isolated_main.hpp"

#include "board/process/sandbox.hpp"
#include "board/util/error.hpp"

#include <fnmatch.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fstream>
#include <iostream>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

namespace
{

constexpr unsigned limitSeconds = 300;
constexpr int usageError = 2;

/** The exit status of a test that was skipped. Its last output is this mark and
 *  the reason. */
constexpr int skipped = 77;
constexpr std::string_view skipMark = "skipped: ";

constexpr const char* usage =
    R"(Runs tests, each in a process and a sandbox of its own; prints TAP.

Usage: morrow-sandbox PROGRAM [OPTION...] [SUITE.TEST...]

  --gtest_filter=PATTERNS  run the tests that match, as in GoogleTest
  --gtest_list_tests       print the names of all tests
  --jobs=N                 run N tests at a time (default: 1)
  --fail-fast              end at the first test that fails
  --show                   print output and events of passing tests, too
  -h, --help               print this

Without names, all tests that the filter matches are run.
)";

/** What to run and how. */
struct Plan
{
    std::vector<std::string> names;
    std::size_t jobs = 1;
    bool failFast = false;
};

/** Whether a name matches one of the patterns, which colons separate. */
bool matchesAny(const std::string& name, const std::string& patterns)
{
    std::istringstream stream(patterns);
    for (std::string pattern; std::getline(stream, pattern, ':');)
    {
        if (fnmatch(pattern.c_str(), name.c_str(), 0) == 0)
        {
            return true;
        }
    }
    return false;
}

/** Whether --gtest_filter selects a test: "POSITIVE[-NEGATIVE]". */
bool isSelected(const std::string& name, const std::string& filter)
{
    const auto dash = std::min(filter.find('-'), filter.size());
    const auto positive = filter.substr(0, dash);
    return (positive.empty() || matchesAny(name, positive)) &&
           !matchesAny(name, filter.substr(std::min(dash + 1, filter.size())));
}

/** The names of all tests that a filter selects. */
std::vector<std::string> testsMatching(const std::string& filter)
{
    std::vector<std::string> names;
    const auto& registry = *testing::UnitTest::GetInstance();
    for (int suite = 0; suite < registry.total_test_suite_count(); ++suite)
    {
        const auto& tests = *registry.GetTestSuite(suite);
        for (int test = 0; test < tests.total_test_count(); ++test)
        {
            const auto name = std::string(tests.name()) + "." +
                              tests.GetTestInfo(test)->name();
            if (isSelected(name, filter))
            {
                names.push_back(name);
            }
        }
    }
    return names;
}

/** Why the test that has just run was skipped, in one line; nothing when it was
 *  not. */
std::optional<std::string> skipReason()
{
    const auto& registry = *testing::UnitTest::GetInstance();
    for (int suite = 0; suite < registry.total_test_suite_count(); ++suite)
    {
        const auto& tests = *registry.GetTestSuite(suite);
        for (int test = 0; test < tests.total_test_count(); ++test)
        {
            const auto& result = *tests.GetTestInfo(test)->result();
            if (result.Skipped())
            {
                const int last = result.total_part_count() - 1;
                std::istringstream words(
                    result.GetTestPartResult(last).message());
                std::string reason;
                for (std::string word; words >> word;)
                {
                    reason += (reason.empty() ? "" : " ") + word;
                }
                return reason;
            }
        }
    }
    return std::nullopt;
}

/** The child: one test in fresh trees. */
[[noreturn]] void runAlone(const std::string& name, int output)
{
    dup2(output, STDOUT_FILENO);
    dup2(output, STDERR_FILENO);
    try
    {
        board::sandbox::renew();
    }
    catch (const std::exception& error)
    {
        std::cerr << error.what() << '\n';
        std::_Exit(EXIT_FAILURE);
    }
    (void)alarm(limitSeconds);
    testing::GTEST_FLAG(filter) = name;
    const int result = RUN_ALL_TESTS();
    if ((result != 0 || isolated::show) && isolated::printEvents != nullptr)
    {
        isolated::printEvents();
    }
    if (const auto reason = skipReason(); result == 0 && reason)
    {
        std::cout << skipMark << *reason << std::endl;
        std::exit(skipped);
    }
    // Not _exit: the daemon's singletons end with the process, and the leak
    // checker looks at what is left.
    std::exit(result);
}

/** A test that runs. */
struct Running
{
    std::string name;
    pid_t child;
    int output; //!< what it prints
};

Running start(const std::string& name)
{
    const int output = memfd_create("output", MFD_CLOEXEC);
    std::cout.flush();
    const pid_t child = fork();
    if (child == 0)
    {
        runAlone(name, output);
    }
    return {name, child, output};
}

/** Why a test has failed; empty when it has passed. */
std::string failureOf(int status)
{
    if (WIFSIGNALED(status))
    {
        return WTERMSIG(status) == SIGALRM
                   ? "timeout"
                   : "ended by " + std::string(strsignal(WTERMSIG(status)));
    }
    return WEXITSTATUS(status) == 0
               ? ""
               : "exit status " + std::to_string(WEXITSTATUS(status));
}

std::vector<std::string> linesOf(int output)
{
    std::ifstream file("/proc/self/fd/" + std::to_string(output));
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);)
    {
        lines.push_back(line);
    }
    return lines;
}

/** The reason that a skipped test has printed; nothing for any other. */
std::optional<std::string> reasonOf(const Running& test, int status)
{
    const auto lines = linesOf(test.output);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != skipped || lines.empty() ||
        !lines.back().starts_with(skipMark))
    {
        return std::nullopt;
    }
    return lines.back().substr(skipMark.size());
}

/** Prints a result. @return whether the test passed or was skipped */
bool report(const Running& test, int status, std::size_t number)
{
    const auto reason = reasonOf(test, status);
    const auto failure = reason ? "" : failureOf(status);
    std::cout << (failure.empty() ? "ok " : "not ok ") << number << " - "
              << test.name << (reason ? " # SKIP " + *reason : "") << '\n';
    if (!failure.empty())
    {
        std::cout << "# " << failure << '\n';
    }
    if (!failure.empty() || isolated::show)
    {
        for (const auto& line : linesOf(test.output))
        {
            std::cout << "# " << line << '\n';
        }
    }
    close(test.output);
    return failure.empty();
}

/** Ends the tests that still run. */
void bailOut(const std::vector<Running>& tests)
{
    for (const auto& test : tests)
    {
        kill(test.child, SIGKILL);
        waitpid(test.child, nullptr, 0);
    }
    std::cout << "Bail out! A test has failed\n";
}

/** Runs the tests. @return how many failed */
std::size_t runAll(const Plan& plan)
{
    auto next = plan.names.begin();
    std::vector<Running> running;
    std::size_t number = 0;
    std::size_t failed = 0;
    while (next != plan.names.end() || !running.empty())
    {
        while (next != plan.names.end() && running.size() < plan.jobs)
        {
            running.push_back(start(*next++));
        }
        int status = 0;
        const pid_t ended = waitpid(-1, &status, 0);
        const auto test = std::find_if(running.begin(), running.end(),
                                       [ended](const auto& candidate)
                                       {
                                           return candidate.child == ended;
                                       });
        if (test == running.end())
        {
            continue; // an orphan of a test
        }
        failed += report(*test, status, ++number) ? 0 : 1;
        running.erase(test);
        if (failed > 0 && plan.failFast)
        {
            bailOut(running);
            break;
        }
    }
    return failed;
}

std::size_t parseJobs(const std::string& text)
{
    std::size_t jobs = 0;
    const auto* end = text.data() + text.size();
    if (const auto parsed = std::from_chars(text.data(), end, jobs);
        parsed.ec != std::errc() || parsed.ptr != end || jobs == 0)
    {
        throw std::invalid_argument("--jobs=" + text +
                                    ": not a number of jobs");
    }
    return jobs;
}

/** @param arguments what GoogleTest has left of them */
Plan planOf(const std::vector<std::string>& arguments)
{
    const std::string jobsOption = "--jobs=";
    Plan plan;
    for (const auto& argument : arguments)
    {
        if (argument.starts_with(jobsOption))
        {
            plan.jobs = parseJobs(argument.substr(jobsOption.size()));
        }
        else if (argument == "--fail-fast")
        {
            plan.failFast = true;
        }
        else if (argument == "--show")
        {
            isolated::show = true;
        }
        else if (argument.starts_with("-"))
        {
            throw std::invalid_argument(argument + ": no such option");
        }
        else
        {
            plan.names.push_back(argument);
        }
    }
    const auto all = testsMatching("*");
    for (const auto& name : plan.names)
    {
        if (std::find(all.begin(), all.end(), name) == all.end())
        {
            throw std::invalid_argument(name + ": no such test");
        }
    }
    if (plan.names.empty())
    {
        const std::string filter = testing::GTEST_FLAG(filter);
        plan.names = testsMatching(filter);
        if (plan.names.empty())
        {
            throw std::invalid_argument(filter + ": no test matches");
        }
    }
    return plan;
}

} // namespace

int main(int argc, char** argv)
{
    const std::vector<std::string> given{argv + 1, argv + argc};
    if (std::find(given.begin(), given.end(), "--help") != given.end() ||
        std::find(given.begin(), given.end(), "-h") != given.end())
    {
        std::cout << usage;
        return EXIT_SUCCESS;
    }
    testing::InitGoogleTest(&argc, argv);
    if (testing::GTEST_FLAG(list_tests))
    {
        return RUN_ALL_TESTS();
    }
    try
    {
        const auto plan = planOf({argv + 1, argv + argc});
        if (!board::sandbox::entered())
        {
            throw std::invalid_argument(
                std::string("not in a sandbox: run morrow-sandbox ") + argv[0]);
        }
        std::cout << "1.." << plan.names.size() << '\n';
        return runAll(plan) == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
    }
    catch (const std::invalid_argument& error)
    {
        std::cerr << argv[0] << ": " << error.what() << '\n';
        return usageError;
    }
}
