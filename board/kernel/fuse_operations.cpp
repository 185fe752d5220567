// SPDX-License-Identifier: Apache-2.0
#include "board/kernel/fuse_operations.hpp"

#define FUSE_USE_VERSION 314
#include <fcntl.h>
#include <fuse.h>
#include <poll.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <string_view>

namespace board
{
namespace
{

ServedFiles& served()
{
    return *static_cast<ServedFiles*>(fuse_get_context()->private_data);
}

FileEntry* entryAt(const char* path)
{
    return served().tree.find(path + 1);
}

/** The entry of a request, which comes with a path or an open file or both. */
FileEntry* entryOf(const char* path, const fuse_file_info* info)
{
    return path == nullptr ? &served().open.at(info->fh).entry : entryAt(path);
}

struct stat attributes(const FileEntry& entry)
{
    struct stat status = {};
    status.st_ino = entry.inode;
    status.st_mode = entry.mode;
    status.st_nlink = S_ISDIR(entry.mode) ? 2 : 1;
    status.st_size = static_cast<off_t>(entry.content.size());
    return status;
}

/** sysfs takes a value with or without a line end. */
std::string_view withoutLineEnd(std::string_view text)
{
    text.remove_suffix(text.ends_with('\n') ? 1 : 0);
    return text;
}

void* init(fuse_conn_info* connection, fuse_config* config)
{
    // Names come and go without the real kernel's knowledge, so it may
    // remember none.
    config->entry_timeout = 0;
    config->attr_timeout = 0;
    config->negative_timeout = 0;
    config->use_ino = 1;
    config->hard_remove = 1;
    config->nullpath_ok = 1;
    connection->want &= ~static_cast<unsigned>(FUSE_CAP_READDIRPLUS);
    return fuse_get_context()->private_data;
}

int getattr(const char* path, struct stat* status, fuse_file_info* info)
{
    const auto* const entry = entryOf(path, info);
    if (entry == nullptr)
    {
        return -ENOENT;
    }
    *status = attributes(*entry);
    return 0;
}

int chmod(const char* path, mode_t mode, fuse_file_info* info)
{
    auto* const entry = entryOf(path, info);
    if (entry == nullptr)
    {
        return -ENOENT;
    }
    entry->mode = (entry->mode & S_IFMT) | (mode & ~S_IFMT);
    return 0;
}

int readlink(const char* path, char* target, std::size_t size)
{
    const auto* const entry = entryAt(path);
    if (entry == nullptr)
    {
        return -ENOENT;
    }
    target[entry->content.copy(target, size - 1)] = '\0';
    return 0;
}

int unlink(const char* path)
{
    const auto* const entry = entryAt(path);
    if (entry == nullptr)
    {
        return -ENOENT;
    }
    return entry->device ? -served().driver.removeNode(entry->device->node())
                         : -EPERM;
}

int opendir(const char* path, fuse_file_info* info)
{
    auto& files = served();
    info->fh = ++files.lastHandle;
    files.open[info->fh] = {.path = path + 1};
    return 0;
}

int readdir(const char* /*path*/, void* buffer, fuse_fill_dir_t fill,
            off_t /*offset*/, fuse_file_info* info,
            fuse_readdir_flags /*flags*/)
{
    auto& tree = served().tree;
    const auto& directory = served().open.at(info->fh).path;
    for (const auto* name : {".", ".."})
    {
        fill(buffer, name, nullptr, 0, {});
    }
    for (const auto& name : tree.names(directory))
    {
        const auto place =
            directory.empty() ? name : (directory + '/').append(name);
        const auto status = attributes(*tree.find(place));
        fill(buffer, name.c_str(), &status, 0, {});
    }
    return 0;
}

int open(const char* path, fuse_file_info* info)
{
    auto& files = served();
    const auto* const entry = entryAt(path);
    if (entry == nullptr)
    {
        return -ENOENT;
    }
    if (const auto error = entry->onOpen ? entry->onOpen() : 0; error != 0)
    {
        return -error;
    }
    if (const auto& device = entry->device)
    {
        const auto error = device->open((info->flags & O_ACCMODE) != O_RDONLY);
        files.timeline.record(event::NodeOpened{device->node(), error});
        if (error != 0)
        {
            return -error;
        }
    }
    info->fh = ++files.lastHandle;
    info->direct_io = 1;
    info->nonseekable = entry->device ? 1 : 0;
    files.open[info->fh] = {.entry = *entry};
    return 0;
}

int release(const char* /*path*/, fuse_file_info* info)
{
    auto& files = served();
    const auto file = files.open.extract(info->fh);
    if (const auto& device = file.mapped().entry.device)
    {
        device->close();
        files.timeline.record(event::NodeClosed{device->node()});
    }
    return 0;
}

int readDevice(MctpDevice& device, char* bytes, std::size_t size)
{
    const auto [error, packet] = device.read();
    if (error != 0)
    {
        return -error;
    }
    served().timeline.record(event::Packet{device.node(), false, packet});
    // A reader with too small a buffer loses the rest, as with a datagram.
    const auto taken = std::min(size, packet.size());
    std::copy_n(packet.begin(), taken, bytes);
    return static_cast<int>(taken);
}

int read(const char* /*path*/, char* bytes, std::size_t size, off_t offset,
         fuse_file_info* info)
{
    const auto& entry = served().open.at(info->fh).entry;
    if (entry.device)
    {
        return readDevice(*entry.device, bytes, size);
    }
    if (entry.onWrite)
    {
        return -EIO;
    }
    const auto from =
        std::min(static_cast<std::size_t>(offset), entry.content.size());
    return static_cast<int>(entry.content.copy(bytes, size, from));
}

int write(const char* /*path*/, const char* bytes, std::size_t size,
          off_t /*offset*/, fuse_file_info* info)
{
    auto& files = served();
    auto error = EIO;
    const auto& entry = files.open.at(info->fh).entry;
    if (entry.device)
    {
        const Bytes packet(bytes, bytes + size);
        error = entry.device->write(packet, Clock::now());
        files.timeline.record(
            event::Packet{entry.device->node(), true, packet, error});
    }
    else if (entry.onWrite)
    {
        error = entry.onWrite(withoutLineEnd({bytes, size}));
    }
    return error == 0 ? static_cast<int>(size) : -error;
}

int poll(const char* /*path*/, fuse_file_info* info, fuse_pollhandle* handle,
         unsigned* events)
{
    constexpr unsigned always =
        POLLIN | POLLRDNORM | POLLOUT | POLLWRNORM; // plain files
    auto& file = served().open.at(info->fh);
    if (handle != nullptr)
    {
        file.poller.reset(handle);
    }
    *events = file.entry.device ? file.entry.device->readiness() : always;
    return 0;
}

} // namespace

void PollHandleDeleter::operator()(fuse_pollhandle* handle) const
{
    fuse_pollhandle_destroy(handle);
}

ServedFiles::ServedFiles(Timeline& timeline) :
    timeline(timeline), driver(tree, timeline)
{
}

void ServedFiles::wakePollers()
{
    for (auto& [handle, file] : open)
    {
        constexpr unsigned worthWaking = POLLIN | POLLHUP | POLLERR;
        const auto& device = file.entry.device;
        if (file.poller && device && (device->readiness() & worthWaking) != 0)
        {
            // Fails only when the poller is gone.
            static_cast<void>(fuse_notify_poll(file.poller.get()));
            file.poller.reset();
        }
    }
}

const fuse_operations& fuseOperations()
{
    static const auto table = []
    {
        fuse_operations operations{};
        operations.init = init;
        operations.getattr = getattr;
        operations.chmod = chmod;
        operations.readlink = readlink;
        operations.unlink = unlink;
        operations.opendir = opendir;
        operations.readdir = readdir;
        operations.releasedir = release;
        operations.open = open;
        operations.release = release;
        operations.read = read;
        operations.write = write;
        operations.poll = poll;
        // A size or a time means nothing to an attribute file or a device.
        operations.truncate = [](const char*, off_t, fuse_file_info*)
        {
            return 0;
        };
        operations.utimens =
            [](const char*, const timespec*, fuse_file_info*) // NOLINT
        {
            return 0;
        };
        return operations;
    }();
    return table;
}

} // namespace board
