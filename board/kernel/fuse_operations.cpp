// SPDX-License-Identifier: Apache-2.0
#include "board/kernel/fuse_operations.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

namespace board
{

// The signatures are libfuse's.
// NOLINTBEGIN(readability-non-const-parameter)

/** One function for each request of the kernel. */
struct FuseOperations
{
    static void lookup(fuse_req_t req, fuse_ino_t parent, const char* name);
    static void forget(fuse_req_t req, fuse_ino_t ino, std::uint64_t count);
    static void getattr(fuse_req_t req, fuse_ino_t ino, fuse_file_info* info);
    static void setattr(fuse_req_t req, fuse_ino_t ino, struct stat* wanted,
                        int which, fuse_file_info* info);
    static void readlink(fuse_req_t req, fuse_ino_t ino);
    static void unlink(fuse_req_t req, fuse_ino_t parent, const char* name);
    static void readdir(fuse_req_t req, fuse_ino_t ino, std::size_t size,
                        off_t offset, fuse_file_info* info);
    static void open(fuse_req_t req, fuse_ino_t ino, fuse_file_info* info);
    static void release(fuse_req_t req, fuse_ino_t ino, fuse_file_info* info);
    static void read(fuse_req_t req, fuse_ino_t ino, std::size_t size,
                     off_t offset, fuse_file_info* info);
    static void write(fuse_req_t req, fuse_ino_t ino, const char* bytes,
                      std::size_t size, off_t offset, fuse_file_info* info);
    static void poll(fuse_req_t req, fuse_ino_t ino, fuse_file_info* info,
                     fuse_pollhandle* handle);

  private:
    static void readDevice(fuse_req_t req, MctpDevice& device,
                           std::size_t size);
    static FuseFiles& filesOf(fuse_req_t req)
    {
        return *static_cast<FuseFiles*>(fuse_req_userdata(req));
    }
};

namespace
{

// What a call answers to the kernel cannot fail in a way that matters: it
// fails only when the asking process has been killed.
template <typename... Args>
void answer(int (*reply)(fuse_req_t, Args...), fuse_req_t req,
            std::type_identity_t<Args>... args)
{
    static_cast<void>(reply(req, args...));
}

struct stat attributes(const FileTree::Entry& entry)
{
    struct stat status = {};
    status.st_ino = entry.inode;
    status.st_mode = entry.mode;
    status.st_nlink = S_ISDIR(entry.mode) ? 2 : 1;
    status.st_size = static_cast<off_t>(entry.content.size());
    return status;
}

/** Names and attributes change without the real kernel's knowledge, so it is
 *  to remember none of them, but for those that never change. */
double memoryOf(const FileTree::Entry& entry)
{
    constexpr double forEver = 1e6;
    return entry.fixed ? forEver : 0;
}

void replyBytes(fuse_req_t req, std::span<const char> bytes)
{
    answer(fuse_reply_buf, req, bytes.data(), bytes.size());
}

/** sysfs takes a value with or without a line end. */
std::string_view withoutLineEnd(std::string_view text)
{
    if (!text.empty() && text.back() == '\n')
    {
        text.remove_suffix(1);
    }
    return text;
}

} // namespace

void FuseOperations::lookup(fuse_req_t req, fuse_ino_t parent, const char* name)
{
    auto& tree = filesOf(req).tree;
    const auto* const directory = tree.find(parent);
    auto* const entry =
        directory == nullptr ? nullptr : tree.child(*directory, name);
    if (entry == nullptr)
    {
        answer(fuse_reply_err, req, ENOENT);
        return;
    }
    ++entry->references;
    fuse_entry_param found{};
    found.ino = entry->id;
    found.attr = attributes(*entry);
    found.attr_timeout = memoryOf(*entry);
    found.entry_timeout = memoryOf(*entry);
    answer(fuse_reply_entry, req, &found);
}

void FuseOperations::forget(fuse_req_t req, fuse_ino_t ino, std::uint64_t count)
{
    filesOf(req).tree.release(ino, count);
    fuse_reply_none(req);
}

void FuseOperations::getattr(fuse_req_t req, fuse_ino_t ino,
                             fuse_file_info* /*info*/)
{
    const auto* const entry = filesOf(req).tree.find(ino);
    if (entry == nullptr)
    {
        answer(fuse_reply_err, req, ESTALE);
        return;
    }
    const auto status = attributes(*entry);
    answer(fuse_reply_attr, req, &status, memoryOf(*entry));
}

void FuseOperations::setattr(fuse_req_t req, fuse_ino_t ino,
                             struct stat* wanted, int which,
                             fuse_file_info* info)
{
    auto* const entry = filesOf(req).tree.find(ino);
    if (entry != nullptr && (which & FUSE_SET_ATTR_MODE) != 0)
    {
        constexpr mode_t permissions = 07777;
        entry->mode = (entry->mode & S_IFMT) | (wanted->st_mode & permissions);
    }
    // A new size or time means nothing to an attribute file or a device and
    // is accepted, as the real ones do.
    getattr(req, ino, info);
}

void FuseOperations::readlink(fuse_req_t req, fuse_ino_t ino)
{
    const auto* const entry = filesOf(req).tree.find(ino);
    if (entry == nullptr)
    {
        answer(fuse_reply_err, req, ESTALE);
        return;
    }
    answer(fuse_reply_readlink, req, entry->content.c_str());
}

void FuseOperations::unlink(fuse_req_t req, fuse_ino_t parent, const char* name)
{
    auto& files = filesOf(req);
    const auto* const directory = files.tree.find(parent);
    const auto* const entry =
        directory == nullptr ? nullptr : files.tree.child(*directory, name);
    if (entry == nullptr)
    {
        answer(fuse_reply_err, req, ENOENT);
        return;
    }
    answer(fuse_reply_err, req,
           entry->device ? files.driver.removeNode(name) : EPERM);
}

void FuseOperations::readdir(fuse_req_t req, fuse_ino_t ino, std::size_t size,
                             off_t offset, fuse_file_info* /*info*/)
{
    auto& tree = filesOf(req).tree;
    const auto* const directory = tree.find(ino);
    if (directory == nullptr)
    {
        answer(fuse_reply_err, req, ESTALE);
        return;
    }
    std::vector<std::pair<std::string, FileTree::Id>> names{
        {".", ino}, {"..", directory->parent == 0 ? ino : directory->parent}};
    names.insert(names.end(), directory->children.begin(),
                 directory->children.end());
    std::vector<char> bytes(size);
    std::size_t used = 0;
    for (auto next = static_cast<std::size_t>(offset); next < names.size();
         ++next)
    {
        const auto& [name, id] = names[next];
        const auto status = attributes(*tree.find(id));
        const auto needed = fuse_add_direntry(
            req, bytes.data() + used, size - used, name.c_str(), &status,
            static_cast<off_t>(next + 1));
        if (needed > size - used)
        {
            break;
        }
        used += needed;
    }
    replyBytes(req, std::span(bytes).first(used));
}

void FuseOperations::open(fuse_req_t req, fuse_ino_t ino, fuse_file_info* info)
{
    auto& files = filesOf(req);
    const auto* const entry = files.tree.find(ino);
    if (entry == nullptr)
    {
        answer(fuse_reply_err, req, ESTALE);
        return;
    }
    if (const auto error = entry->onOpen ? entry->onOpen() : 0; error != 0)
    {
        answer(fuse_reply_err, req, error);
        return;
    }
    const auto device = entry->device;
    if (device)
    {
        const auto error = device->open((info->flags & O_ACCMODE) != O_RDONLY);
        files.timeline.record(event::NodeOpened{device->node(), error});
        if (error != 0)
        {
            answer(fuse_reply_err, req, error);
            return;
        }
    }
    info->fh = ++files.lastHandle;
    info->direct_io = 1;
    info->nonseekable = device ? 1 : 0;
    files.openFiles[info->fh] = {ino, device};
    answer(fuse_reply_open, req, info);
}

void FuseOperations::release(fuse_req_t req, fuse_ino_t /*ino*/,
                             fuse_file_info* info)
{
    auto& files = filesOf(req);
    const auto device = files.openFiles[info->fh].device;
    files.openFiles.erase(info->fh);
    if (device)
    {
        device->close();
        files.timeline.record(event::NodeClosed{device->node()});
    }
    answer(fuse_reply_err, req, 0);
}

void FuseOperations::readDevice(fuse_req_t req, MctpDevice& device,
                                std::size_t size)
{
    const auto result = device.read();
    if (result.error != 0)
    {
        answer(fuse_reply_err, req, result.error);
        return;
    }
    filesOf(req).timeline.record(
        event::Packet{device.node(), false, result.packet});
    // A reader with too small a buffer loses the rest, as with a datagram.
    const std::string bytes(result.packet.begin(), result.packet.end());
    replyBytes(req, std::span(bytes).first(std::min(size, bytes.size())));
}

void FuseOperations::read(fuse_req_t req, fuse_ino_t ino, std::size_t size,
                          off_t offset, fuse_file_info* info)
{
    auto& files = filesOf(req);
    if (const auto device = files.openFiles[info->fh].device)
    {
        readDevice(req, *device, size);
        return;
    }
    const auto* const entry = files.tree.find(ino);
    if (entry == nullptr || entry->onWrite)
    {
        answer(fuse_reply_err, req, EIO);
        return;
    }
    const auto from =
        std::min(static_cast<std::size_t>(offset), entry->content.size());
    const auto rest = std::span(entry->content).subspan(from);
    replyBytes(req, rest.first(std::min(size, rest.size())));
}

void FuseOperations::write(fuse_req_t req, fuse_ino_t ino, const char* bytes,
                           std::size_t size, off_t /*offset*/,
                           fuse_file_info* info)
{
    auto& files = filesOf(req);
    auto error = EIO;
    const auto* const entry = files.tree.find(ino);
    if (const auto device = files.openFiles[info->fh].device)
    {
        const Bytes packet(bytes, bytes + size);
        error = device->write(packet, Clock::now());
        files.timeline.record(
            event::Packet{device->node(), true, packet, error});
    }
    else if (entry != nullptr && entry->onWrite)
    {
        error = entry->onWrite(withoutLineEnd({bytes, size}));
    }
    if (error != 0)
    {
        answer(fuse_reply_err, req, error);
        return;
    }
    answer(fuse_reply_write, req, size);
}

void FuseOperations::poll(fuse_req_t req, fuse_ino_t /*ino*/,
                          fuse_file_info* info, fuse_pollhandle* handle)
{
    constexpr unsigned always =
        POLLIN | POLLRDNORM | POLLOUT | POLLWRNORM; // plain files
    auto& file = filesOf(req).openFiles[info->fh];
    if (handle != nullptr)
    {
        file.poller.reset(handle);
    }
    answer(fuse_reply_poll, req,
           file.device ? file.device->readiness() : always);
}

// NOLINTEND(readability-non-const-parameter)

const fuse_lowlevel_ops& fuseOperations()
{
    static const auto table = []
    {
        fuse_lowlevel_ops ops{};
        ops.lookup = FuseOperations::lookup;
        ops.forget = FuseOperations::forget;
        ops.getattr = FuseOperations::getattr;
        ops.setattr = FuseOperations::setattr;
        ops.readlink = FuseOperations::readlink;
        ops.unlink = FuseOperations::unlink;
        ops.readdir = FuseOperations::readdir;
        ops.open = FuseOperations::open;
        ops.release = FuseOperations::release;
        ops.read = FuseOperations::read;
        ops.write = FuseOperations::write;
        ops.poll = FuseOperations::poll;
        return ops;
    }();
    return table;
}

} // namespace board
