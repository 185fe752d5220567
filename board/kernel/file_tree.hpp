// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/kernel/mctp_device.hpp"

#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace board
{

/** @brief A directory, link, attribute file or device node. */
struct FileEntry
{
    mode_t mode = 0; //!< type and permissions, as in stat(2)
    std::string content{}; //!< of a file, or the target of a link
    /** Whether a file can be opened; its result is an errno value. */
    std::function<int()> onOpen{};
    /** What a write to a file does; its result is an errno value. */
    std::function<int(std::string_view)> onWrite{};
    std::shared_ptr<MctpDevice> device{}; //!< of a device node
    ino_t inode = 0; //!< set by the tree
};

[[nodiscard]] FileEntry directoryEntry();
[[nodiscard]] FileEntry linkEntry(std::string target);
[[nodiscard]] FileEntry readableEntry(std::string content);

/** @brief A write-only file, as sysfs has them. */
[[nodiscard]] FileEntry
controlEntry(std::function<int()> onOpen,
             std::function<int(std::string_view)> onWrite);

[[nodiscard]] FileEntry deviceEntry(std::shared_ptr<MctpDevice> device);

/** The names that the simulated kernel shows, by their paths relative to the
 *  root, e.g. "dev/null".
 *
 *  As in a real kernel, an entry that is removed and comes back has another
 *  inode number. No lock of its own.
 */
class FileTree
{
  public:
    FileTree();

    /** @brief Add an entry with the directories that lead to it, or replace
     *         it. */
    void add(const std::string& path, FileEntry entry);

    /** @brief Remove an entry and everything below it, if it is there. */
    void remove(const std::string& path);

    /** @return the entry at a path, "" for the root, or nullptr */
    [[nodiscard]] FileEntry* find(std::string_view path);

    /** @brief The names in a directory. */
    [[nodiscard]] std::vector<std::string> names(std::string_view directory);

  private:
    void put(const std::string& path, FileEntry entry);

    std::map<std::string, FileEntry, std::less<>> entries;
    ino_t lastInode = 0;
};

} // namespace board
