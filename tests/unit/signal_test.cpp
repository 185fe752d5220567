// SPDX-License-Identifier: Apache-2.0
#include "morrow/morrow_signal.hpp"
#include "tests/support/fake_platform.hpp"
#include "tests/support/leave.hpp"
#include "tests/support/limits.hpp"
#include "tests/support/record.hpp"
#include "tests/support/transcript.hpp"
#include "tests/unit/bus_trace.hpp"

#include <poll.h>
#include <pthread.h>
#include <signal.h> // NOLINT(modernize-deprecated-headers): sigaction
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::ElementsAre;
using testing::IsEmpty;
using namespace bus_trace;

namespace
{

Texts trace()
{
    return record::textsOf(record::thisThread());
}

constexpr const char* threadEnters =
    "log 4 morrow_signal: Entry [signal_thread_fn]\n";
constexpr const char* gotSignal =
    "log 4 morrow_signal: Got signal Stopping MORROW\n";
constexpr const char* stopped = "log 4 morrow_signal: Stopped MORROW\n";

/** Sends this process a signal; the kernel picks the thread. */
void sendSignal(int number)
{
    ASSERT_EQ(kill(getpid(), number), 0);
}

/** What serves a signal. */
sighandler_t handlerOf(int number)
{
    struct sigaction action
    {
    };
    sigaction(number, nullptr, &action);
    return action.sa_handler;
}

/** What serves each signal but those that the daemon serves. */
std::vector<sighandler_t> handlersOfOthers()
{
    std::vector<sighandler_t> handlers;
    for (int number = 1; number < NSIG; ++number)
    {
        if (number != SIGTERM && number != SIGSEGV && number != SIGBUS)
        {
            handlers.push_back(handlerOf(number));
        }
    }
    return handlers;
}

/** Whether a signal has its default action. */
bool isDefault(int number)
{
    return handlerOf(number) == SIG_DFL;
}

class Signal : public testing::Test
{
  protected:
    /** Ends the signal thread, if it runs, so that the process can end. */
    ~Signal() override
    {
        if (record::count(threadEnters) > 0 && record::count(stopped) == 0)
        {
            morrow_signal::get_instance().post_stop();
        }
        if (record::count("log 4 morrow_signal: Created signal thread\n") > 0 &&
            record::count("log 4 morrow_signal: Entry [wait_stop]\n") == 0)
        {
            morrow_signal::get_instance().wait_stop();
        }
    }

    /** Starts the signal side and waits for its thread to wait. */
    static void start()
    {
        ASSERT_EQ(morrow_init_signal(), 0U);
        ASSERT_TRUE(record::waitFor(threadEnters));
    }
};

} // namespace

TEST_F(Signal, FirstUseLogsItsEntryBeforeTheConstructors)
{
    morrow_signal::get_instance();
    morrow_signal::get_instance();
    EXPECT_THAT(trace(),
                ElementsAre("log 4 morrow_signal: Entry [get_instance]\n",
                            "log 4 morrow_signal: Entry [morrow_signal]\n",
                            "log 4 morrow_signal: Entry [get_instance]\n"));
    EXPECT_EQ(morrow_signal::get_instance().get_stop_state(), 0);
}

TEST_F(Signal, SetUpHasTheExpectedTrace)
{
    start();
    EXPECT_THAT(trace(),
                ElementsAre("log 4 morrow_signal: Entry [get_instance]\n",
                            "log 4 morrow_signal: Entry [morrow_signal]\n",
                            "log 4 morrow_signal: Entry [morrow_init_signal]\n",
                            "log 4 morrow_signal: Entry [register_signal]\n",
                            "log 4 morrow_signal: Created signal thread\n"));
}

TEST_F(Signal, SecondSetUpKeepsTheThreadAndInstallsTheHandlers)
{
    start();
    signal(SIGTERM, SIG_DFL);
    EXPECT_EQ(morrow_init_signal(), 0U);
    EXPECT_EQ(trace().back(),
              "log 4 morrow_signal: Signal thread is already created\n");
    EXPECT_EQ(record::count(threadEnters), 1);
    EXPECT_FALSE(isDefault(SIGTERM));
}

TEST_F(Signal, OneHandlerServesTermSegvAndBusAndNothingElse)
{
    const auto before = handlersOfOthers();
    start();
    EXPECT_THAT(fake::signalsSet(), ElementsAre(SIGTERM, SIGSEGV, SIGBUS));
    EXPECT_FALSE(isDefault(SIGTERM));
    EXPECT_EQ(handlerOf(SIGSEGV), handlerOf(SIGTERM));
    EXPECT_EQ(handlerOf(SIGBUS), handlerOf(SIGTERM));
    EXPECT_EQ(handlersOfOthers(), before);
}

TEST_F(Signal, ThreadThatCannotStartIsLoggedAndStartedTheNextTime)
{
    {
        const limits::NoNewThreads none;
        EXPECT_EQ(morrow_init_signal(), 2U);
    }
    EXPECT_EQ(trace().back(),
              "log 4 morrow_signal: Failed to create signal thread\n");
    EXPECT_THAT(fake::signalsSet(), IsEmpty());
    fake::semaphoreInitError = ENOSYS; // the semaphore exists already
    start();
    EXPECT_FALSE(isDefault(SIGTERM));
}

TEST_F(Signal, SemaphoreThatCannotBeCreatedIsLoggedAndCreatedTheNextTime)
{
    fake::semaphoreInitError = ENOSYS;
    EXPECT_EQ(morrow_init_signal(), 2U);
    EXPECT_EQ(trace().back(),
              "log 4 morrow_signal: Failed to initialize semaphore\n");
    EXPECT_THAT(fake::signalsSet(), IsEmpty());
    EXPECT_TRUE(fake::semaphores().empty());
    fake::semaphoreInitError = 0;
    start();
    const auto created = fake::semaphores();
    ASSERT_EQ(created.size(), 1U);
    EXPECT_EQ(created[0].shared, 0);
    EXPECT_EQ(created[0].value, 0U);
}

TEST_F(Signal, TerminationBeforeStartUpFinishedStopsNoBus)
{
    start();
    const std::string handled = "log 4 morrow_signal: Entry [get_instance]\n";
    const auto before = record::count(handled);
    sendSignal(SIGTERM);
    ASSERT_TRUE(record::waitFor(stopped));
    EXPECT_EQ(record::count(handled), before + 1);
    EXPECT_EQ(morrow_signal::get_instance().get_stop_state(), 2);
    EXPECT_THAT(withoutHandler(traceOf(threadOf(threadEnters))),
                ElementsAre(threadEnters, gotSignal, stopped));
}

TEST_F(Signal, HandlerLeavesErrnoAlone)
{
    start();
    fake::errnoOfLog = EPROTO;
    errno = ERANGE;
    ASSERT_EQ(raise(SIGTERM), 0);
    EXPECT_EQ(errno, ERANGE);
    fake::errnoOfLog = 0;
}

TEST_F(Signal, BusSidesThatWereNeverStartedAreStoppedAnyway)
{
    start();
    auto& signal = morrow_signal::get_instance();
    signal.set_dbus_ready();
    EXPECT_EQ(trace().back(), "log 4 morrow_signal: Entry [set_dbus_ready]\n");
    sendSignal(SIGTERM);
    ASSERT_TRUE(record::waitFor(stopped));
    EXPECT_EQ(
        withoutHandler(traceOf(threadOf(threadEnters))),
        (Texts{
             threadEnters, gotSignal,
             "log 4 morrow_client: morrow_dbus_client - Default constructor\n",
             "log 4 morrow_server: morrow_dbus_server - Default "
             "constructor\n"} +
         findsBusSidesStopped));
}

TEST_F(Signal, WaitStopPollsEvery100MsUntilStopped)
{
    start();
    auto& signal = morrow_signal::get_instance();
    int sleeps = 0;
    fake::onSleep = [&](int64_t length)
    {
        EXPECT_EQ(length, 100);
        if (++sleeps == 3)
        {
            signal.post_stop();
        }
        if (sleeps >= 3)
        {
            ASSERT_TRUE(record::waitFor(stopped));
        }
    };
    signal.wait_stop();
    EXPECT_EQ(sleeps, 3);
    fake::onSleep = {};
    const Texts texts = trace();
    EXPECT_THAT(Texts(texts.end() - 4, texts.end()),
                ElementsAre("log 4 morrow_signal: Entry [wait_stop]\n",
                            "sleep 100 ms", "sleep 100 ms", "sleep 100 ms"));
}

TEST_F(Signal, WaitStopLogsAThreadThatCannotBeJoined)
{
    start();
    auto& signal = morrow_signal::get_instance();
    signal.post_stop();
    signal.wait_stop();
    signal.wait_stop();
    EXPECT_EQ(trace().back(), "log 4 morrow_signal: Failed to terminate thread "
                              "[Invalid argument].\n");
}

TEST_F(Signal, SecondRunWaitsForASecondTermination)
{
    start();
    auto& signal = morrow_signal::get_instance();
    sendSignal(SIGTERM);
    ASSERT_TRUE(record::waitFor(stopped));
    std::thread second(
        [&signal]
        {
            signal.signal_thread_fn();
        });
    ASSERT_TRUE(record::waitFor(threadEnters, 2));
    // Long enough for a stop that comes too early.
    (void)poll(nullptr, 0, 100);
    EXPECT_EQ(record::count(gotSignal), 1);
    EXPECT_EQ(record::count(stopped), 1);
    sendSignal(SIGTERM);
    second.join();
    EXPECT_EQ(record::count(stopped), 2);
    EXPECT_EQ(signal.get_stop_state(), 2);
}

TEST_F(Signal, SegmentationFaultEndsTheProcessByItsDefaultAction)
{
    EXPECT_EXIT(
        {
            start();
            void* page =
                mmap(nullptr, 1, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
            *static_cast<volatile char*>(page) = 1;
        },
        testing::KilledBySignal(SIGSEGV), "");
}

TEST_F(Signal, BusErrorEndsTheProcessByItsDefaultAction)
{
    EXPECT_EXIT(
        {
            start();
            void* page = mmap(nullptr, 1, PROT_WRITE, MAP_SHARED,
                              memfd_create("empty", MFD_CLOEXEC), 0);
            *static_cast<volatile char*>(page) = 1; // past the file's end
        },
        testing::KilledBySignal(SIGBUS), "");
}

TEST_F(Signal, FaultHandlerResetsTheDispositionAndPostsNothing)
{
    // The thread is held before it waits, and takes nothing.
    std::promise<void> go;
    record::when(threadEnters,
                 [held = go.get_future().share()]
                 {
                     held.wait();
                 });
    start();
    for (const int number : {SIGSEGV, SIGBUS})
    {
        ASSERT_FALSE(isDefault(number));
        // Without a fault, the handler returns and the program continues.
        ASSERT_EQ(raise(number), 0);
        EXPECT_TRUE(isDefault(number));
        EXPECT_THAT(fake::semaphoreValues(), ElementsAre(0));
    }
    ASSERT_EQ(raise(SIGTERM), 0);
    EXPECT_THAT(fake::semaphoreValues(), ElementsAre(1));
    go.set_value();
}

TEST_F(Signal, HandlerDoesNothingForAnyOtherSignal)
{
    start();
    struct sigaction handler
    {
    };
    ASSERT_EQ(sigaction(SIGTERM, nullptr, &handler), 0);
    signal(SIGUSR1, SIG_IGN);
    const auto before = trace().size();
    handler.sa_handler(SIGUSR1);
    EXPECT_EQ(traceFrom(before),
              Texts{"log 4 morrow_signal: Entry [get_instance]\n"});
    EXPECT_FALSE(isDefault(SIGUSR1));
    EXPECT_FALSE(isDefault(SIGSEGV));
    EXPECT_EQ(record::count("log 4 morrow_signal: Got signal Stopping "
                            "MORROW\n"),
              0);
}

TEST_F(Signal, BusSidesAreReadyOnlyAfterThatWasLogged)
{
    start();
    auto& signal = morrow_signal::get_instance();
    record::when("log 4 morrow_signal: Entry [set_dbus_ready]",
                 [&signal]
                 {
                     signal.post_stop();
                     ASSERT_TRUE(record::waitFor(stopped));
                 });
    signal.set_dbus_ready();
    EXPECT_EQ(record::count("log 4 morrow_signal: Stopping Dbus\n"), 0);
}

TEST_F(Signal, StopStateIs1UntilTheBusSidesAreStopped)
{
    start();
    auto& signal = morrow_signal::get_instance();
    signal.set_dbus_ready();
    for (std::size_t run = 1; run <= 2; ++run)
    {
        std::mutex mutex;
        std::vector<int> states;
        for (const char* text :
             {"log 4 morrow_signal: Got signal Stopping MORROW",
              "log 4 morrow_signal: Stopping Dbus",
              "log 4 morrow_server: stop_morrow_dbus_server - Enter",
              "log 4 morrow_signal: Stopped MORROW"})
        {
            record::when(text,
                         [&signal, &states, &mutex]
                         {
                             const std::lock_guard lock(mutex);
                             states.push_back(signal.get_stop_state());
                         });
        }
        signal.post_stop();
        if (run == 2)
        {
            signal.signal_thread_fn();
        }
        ASSERT_TRUE(record::waitFor(stopped, run));
        ASSERT_TRUE(record::waitUntil(
            [&states, &mutex]
            {
                const std::lock_guard lock(mutex);
                return states.size() == 4;
            }));
        EXPECT_THAT(states, ElementsAre(run == 1 ? 0 : 2, 1, 1, 2));
        EXPECT_EQ(signal.get_stop_state(), 2);
    }
}

/** Ends a process whose signal side was stopped. Its exit status is 42 if this
 *  is the last that was logged. */
[[noreturn]] void endAfterAStop(int destroyError, const char* lastLogged)
{
    static const char* expected = nullptr;
    expected = lastLogged;
    // Registered before the singleton is created: runs after its destructor.
    (void)std::atexit(
        []
        {
            leave(record::texts().back() == expected ? 42 : 1);
        });
    morrow_init_signal();
    sendSignal(SIGTERM);
    morrow_signal::get_instance().wait_stop();
    fake::semaphoreDestroyError = destroyError;
    std::exit(0);
}

TEST_F(Signal, DestructorLogsItsEntryAndASemaphoreThatCannotBeDestroyed)
{
    EXPECT_EXIT(
        endAfterAStop(0, "log 4 morrow_signal: Entry [~morrow_signal]\n"),
        testing::ExitedWithCode(42), "");
    EXPECT_EXIT(
        endAfterAStop(EINVAL,
                      "log 4 morrow_signal: Failed to destroy semaphore\n"),
        testing::ExitedWithCode(42), "");
}

TEST_F(Signal, ThreadThatWasNotJoinedEndsTheProcess)
{
    EXPECT_EXIT(
        {
            start();
            std::exit(0);
        },
        testing::KilledBySignal(SIGABRT), "");
}

TEST_F(Signal, WaitThatIsInterruptedEndsAsIfPosted)
{
    start();
    struct sigaction interruption
    {
    };
    interruption.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGUSR1, &interruption, nullptr), 0);
    const pid_t thread = threadOf(threadEnters);
    // Repeated: a signal before the wait has no effect.
    EXPECT_TRUE(record::waitUntil(
        [thread]
        {
            (void)tgkill(getpid(), thread, SIGUSR1);
            return record::count(stopped) == 1;
        }));
}

TEST_F(Signal, WaitStopResumesItsSleepAfterASignal)
{
    start();
    auto& signal = morrow_signal::get_instance();
    fake::interruptedSleeps = 1;
    fake::onSleep = [&signal](int64_t length)
    {
        EXPECT_EQ(length, 50);
        signal.post_stop();
        ASSERT_TRUE(record::waitFor(stopped));
    };
    signal.wait_stop();
    fake::onSleep = {};
    const Texts texts = trace();
    EXPECT_THAT(Texts(texts.end() - 3, texts.end()),
                ElementsAre("log 4 morrow_signal: Entry [wait_stop]\n",
                            "sleep 100 ms", "sleep 50 ms"));
}

TEST_F(Signal, SemaphoreThatWasNeverCreatedIsNotDestroyed)
{
    EXPECT_EXIT(
        {
            fake::onSemaphoreDestroy = []
            {
                std::_Exit(1);
            };
            (void)std::atexit(
                []
                {
                    std::_Exit(42);
                });
            morrow_signal::get_instance();
            std::exit(0);
        },
        testing::ExitedWithCode(42), "");
}
