// SPDX-License-Identifier: Apache-2.0
#include "board/kernel/file_tree.hpp"

#include <sys/stat.h>

#include <utility>

namespace board
{
namespace
{

/** Cuts a path at its last slash: the directory's path and the name in it. */
std::pair<std::string_view, std::string_view> splitLast(std::string_view path)
{
    const auto slash = path.rfind('/');
    if (slash == std::string_view::npos)
    {
        return {"", path};
    }
    return {path.substr(0, slash), path.substr(slash + 1)};
}

} // namespace

FileTree::FileTree()
{
    auto& entry = entries[root];
    entry = directoryEntry();
    entry.id = root;
    entry.inode = root;
}

FileTree::Entry& FileTree::add(std::string_view path, Entry entry)
{
    remove(path);
    const auto [directory, name] = splitLast(path);
    auto& parent = addDirectory(directory);
    entry.id = ++lastId;
    entry.parent = parent.id;
    entry.inode =
        inodes.try_emplace(std::string(path), root + 1 + inodes.size())
            .first->second;
    parent.children.emplace(name, entry.id);
    return entries.insert_or_assign(lastId, std::move(entry)).first->second;
}

FileTree::Entry& FileTree::addDirectory(std::string_view path)
{
    auto* const present = at(path);
    return present != nullptr ? *present : add(path, directoryEntry());
}

void FileTree::remove(std::string_view path)
{
    auto* const entry = at(path);
    if (entry == nullptr)
    {
        return;
    }
    const auto [directory, name] = splitLast(path);
    auto& siblings = at(directory)->children;
    siblings.erase(siblings.find(name));
    detach(*entry);
}

void FileTree::detach(Entry& entry)
{
    for (const auto& [name, id] : std::exchange(entry.children, {}))
    {
        detach(*find(id));
    }
    entry.parent = 0;
    release(entry.id, 0);
}

FileTree::Entry* FileTree::find(Id id)
{
    const auto found = entries.find(id);
    return found == entries.end() ? nullptr : &found->second;
}

FileTree::Entry* FileTree::at(std::string_view path)
{
    if (path.empty())
    {
        return find(root);
    }
    const auto [directory, name] = splitLast(path);
    const auto* const parent = at(directory);
    return parent == nullptr ? nullptr : child(*parent, name);
}

FileTree::Entry* FileTree::child(const Entry& directory, std::string_view name)
{
    const auto found = directory.children.find(name);
    return found == directory.children.end() ? nullptr : find(found->second);
}

void FileTree::release(Id id, std::uint64_t references)
{
    auto* const entry = find(id);
    if (entry == nullptr)
    {
        return;
    }
    entry->references -= references;
    if (entry->references == 0 && entry->parent == 0 && id != root)
    {
        entries.erase(id);
    }
}

FileTree::Entry directoryEntry()
{
    return {.mode = S_IFDIR | 0755};
}

FileTree::Entry linkEntry(std::string target)
{
    return {.mode = S_IFLNK | 0777, .content = std::move(target)};
}

FileTree::Entry fileEntry(std::string content)
{
    return {.mode = S_IFREG | 0444, .content = std::move(content)};
}

FileTree::Entry controlEntry(std::function<int(std::string_view)> onWrite)
{
    return {.mode = S_IFREG | 0200, .onWrite = std::move(onWrite)};
}

FileTree::Entry refusingEntry(std::function<int()> onOpen)
{
    return {.mode = S_IFREG | 0200, .onOpen = std::move(onOpen)};
}

FileTree::Entry deviceEntry(std::shared_ptr<MctpDevice> device)
{
    // A character device would be the real kernel's; a regular file is ours.
    return {.mode = S_IFREG | 0600, .device = std::move(device)};
}

} // namespace board
