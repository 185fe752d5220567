// SPDX-License-Identifier: Apache-2.0

/**
 * The main function of the unit test programs: each test in a process and in
 * trees of its own.
 *
 * The daemon's singletons, threads and globals live as long as their process,
 * and its files have fixed paths. So every test is run in a child with fresh
 * /sys, /dev, /run and System V IPC, and a test that ends its process, as some
 * behaviour of the daemon does, ends nobody else. Results are printed as TAP;
 * what a failed test printed follows as comments.
 *
 * Arguments: --jobs=N for so many tests at a time, --fail-fast for ending at
 * the first test that fails, then names of tests ("Suite.Test") to run; without
 * any, all.
 */

#include "board/process/sandbox.hpp"
#include "board/util/error.hpp"

#include <poll.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace
{

using Clock = std::chrono::steady_clock;

constexpr auto limit = std::chrono::minutes(2);
constexpr std::string_view jobsOption = "--jobs=";
constexpr std::string_view failFastOption = "--fail-fast";

/** What to run and how. */
struct Plan
{
    std::vector<std::string> names;
    std::size_t atATime = 1;
    bool failFast = false;
};

std::vector<std::string> allTests()
{
    std::vector<std::string> names;
    const auto& registry = *testing::UnitTest::GetInstance();
    for (int suite = 0; suite < registry.total_test_suite_count(); ++suite)
    {
        const auto& tests = *registry.GetTestSuite(suite);
        for (int test = 0; test < tests.total_test_count(); ++test)
        {
            names.push_back(std::string(tests.name()) + "." +
                            tests.GetTestInfo(test)->name());
        }
    }
    return names;
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
    testing::GTEST_FLAG(filter) = name;
    const int result = RUN_ALL_TESTS();
    // Not _exit: the daemon's singletons end with the process, and the leak
    // checker looks at what is left.
    std::exit(result);
}

/** A test that runs. */
struct Running
{
    std::string name;
    pid_t child;
    int handle; //!< readable when the child has ended
    int output; //!< what it prints
    Clock::time_point deadline;
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
    return {name, child, static_cast<int>(syscall(SYS_pidfd_open, child, 0)),
            output, Clock::now() + limit};
}

/** Takes a child that has ended, or ends one that has not.
 *  @return why it failed, empty when it passed */
std::string outcomeOf(const Running& test, bool hung)
{
    if (hung)
    {
        kill(test.child, SIGKILL);
    }
    int status = 0;
    waitpid(test.child, &status, 0);
    close(test.handle);
    if (hung)
    {
        return "hung";
    }
    if (WIFSIGNALED(status))
    {
        return "ended by " + std::string(strsignal(WTERMSIG(status)));
    }
    if (WEXITSTATUS(status) != 0)
    {
        return "exit status " + std::to_string(WEXITSTATUS(status));
    }
    return {};
}

void printAsComments(int output)
{
    std::string text;
    std::array<char, 4096> buffer{};
    lseek(output, 0, SEEK_SET);
    for (ssize_t got = 0;
         (got = read(output, buffer.data(), buffer.size())) > 0;)
    {
        text.append(buffer.data(), static_cast<std::size_t>(got));
    }
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);)
    {
        std::cout << "# " << line << '\n';
    }
}

/** Prints a result. @return whether the test passed */
bool report(const Running& test, bool hung, std::size_t number)
{
    const auto failure = outcomeOf(test, hung);
    std::cout << (failure.empty() ? "ok " : "not ok ") << number << " - "
              << test.name << '\n';
    if (!failure.empty())
    {
        std::cout << "# " << failure << '\n';
        printAsComments(test.output);
    }
    close(test.output);
    return failure.empty();
}

/** Waits until one of these has ended or has run too long.
 *  @return which, and whether it ran too long */
std::pair<std::size_t, bool> awaitOne(const std::vector<Running>& tests)
{
    while (true)
    {
        std::vector<pollfd> ended;
        ended.reserve(tests.size());
        for (const auto& test : tests)
        {
            ended.push_back(
                {.fd = test.handle, .events = POLLIN, .revents = 0});
        }
        constexpr int lookAtDeadlinesMs = 1000;
        (void)poll(ended.data(), ended.size(), lookAtDeadlinesMs);
        for (std::size_t index = 0; index < tests.size(); ++index)
        {
            if (ended[index].revents != 0)
            {
                return {index, false};
            }
            if (Clock::now() >= tests[index].deadline)
            {
                return {index, true};
            }
        }
    }
}

/** Ends tests whose results are not wanted any more. */
void giveUp(const std::vector<Running>& tests)
{
    for (const auto& test : tests)
    {
        (void)outcomeOf(test, true);
        close(test.output);
    }
    std::cout << "Bail out! A test has failed\n";
}

/** Runs the tests. @return how many failed */
std::size_t runAll(const Plan& plan)
{
    auto names = plan.names;
    std::reverse(names.begin(), names.end());
    std::vector<Running> running;
    std::size_t number = 0;
    std::size_t failed = 0;
    while (!names.empty() || !running.empty())
    {
        while (!names.empty() && running.size() < plan.atATime)
        {
            running.push_back(start(names.back()));
            names.pop_back();
        }
        const auto [index, hung] = awaitOne(running);
        failed += report(running[index], hung, ++number) ? 0 : 1;
        running.erase(running.begin() + static_cast<std::ptrdiff_t>(index));
        if (failed > 0 && plan.failFast)
        {
            giveUp(running);
            break;
        }
    }
    return failed;
}

Plan planOf(const std::vector<std::string>& arguments)
{
    Plan plan;
    for (const auto& argument : arguments)
    {
        if (argument.starts_with(jobsOption))
        {
            plan.atATime = std::stoul(argument.substr(jobsOption.size()));
        }
        else if (argument == failFastOption)
        {
            plan.failFast = true;
        }
        else
        {
            plan.names.push_back(argument);
        }
    }
    if (plan.names.empty())
    {
        plan.names = allTests();
    }
    return plan;
}

} // namespace

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    const auto plan = planOf({argv + 1, argv + argc});
    if (!board::sandbox::entered())
    {
        std::cerr << argv[0] << ": is to be run in the sandbox: morrow-sandbox "
                  << argv[0] << '\n';
        return EXIT_FAILURE;
    }
    std::cout << "1.." << plan.names.size() << '\n';
    return runAll(plan) == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
