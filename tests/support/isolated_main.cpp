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
 * Arguments: names of tests ("Suite.Test") to run; without any, all.
 */

#include "board/error.hpp"
#include "board/sandbox.hpp"

#include <poll.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace
{

constexpr int limitMs = 120'000;

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

/** Waits for the child.
 *  @return why it failed, empty when it passed */
std::string outcomeOf(pid_t child)
{
    const int handle = static_cast<int>(syscall(SYS_pidfd_open, child, 0));
    pollfd ended{.fd = handle, .events = POLLIN, .revents = 0};
    const bool hung = poll(&ended, 1, limitMs) == 0;
    close(handle);
    if (hung)
    {
        kill(child, SIGKILL);
    }
    int status = 0;
    waitpid(child, &status, 0);
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

bool passes(const std::string& name, std::size_t number)
{
    const int output = memfd_create("output", MFD_CLOEXEC);
    std::cout.flush();
    const pid_t child = fork();
    if (child == 0)
    {
        runAlone(name, output);
    }
    const auto failure = outcomeOf(child);
    std::cout << (failure.empty() ? "ok " : "not ok ") << number << " - "
              << name << '\n';
    if (!failure.empty())
    {
        std::cout << "# " << failure << '\n';
        printAsComments(output);
    }
    close(output);
    return failure.empty();
}

} // namespace

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    std::vector<std::string> names(argv + 1, argv + argc);
    if (names.empty())
    {
        names = allTests();
    }
    if (!board::sandbox::entered())
    {
        std::cerr << argv[0] << ": is to be run in the sandbox: morrow-sandbox "
                  << argv[0] << '\n';
        return EXIT_FAILURE;
    }
    std::cout << "1.." << names.size() << '\n';
    std::size_t number = 0;
    const auto failed = std::count_if(names.begin(), names.end(),
                                      [&number](const auto& name)
                                      {
                                          return !passes(name, ++number);
                                      });
    return failed == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
