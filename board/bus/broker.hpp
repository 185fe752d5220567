// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/process/process.hpp"
#include "board/util/line_reader.hpp"

#include <memory>
#include <string>

namespace board
{

/** A broker of system type at the system bus's address in the sandbox. It ends
 *  with the thread that started it. */
class Broker
{
  public:
    static constexpr auto socketPath = "/run/dbus/system_bus_socket";
    static constexpr auto address = "unix:path=/run/dbus/system_bus_socket";

    /** @brief Start it; it takes connections when this returns.
     *  @param policies of its configuration, in XML
     *  @throws Error when it does not start, with its output */
    explicit Broker(const std::string& policies);

    [[nodiscard]] const Process& process() const;

    /** @brief The lines that it prints. */
    [[nodiscard]] LineReader& output();

  private:
    void waitUntilReady(Pipe& addressPipe);

    std::unique_ptr<Process> broker;
    std::unique_ptr<LineReader> lines;
};

} // namespace board
