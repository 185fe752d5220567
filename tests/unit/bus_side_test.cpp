// SPDX-License-Identifier: Apache-2.0

/**
 * What the client and the server have in common: start, thread, event loop and
 * stop. Each test runs with both.
 */

#include "morrow/morrow_client.hpp"
#include "morrow/morrow_server.hpp"
#include "tests/support/broker.hpp"
#include "tests/support/bus_observer.hpp"
#include "tests/support/bus_spy.hpp"
#include "tests/support/event_loop.hpp"
#include "tests/support/fake_platform.hpp"
#include "tests/support/host_service.hpp"
#include "tests/support/leave.hpp"
#include "tests/support/limits.hpp"
#include "tests/support/mutex_look.hpp"
#include "tests/support/record.hpp"
#include "tests/support/thread_status.hpp"
#include "tests/support/transcript.hpp"
#include "tests/unit/bus_trace.hpp"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <future>
#include <mutex>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::AllOf;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::Pair;
using testing::StartsWith;
using namespace transcript;

namespace
{

/** One of the two, with the texts in which they differ. */
struct Side
{
    std::string name; //!< client, server
    std::string threadBody;
    std::string handler; //!< of messages
    int readyLevel;
    std::string readyName; //!< in the line of readiness
    std::string pipeError; //!< the end of a text
    int threadErrorResult;
    std::string threadError;
    Texts preparation; //!< of the thread, before its loop
    Texts unloading; //!< of a stop, when the thread has ended
    int (*init)();
    int (*stop)();
    int (*serve)(sd_event_source*, int, uint32_t, void*);
    void (*sendMessage)(); //!< to the side
    StopPipe& pipe;
    sem_t& semaphore;
    sd_event*& loop;
    std::mutex& mutex;

    std::string line(int level, const std::string& text) const
    {
        return "log " + std::to_string(level) + " morrow_" + name + ": " +
               text + "\n";
    }

    std::string initFunction() const
    {
        return "morrow_dbus_" + name + "_init";
    }

    std::string stopFunction() const
    {
        return "stop_morrow_dbus_" + name;
    }

    std::string constructed() const
    {
        return line(4, "morrow_dbus_" + name + " - Default constructor");
    }

    std::string initEnters() const
    {
        return line(4, initFunction() + " - Enter");
    }

    std::string initExits() const
    {
        return line(4, initFunction() + " - Exit");
    }

    std::string stopEnters() const
    {
        return line(4, stopFunction() + " - Enter");
    }

    std::string stopExits() const
    {
        return line(4, stopFunction() + " - Exit");
    }

    std::string threadExits() const
    {
        return line(4, threadBody + " - Exit");
    }

    std::string loopEnters() const
    {
        return line(4, "createMorrowEventLoop - Enter");
    }

    std::string ready() const
    {
        return line(readyLevel, "createMorrowEventLoop - morrow DBus " +
                                    readyName + " Initialization Completed.");
    }

    std::string loopStarts() const
    {
        return line(4, "createMorrowEventLoop - Starting sd_event_loop");
    }

    std::string loopReturns() const
    {
        return line(4, "createMorrowEventLoop - sd_event_loop returned");
    }

    std::string gotByte(int byte) const
    {
        return line(readyLevel == 1 ? 4 : 1,
                    "morrowProcessSig - signal: " + std::to_string(byte));
    }

    /** The events of the thread until its loop is created. */
    Texts threadBegins() const
    {
        return Texts{line(4, threadBody + " - Enter")} + preparation +
               Texts{loopEnters()};
    }
};

const Side clientSide{
    .name = "client",
    .threadBody = "morrowClientDBusHandler",
    .handler = "morrowClientProcessRequest",
    .readyLevel = 4,
    .readyName = "Client",
    .pipeError = "pipe: Too many open files",
    .threadErrorResult = 1,
    .threadError = " -Error creating thread",
    .preparation = bus_trace::fillsItsMaps,
    .unloading = {},
    .init = []() -> int
    {
        return morrow_dbus_client_init();
    },
    .stop = []() -> int
    {
        return morrow_dbus_client::get_instance().stop_morrow_dbus_client();
    },
    .serve = morrowClientProcessRequest,
    .sendMessage =
        []
    {
        HostControl().changes(HostControl::resetCause, {});
    },
    .pipe = clientSignalPipe,
    .semaphore = clientReadySemaphore,
    .loop = clientEvent,
    .mutex = clientBusMutex,
};

const Side serverSide{
    .name = "server",
    .threadBody = "morrowDBusMgrHandler",
    .handler = "morrowProcessRequest",
    .readyLevel = 1,
    .readyName = "Server",
    .pipeError = "pipe:Too many open files",
    .threadErrorResult = 4,
    .threadError = " - Error to create service thread ",
    .preparation = {},
    .unloading = {"log 4 morrow_server: UnloadDBusObjects - Enter\n",
                  "log 4 morrow_server: UnloadDBusObjects - Exit\n"},
    .init = []() -> int
    {
        return morrow_dbus_server_init();
    },
    .stop = []() -> int
    {
        return morrow_dbus_server::get_instance().stop_morrow_dbus_server();
    },
    .serve = morrowProcessRequest,
    .sendMessage =
        []
    {
        (void)busctl::managedObjects("/xyz/openbmc_project/mctp/0");
    },
    .pipe = serverSignalPipe,
    .semaphore = serverReadySemaphore,
    .loop = serverEvent,
    .mutex = server_mutex,
};

std::string nameOf(const testing::TestParamInfo<const Side*>& side)
{
    return side.param->name;
}

class BusSideStart : public testing::TestWithParam<const Side*>
{
  protected:
    /** Expects a start that fails, with its whole transcript. */
    void expectFailure(int result, const std::string& error)
    {
        EXPECT_EQ(side.init(), result);
        EXPECT_THAT(traceFrom(0),
                    ElementsAre(side.initEnters(), side.constructed(),
                                side.line(1, side.initFunction() + error),
                                side.initExits()));
    }

    /** Starts the side in a child that exits with 42 if the thread has ended
     *  with these events and the start has not returned. */
    void expectNoReturn(const Texts& threadTrace) const
    {
        EXPECT_EXIT(
            {
                const auto started = std::async(std::launch::async, side.init);
                const bool ended = record::waitFor(side.threadExits());
                EXPECT_EQ(record::textsOf(threadOf(side.threadExits())),
                          threadTrace);
                // Long enough for a start that returns.
                const bool waits =
                    started.wait_for(std::chrono::milliseconds(100)) ==
                    std::future_status::timeout;
                leave(ended && waits && !HasFailure() ? 42 : 1);
            },
            testing::ExitedWithCode(42), "");
    }

    const Side& side = *GetParam();
    Broker broker;
};

/** Tests with a side that runs. */
class BusSide : public BusSideStart
{
  protected:
    BusSide()
    {
        EXPECT_EQ(side.init(), 0);
        EXPECT_TRUE(record::waitFor(side.loopStarts()));
        thread = threadOf(side.ready());
        skipped = record::textsOf(thread).size();
    }

    ~BusSide() override
    {
        if (record::count(side.threadExits()) == 0)
        {
            EXPECT_EQ(side.stop(), 0);
        }
    }

    /** The events of the thread since the start. */
    Texts threadTrace() const
    {
        return traceOf(thread, skipped);
    }

    /** Spies on the thread from now on: a byte that is ignored makes it log. */
    void watchTheThread() const
    {
        record::when(side.gotByte(7), bus_spy::watchThisThread);
        ASSERT_EQ(write(side.pipe[1], "\7", 1), 1);
        ASSERT_TRUE(record::waitFor(side.gotByte(7)));
    }

    pid_t thread = 0;
    std::size_t skipped = 0;
};

using BusSideStop = BusSide;

INSTANTIATE_TEST_SUITE_P(Both, BusSideStart,
                         testing::Values(&clientSide, &serverSide), nameOf);
INSTANTIATE_TEST_SUITE_P(Both, BusSide,
                         testing::Values(&clientSide, &serverSide), nameOf);
INSTANTIATE_TEST_SUITE_P(Both, BusSideStop,
                         testing::Values(&clientSide, &serverSide), nameOf);

} // namespace

// Start

TEST_P(BusSideStart, LogsOnBothThreads)
{
    EXPECT_EQ(side.init(), 0);
    EXPECT_THAT(traceFrom(0), ElementsAre(side.initEnters(), side.constructed(),
                                          side.initExits()));
    ASSERT_TRUE(record::waitFor(side.loopStarts()));
    const auto thread = threadOf(side.ready());
    EXPECT_NE(thread, record::thisThread());
    EXPECT_EQ(record::textsOf(thread),
              (side.threadBegins() + Texts{side.ready(), side.loopStarts()}));
    EXPECT_EQ(side.stop(), 0);
}

TEST_P(BusSideStart, ReturnsBetweenTheLineOfReadinessAndTheStartOfTheLoop)
{
    std::size_t returnedBefore = 1;
    bool returnedAfter = false;
    record::when(side.ready(),
                 [&]
                 {
                     // Long enough for a start that returns too early.
                     (void)poll(nullptr, 0, 100);
                     returnedBefore = record::count(side.initExits());
                 });
    record::when(side.loopStarts(),
                 [&]
                 {
                     returnedAfter = record::waitFor(side.initExits());
                 });
    EXPECT_EQ(side.init(), 0);
    EXPECT_EQ(side.stop(), 0);
    EXPECT_EQ(returnedBefore, 0U);
    EXPECT_TRUE(returnedAfter);
}

TEST_P(BusSideStart, ClosesThePipeOnExec)
{
    EXPECT_EQ(side.init(), 0);
    EXPECT_EQ(fcntl(side.pipe[0], F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(fcntl(side.pipe[1], F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(side.stop(), 0);
}

TEST_P(BusSideStart, SemaphoreLastsUntilTheLoopIsReadyAndIsDestroyedTwice)
{
    fake::Semaphore whenReady{};
    record::when(side.ready(),
                 [&]
                 {
                     whenReady = fake::semaphore(&side.semaphore);
                 });
    std::vector<int> destroyed;
    for (const auto& exit : {side.initExits(), side.stopExits()})
    {
        record::when(exit,
                     [&]
                     {
                         destroyed.push_back(
                             fake::semaphore(&side.semaphore).destroyed);
                     });
    }
    EXPECT_EQ(side.init(), 0);
    EXPECT_EQ(whenReady.shared, 0);
    EXPECT_EQ(whenReady.value, 0U);
    EXPECT_EQ(whenReady.destroyed, 0);
    EXPECT_EQ(side.stop(), 0);
    EXPECT_THAT(destroyed, ElementsAre(1, 2));
}

TEST_P(BusSideStart, WithoutASemaphoreEndsWith1)
{
    fake::semaphoreInitError = ENOSYS;
    expectFailure(1, " -Semaphore init failed:Function not implemented");
    EXPECT_EQ(side.pipe, closedStopPipe);
}

TEST_P(BusSideStart, WithoutAPipeEndsWith1AndDestroysTheSemaphore)
{
    const limits::NoNewDescriptors none;
    expectFailure(1, " -Failed to create signal " + side.pipeError);
    EXPECT_EQ(fake::semaphore(&side.semaphore).destroyed, 1);
}

TEST_P(BusSideStart, WithoutAThreadFailsAndDestroysTheSemaphore)
{
    const limits::NoNewThreads none;
    expectFailure(side.threadErrorResult, side.threadError);
    EXPECT_EQ(fake::semaphore(&side.semaphore).destroyed, 1);
}

TEST_P(BusSideStart, StopWithoutAThreadLeavesThePipeOpen)
{
    {
        const limits::NoNewThreads none;
        EXPECT_EQ(side.init(), side.threadErrorResult);
    }
    const auto start = here();
    EXPECT_EQ(side.stop(), 1);
    EXPECT_THAT(
        traceFrom(start),
        ElementsAre(side.stopEnters(),
                    side.line(1, side.stopFunction() +
                                     " -Failed to terminate thread: Invalid "
                                     "argument")));
    EXPECT_NE(fcntl(side.pipe[0], F_GETFD), -1);
    EXPECT_NE(fcntl(side.pipe[1], F_GETFD), -1);
}

TEST_P(BusSideStart, AgainWhileTheThreadRunsEndsTheProcess)
{
    EXPECT_EXIT(
        {
            side.init();
            side.init();
        },
        testing::KilledBySignal(SIGABRT), "");
}

TEST_P(BusSideStart, ProcessThatEndsWithoutAStopIsAborted)
{
    EXPECT_EXIT(
        {
            side.init();
            std::exit(0);
        },
        testing::KilledBySignal(SIGABRT), "");
}

TEST_P(BusSideStart, NeverReturnsWhenThePipeCannotBeWatched)
{
    record::when(side.loopEnters(),
                 [this]
                 {
                     // A plain file, which cannot be polled.
                     side.pipe[0] =
                         open("/run/file", O_CREAT | O_RDWR | O_CLOEXEC, 0600);
                 });
    expectNoReturn(side.threadBegins() +
                   Texts{side.line(1, "createMorrowEventLoop -sd_event_add_io "
                                      "sig pipe failed: Operation not "
                                      "permitted"),
                         side.threadExits()});
}

TEST_P(BusSideStart, NeverReturnsWithoutALoop)
{
    record::when(side.loopEnters(),
                 []
                 {
                     static const limits::NoNewDescriptors none;
                 });
    const auto failed = [this](const std::string& text)
    {
        return side.line(1, "createMorrowEventLoop -" + text);
    };
    expectNoReturn(
        side.threadBegins() +
        Texts{failed("sd_event_default failed:Too many open files"),
              failed("sd_event_add_io bus failed:Invalid argument"),
              failed("sd_event_add_io sig pipe failed: Invalid argument"),
              side.threadExits()});
}

TEST_P(BusSideStart, BusThatCannotBeWatchedIsLoggedAndTheLoopRuns)
{
    record::when(side.loopEnters(),
                 []
                 {
                     bus_spy::failNextInput(ENOMEM);
                 });
    EXPECT_EQ(side.init(), 0);
    ASSERT_TRUE(record::waitFor(side.loopStarts()));
    EXPECT_EQ(record::textsOf(threadOf(side.ready())),
              (side.threadBegins() +
               Texts{side.line(1, "createMorrowEventLoop -sd_event_add_io bus "
                                  "failed:Cannot allocate memory"),
                     side.ready(), side.loopStarts()}));
    EXPECT_THAT(event_loop::watchedBy(side.loop),
                ElementsAre(Pair(side.pipe[0], EPOLLIN)));
    EXPECT_EQ(side.stop(), 0);
}

TEST_P(BusSideStart, StopByteWrittenBeforeTheLoopRunsEndsIt)
{
    record::when(side.ready(),
                 [this]
                 {
                     ASSERT_EQ(write(side.pipe[1], "\1", 1), 1);
                 });
    EXPECT_EQ(side.init(), 0);
    ASSERT_TRUE(record::waitFor(side.threadExits()));
    EXPECT_EQ(side.stop(), 0);
}

TEST_P(BusSideStart, ServingWithoutABusEndsWith0)
{
    EXPECT_EQ(side.serve(nullptr, -1, 0, nullptr), 0);
    EXPECT_TRUE(isFreeForAnother(side.mutex));
}

// The loop

TEST_P(BusSide, WatchesTheBusAndThePipeForInputAlone)
{
    auto watched = event_loop::watchedBy(side.loop);
    EXPECT_EQ(watched.size(), 2U);
    for (const auto& [fd, events] : watched)
    {
        EXPECT_EQ(events, static_cast<uint32_t>(EPOLLIN)) << fd;
    }
    EXPECT_TRUE(watched.contains(side.pipe[0]));
}

TEST_P(BusSide, ServingAlwaysEndsWith0)
{
    EXPECT_EQ(side.serve(nullptr, -1, 0, nullptr), 0);
}

TEST_P(BusSide, WaitsAMillisecondForTheNextMessageWithTheMutex)
{
    watchTheThread();
    bool free = true;
    record::when("waits 1000 us for the bus",
                 [&]
                 {
                     free = isFreeForAnother(side.mutex);
                 });
    side.sendMessage();
    ASSERT_TRUE(record::waitFor("finds nothing more to do"));
    EXPECT_FALSE(free);
    EXPECT_THAT(startingWith("waits ", threadTrace()),
                AllOf(Not(IsEmpty()), Each("waits 1000 us for the bus")));
}

TEST_P(BusSide, MessageThatCannotBeProcessedIsLogged)
{
    broker.kill();
    ASSERT_TRUE(record::waitUntil(
        [this]
        {
            return !threadTrace().empty();
        }));
    EXPECT_EQ(side.serve(nullptr, -1, 0, nullptr), 0);
    EXPECT_THAT(traceFrom(0).back(),
                StartsWith("log 1 morrow_" + side.name + ": " + side.handler +
                           " -Error:sd_bus_process discard: "));
}

TEST_P(BusSide, BrokerThatDiesIsLoggedAndStopWorks)
{
    bool freeWhenLogged = true;
    record::when("log 1 morrow_" + side.name + ": " + side.handler + " -Error:",
                 [&]
                 {
                     freeWhenLogged = isFreeForAnother(side.mutex);
                     ASSERT_EQ(write(side.pipe[1], "\1", 1), 1);
                 });
    broker.kill();
    ASSERT_TRUE(record::waitFor(side.threadExits()));
    // The server unlocks it before the line.
    EXPECT_EQ(freeWhenLogged, side.name == "server");
    EXPECT_TRUE(isFreeForAnother(side.mutex));
    EXPECT_THAT(
        threadTrace(),
        Contains(side.line(1, side.handler + " -Error:sd_bus_wait: "
                                             "System.Error.ENOTCONN: Transport "
                                             "endpoint is not connected")));
    EXPECT_EQ(side.stop(), 0);
}

// Stop

TEST_P(BusSideStop, LogsOnBothThreads)
{
    const auto start = here();
    EXPECT_EQ(side.stop(), 0);
    EXPECT_EQ(traceFrom(start), Texts{side.stopEnters()} + side.unloading +
                                    Texts{side.stopExits()});
    EXPECT_THAT(threadTrace(), ElementsAre(side.gotByte(1), side.loopReturns(),
                                           side.threadExits()));
}

TEST_P(BusSideStop, ClosesThePipeBeforeItDestroysTheSemaphore)
{
    const auto before = side.pipe;
    StopPipe whenDestroyed{};
    fake::onSemaphoreDestroy = [&]
    {
        whenDestroyed = side.pipe;
    };
    EXPECT_EQ(side.stop(), 0);
    fake::onSemaphoreDestroy = {};
    EXPECT_EQ(whenDestroyed, closedStopPipe);
    EXPECT_EQ(fcntl(before[0], F_GETFD), -1);
    EXPECT_EQ(fcntl(before[1], F_GETFD), -1);
}

TEST_P(BusSideStop, SecondFailsToWriteAndToJoin)
{
    EXPECT_EQ(side.stop(), 0);
    // What is opened now gets the numbers of the closed pipe.
    std::array<int, 2> other{};
    ASSERT_EQ(pipe2(other.data(), O_CLOEXEC | O_NONBLOCK), 0);
    const auto start = here();
    EXPECT_EQ(side.stop(), 1);
    EXPECT_THAT(traceFrom(start),
                ElementsAre(side.stopEnters(),
                            side.line(1, side.stopFunction() +
                                             " -Signal pipe write failed: Bad "
                                             "file descriptor"),
                            side.line(1, side.stopFunction() +
                                             " -Failed to terminate thread: "
                                             "Invalid argument")));
    char byte = 0;
    EXPECT_EQ(read(other[0], &byte, 1), -1);
    close(other[0]);
    close(other[1]);
}

TEST_P(BusSideStop, SecondWaitsForTheFirst)
{
    // The first waits for the thread, which is delayed.
    std::promise<void> go;
    record::when(side.gotByte(1),
                 [delay = go.get_future().share()]
                 {
                     delay.wait();
                 });
    auto first = std::async(std::launch::async, side.stop);
    ASSERT_TRUE(record::waitFor(side.gotByte(1)));
    auto second = std::async(std::launch::async, side.stop);
    ASSERT_TRUE(record::waitFor(side.stopEnters(), 2));
    EXPECT_EQ(second.wait_for(std::chrono::milliseconds(100)),
              std::future_status::timeout);
    go.set_value();
    EXPECT_EQ(first.get(), 0);
    EXPECT_EQ(second.get(), 1);
    EXPECT_EQ(record::count(side.line(1, side.stopFunction() +
                                             " -Signal pipe write failed: Bad "
                                             "file descriptor")),
              1);
}

TEST_P(BusSideStop, ByteOtherThan1IsLoggedAndIgnored)
{
    const uint8_t byte = 0;
    ASSERT_EQ(write(side.pipe[1], &byte, 1), 1);
    ASSERT_TRUE(record::waitFor(side.gotByte(0)));
    side.sendMessage();
    EXPECT_EQ(record::count(side.threadExits()), 0);
}

TEST_P(BusSideStop, PipeWithoutAWriterIsReadWithoutALogLine)
{
    const auto makeTheWriter = [this](const std::string& path)
    {
        const int writer = open(path.c_str(), O_WRONLY | O_CLOEXEC);
        ASSERT_EQ(dup3(writer, side.pipe[1], O_CLOEXEC), side.pipe[1]);
        close(writer);
    };
    makeTheWriter("/dev/null");
    // The reader is woken again and again and reads nothing.
    const auto before = thread_status::ticks(thread);
    EXPECT_TRUE(record::waitUntil(
        [this, before]
        {
            return thread_status::ticks(thread) > before + 2;
        }));
    makeTheWriter("/proc/self/fd/" + std::to_string(side.pipe[0]));
    EXPECT_EQ(side.stop(), 0);
    EXPECT_THAT(threadTrace(), ElementsAre(side.gotByte(1), side.loopReturns(),
                                           side.threadExits()));
}

TEST_P(BusSideStop, LogsTheByteBeforeTheLoopEndsWith0)
{
    int whenLogged = 0;
    int whenEnded = -1;
    record::when(side.gotByte(1),
                 [&]
                 {
                     int code = 0;
                     whenLogged = sd_event_get_exit_code(side.loop, &code);
                 });
    record::when(side.loopReturns(),
                 [&]
                 {
                     EXPECT_GE(sd_event_get_exit_code(side.loop, &whenEnded),
                               0);
                 });
    EXPECT_EQ(side.stop(), 0);
    EXPECT_EQ(whenLogged, -ENODATA);
    EXPECT_EQ(whenEnded, 0);
}

TEST_P(BusSideStop, SemaphoreThatCannotBeDestroyedIsIgnored)
{
    fake::semaphoreDestroyError = EINVAL;
    EXPECT_EQ(side.stop(), 0);
}
