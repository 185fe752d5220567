// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/bus/sd.hpp"
#include "board/process/process.hpp"
#include "board/timeline/timeline.hpp"
#include "board/util/event_thread.hpp"
#include "board/util/line_reader.hpp"

#include <cstddef>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace board
{

/** The daemon's process as its service manager sees it: its log, its notify
 *  socket, its exit status.
 *
 *  Log records on its standard streams become Log and Trace entries of the
 *  timeline, other lines Output, up to a megabyte of memory. The timeline
 *  collects them before any other entry, so that a log line comes before its
 *  effects.
 *
 *  The functions are for one thread: the daemon is killed when the thread ends
 *  that started it.
 */
class Daemon
{
  public:
    /** @param program the daemon's path
     *  @param environment all of it, but for the notify socket */
    Daemon(Timeline& timeline, std::filesystem::path program,
           std::vector<std::string> environment);

    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    /** @brief Kills the daemon if it still runs. */
    ~Daemon();

    /** @brief Set an environment variable for the next start. */
    void setVariable(const std::string& name, const std::string& value);

    /** @brief Start it; one that ran before must have ended.
     *  @throws Error when it cannot be started */
    void start();

    void terminate(); //!< by SIGTERM
    void signal(int number);

    /** @brief Whether it was started and has not ended. */
    [[nodiscard]] bool running() const;

    /** @throws Error when it was never started */
    [[nodiscard]] pid_t process() const;

    /** @brief Where the kernel has each of its threads wait, e.g.
     *         "morrow in hrtimer_nanosleep"; empty when it does not run. */
    [[nodiscard]] std::string threads() const;

    /** @brief Wait for its end.
     *  @throws WaitFailed when it hangs */
    event::Exited awaitExit(Timeline::Limit limit);

  private:
    void listen(sd_event* loop);
    void stopListening();
    void keep(std::string_view line);
    void collect();
    bool takeEnd();

    Timeline& timeline;
    const std::filesystem::path program;
    std::vector<std::string> environment;
    std::size_t startedAt = 0; //!< index on the timeline
    std::unique_ptr<Process> child;
    Fd notifySocket;
    std::mutex collecting; //!< guards the next two
    std::unique_ptr<LineReader> output;
    std::size_t keptOutput = 0; //!< bytes of memory
    const LineReader::Take takeLine = [this](std::string_view line)
    {
        keep(line);
    };
    std::function<bool()> onOutput;
    std::function<bool()> onNotify;
    std::function<bool()> onEnd;
    std::vector<sd::Source> sources;
    EventThread thread;
};

} // namespace board
