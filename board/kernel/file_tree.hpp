// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/kernel/mctp_device.hpp"

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>

namespace board
{

/** The names that the simulated kernel shows: directories, links, attribute
 *  files and device nodes, as values in memory. It knows nothing of how it is
 *  mounted.
 *
 *  Each entry has an id for its life and an inode number for its path: a node
 *  that is removed and made anew is another entry, yet shows the same inode
 *  number, as lock keys are made from it. An entry that was removed stays
 *  reachable by its id for as long as somebody refers to it.
 *
 *  No lock of its own. Paths are relative to the root, e.g. "dev/null".
 */
class FileTree
{
  public:
    using Id = std::uint64_t;
    static constexpr Id root = 1;

    struct Entry
    {
        mode_t mode = 0; //!< type and permissions, as in stat(2)
        std::string content{}; //!< of a file, or the target of a link
        /** Whether a file can be opened; its result is an errno value. */
        std::function<int()> onOpen{};
        /** What a write to a file does; its result is an errno value. */
        std::function<int(std::string_view)> onWrite{};
        std::shared_ptr<MctpDevice> device{}; //!< of a device node
        bool fixed = false; //!< will never change: may be remembered

        Id id = 0; //!< this and what follows is the tree's to fill
        ino_t inode = 0;
        Id parent = 0; //!< 0 once removed
        std::map<std::string, Id, std::less<>> children{};
        std::uint64_t references = 0;
    };

    FileTree();

    /** @brief Add an entry; missing directories on its way are made. One that
     *         has the path already is replaced. */
    Entry& add(std::string_view path, Entry entry);

    /** @brief Add a directory unless it is there. */
    Entry& addDirectory(std::string_view path);

    /** @brief Remove an entry with everything below it, if it is there. */
    void remove(std::string_view path);

    /** @brief The entry of this id, or nullptr. */
    [[nodiscard]] Entry* find(Id id);

    /** @brief The entry at this path, or nullptr. */
    [[nodiscard]] Entry* at(std::string_view path);

    /** @brief The entry of this name in a directory, or nullptr. */
    [[nodiscard]] Entry* child(const Entry& directory, std::string_view name);

    /** @brief Give up references that were counted up in an entry: one that
     *         was removed is forgotten with the last. */
    void release(Id id, std::uint64_t references);

  private:
    void detach(Entry& entry);

    std::map<Id, Entry> entries;
    std::map<std::string, ino_t, std::less<>> inodes;
    Id lastId = root;
};

/** @brief An entry for a directory. */
[[nodiscard]] FileTree::Entry directoryEntry();

/** @brief An entry for a symbolic link. */
[[nodiscard]] FileTree::Entry linkEntry(std::string target);

/** @brief An entry for a file that can be read. */
[[nodiscard]] FileTree::Entry fileEntry(std::string content);

/** @brief An entry for a file that can be written, as sysfs has them. */
[[nodiscard]] FileTree::Entry
controlEntry(std::function<int(std::string_view)> onWrite);

/** @brief An entry for such a file that cannot be opened. */
[[nodiscard]] FileTree::Entry refusingEntry(std::function<int()> onOpen);

/** @brief An entry for a device's node. */
[[nodiscard]] FileTree::Entry deviceEntry(std::shared_ptr<MctpDevice> device);

} // namespace board
