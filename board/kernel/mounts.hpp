// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/util/fd.hpp"

#include <string>
#include <vector>

namespace board
{

/** The mounts of the simulated kernel's file system: a hidden one, and from
 *  there its sys/ on /sys and its dev/ on /dev, where the former entries of
 * /dev are bound over names of the same kind. Inside a sandbox only.
 */
class KernelMounts
{
  public:
    /** @brief An entry that /dev had before. */
    struct DevName
    {
        std::string name;
        bool directory = false;
        std::string target{}; //!< of a link; empty for anything else
    };

    /** @brief Mount the file system at its hidden place.
     *  @throws Error when the system refuses */
    KernelMounts();

    KernelMounts(const KernelMounts&) = delete;
    KernelMounts& operator=(const KernelMounts&) = delete;
    ~KernelMounts();

    /** @brief The descriptor of /dev/fuse that serves it; handed over. */
    [[nodiscard]] Fd takeServer();

    /** @brief What /dev has: the served dev/ must show these names. */
    [[nodiscard]] const std::vector<DevName>& devNames() const;

    /** @brief Put sys/ and dev/ in place. Needs the file system served.
     *  @throws Error when the system refuses */
    void putInPlace();

  private:
    Fd server;
    Fd outerDev;
    std::vector<DevName> names;
    std::vector<std::string> mounted; //!< in the order of mounting
};

} // namespace board
