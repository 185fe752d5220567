// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/kernel/file_tree.hpp"
#include "board/kernel/i3c_driver.hpp"
#include "board/timeline/timeline.hpp"

#include <cstdint>
#include <map>
#include <memory>
#include <string>

struct fuse_operations;
struct fuse_pollhandle;

namespace board
{

struct PollHandleDeleter
{
    void operator()(fuse_pollhandle* handle) const;
};

/** @brief The result of one open(2). The entry is a copy: a descriptor outlives
 *         the name that it was opened by. */
struct OpenFile
{
    std::string path{}; //!< of a directory
    FileEntry entry{}; //!< of a file
    /** The process that waits in poll(2), if one does. */
    std::unique_ptr<fuse_pollhandle, PollHandleDeleter> poller{};
};

/** @brief The files that the simulated kernel serves, and the driver behind
 *         them. No lock of its own. */
struct ServedFiles
{
    explicit ServedFiles(Timeline& timeline);

    /** @brief Wake the processes whose poll(2) has something to report. */
    void wakePollers();

    Timeline& timeline;
    FileTree tree;
    I3cDriver driver;
    std::map<std::uint64_t, OpenFile> open; //!< by handle, from 1
    std::uint64_t lastHandle = 0;
};

/** @brief The requests of the real kernel. Their private data is a
 *         ServedFiles. */
[[nodiscard]] const fuse_operations& fuseOperations();

} // namespace board
