// SPDX-License-Identifier: Apache-2.0
#include "board/process/sandbox.hpp"
#include "board/util/error.hpp"

#include <sys/ipc.h>
#include <sys/prctl.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <system_error>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace
{

namespace fs = std::filesystem;
using testing::HasSubstr;

/** Runs a action in a process of its own; true when the action said so. */
bool inChild(const std::function<bool()>& action)
{
    const auto child = fork();
    if (child == 0)
    {
        auto ok = false;
        try
        {
            ok = action();
        }
        catch (const std::exception& error)
        {
            static_cast<void>(std::fprintf(stderr, "%s\n", error.what()));
        }
        _exit(ok ? 0 : 1);
    }
    int status = 0;
    return waitpid(child, &status, 0) == child && WIFEXITED(status) &&
           WEXITSTATUS(status) == 0;
}

struct Result
{
    int status = -1;
    std::string output;
};

Result output(const std::string& command)
{
    // NOLINTNEXTLINE(cert-env33-c): the shell sees the test's own words only
    auto* const pipe = popen((command + " 2>&1").c_str(), "re");
    Result result;
    std::array<char, 256> part{};
    while (std::fgets(part.data(), part.size(), pipe) != nullptr)
    {
        result.output += part.data();
    }
    result.status = WEXITSTATUS(pclose(pipe));
    return result;
}

Result wrapper(const std::string& arguments)
{
    return output(std::string(SANDBOX_PROGRAM) + " " + arguments);
}

bool touch(const fs::path& path)
{
    return std::ofstream(path).good();
}

constexpr uid_t nobody = 65534;

/** The first piece of this user namespace's map. */
struct UserMap
{
    std::uint64_t inside = 0;
    std::uint64_t outside = 0;
    std::uint64_t count = 0;
};

UserMap userMap()
{
    UserMap map;
    std::ifstream("/proc/self/uid_map") >> map.inside >> map.outside >>
        map.count;
    return map;
}

TEST(Sandbox, MakesTheCallerRootAndKnowsWhoEnteredIt)
{
    EXPECT_TRUE(board::sandbox::entered());
    EXPECT_EQ(board::sandbox::enteredByRoot(), userMap().outside == 0);
    EXPECT_EQ(geteuid(), 0U);
    EXPECT_EQ(getegid(), 0U);
}

TEST(Sandbox, KnowsThatAnotherUserEnteredIt)
{
    if (userMap().count <= nobody)
    {
        GTEST_SKIP() << "only root can play another user";
    }
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "the sanitizer has a thread of its own, and only a process "
                    "with one thread enters a user namespace";
#endif
    EXPECT_TRUE(inChild(
        []
        {
            board::sandbox::renew();
            // One that finds no sandbox, so that it makes its own.
            return fs::remove("/run/morrow-sandbox") &&
                   setresuid(nobody, nobody, nobody) == 0 &&
                   prctl(PR_SET_DUMPABLE, 1) == 0 &&
                   (board::sandbox::enter(), true) && geteuid() == 0 &&
                   !board::sandbox::enteredByRoot();
        }));
}

bool hasNamespaces(pid_t process)
{
    std::error_code none;
    const auto mounts = "/proc/" + std::to_string(process) + "/ns/mnt";
    return !fs::read_symlink(mounts, none).empty();
}

TEST(Sandbox, EndsWhoIsInsideAndNobodyElse)
{
    constexpr auto sleeper = "sleep 60 >/dev/null 2>&1 & echo $!";
    const auto outside = std::stoi(output(sleeper).output);
    EXPECT_TRUE(inChild(
        []
        {
            board::sandbox::renew();
            const auto inside = std::stoi(output(sleeper).output);
            const auto ran = hasNamespaces(inside);
            board::sandbox::endOthers();
            return ran && !hasNamespaces(inside);
        }));
    EXPECT_TRUE(hasNamespaces(outside));
    EXPECT_EQ(kill(outside, SIGKILL), 0);
}

TEST(Sandbox, HasTheTreesOfABoard)
{
    const fs::path driver("/sys/bus/platform/drivers/silvaco-i3c-master");
    EXPECT_TRUE(fs::is_regular_file(driver / "bind"));
    EXPECT_TRUE(fs::is_regular_file(driver / "unbind"));
    EXPECT_TRUE(fs::is_empty("/sys/class/i3c-mctp"));
    EXPECT_FALSE(fs::exists("/sys/kernel"));
    for (const auto* name : {"null", "zero", "full", "random", "urandom"})
    {
        EXPECT_TRUE(fs::is_character_file(fs::path("/dev") / name)) << name;
    }
    EXPECT_TRUE(touch("/dev/null"));
    EXPECT_TRUE(fs::exists("/dev/fd"));
    EXPECT_TRUE(touch("/dev/shm/x"));
    EXPECT_TRUE(fs::remove("/dev/shm/x"));
    EXPECT_TRUE(fs::is_empty("/run/dbus"));
    EXPECT_TRUE(fs::is_directory("/run/platform/io"));
}

TEST(Sandbox, RenewedOrEnteredTwiceHasFreshTreesAndTheParentKeepsItsOwn)
{
    ASSERT_TRUE(touch("/run/mine"));
    for (const auto again : {board::sandbox::renew, board::sandbox::enter})
    {
        EXPECT_TRUE(inChild(
            [again]
            {
                again();
                return board::sandbox::entered() && !fs::exists("/run/mine") &&
                       touch("/run/theirs") && touch("/dev/i3c-mctp-0") &&
                       touch("/sys/class/new");
            }));
    }
    EXPECT_TRUE(fs::exists("/run/mine"));
    EXPECT_FALSE(fs::exists("/run/theirs"));
    EXPECT_FALSE(fs::exists("/dev/i3c-mctp-0"));
    EXPECT_FALSE(fs::exists("/sys/class/new"));
    fs::remove("/run/mine");
}

TEST(Sandbox, RenewGivesFreshIpcAndLeavesNoMountBehind)
{
    const auto mounts = []
    {
        std::ifstream file("/proc/self/mounts");
        return std::string(std::istreambuf_iterator<char>(file), {});
    };
    constexpr key_t key = 0x6d6f7272;
    const auto before = mounts();
    const auto mine = shmget(key, 1, IPC_CREAT | 0600);
    ASSERT_GE(mine, 0);
    EXPECT_TRUE(inChild(
        []
        {
            board::sandbox::renew();
            return shmget(key, 1, 0) < 0 && errno == ENOENT;
        }));
    EXPECT_EQ(shmctl(mine, IPC_RMID, nullptr), 0);
    EXPECT_EQ(mounts(), before);
}

TEST(SandboxProgram, RunsACommand)
{
    const auto result = wrapper("-- sh -c 'ls -A /run; exit 7'");
    EXPECT_EQ(result.output, "dbus\nmorrow-sandbox\nplatform\n");
    EXPECT_EQ(result.status, 7);
    EXPECT_EQ(wrapper("echo -n --help").output, "--help");
    const auto missing = wrapper("/no/such/program");
    EXPECT_EQ(missing.output, "/no/such/program: No such file or directory\n");
    EXPECT_EQ(missing.status, 127);
}

TEST(SandboxProgram, PrintsItsUsage)
{
    EXPECT_EQ(wrapper("--help").status, 0);
    EXPECT_THAT(wrapper("--help").output,
                HasSubstr("Usage: morrow-sandbox [--] COMMAND [ARGUMENT...]"));
    EXPECT_EQ(wrapper("").status, 2);
    EXPECT_EQ(wrapper("--nonsense").status, 2);
}

TEST(SandboxProgram, FailsWhenItsHelpDoesNotArrive)
{
    const auto result =
        output("sh -c '" SANDBOX_PROGRAM " --help 2>&1 >/dev/full'");
    EXPECT_EQ(result.status, 125);
    EXPECT_EQ(result.output, "morrow-sandbox: cannot write all of standard "
                             "output: No space left on device\n");
}

TEST(SandboxProgram, LeavesStreamsThatAreClosedAsTheyAre)
{
    for (const auto* number : {"0", "1", "2"})
    {
        const std::string name(number);
        // A shell opens nothing at these numbers by itself.
        const auto result =
            output("sh -c '" SANDBOX_PROGRAM " sh -c \"[ -e /proc/self/fd/" +
                   name + " ] && exit 8; exit 7\" " + name + ">&-'");
        EXPECT_EQ(result.status, 7) << name << result.output;
    }
}

TEST(SandboxProgram, SaysWhatToDoWhereMountsAreRefused)
{
    // In a tree without the sandbox's mark, with no user namespace to be had
    // below this one, and run without the right to mount.
    EXPECT_TRUE(inChild(
        []
        {
            board::sandbox::renew();
            fs::remove("/run/morrow-sandbox");
            std::ofstream("/proc/sys/user/max_user_namespaces") << 0;
            const auto result = output(
                "setpriv --inh-caps=-all --bounding-set=-all " SANDBOX_PROGRAM
                " true");
            return result.status == 125 &&
                   result.output.find("run as root\n") != std::string::npos &&
                   result.output.find('\n') == result.output.size() - 1;
        }));
}

} // namespace
