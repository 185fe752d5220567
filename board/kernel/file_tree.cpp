// SPDX-License-Identifier: Apache-2.0
#include "board/kernel/file_tree.hpp"

#include <sys/stat.h>

#include <utility>

namespace board
{

FileEntry directoryEntry()
{
    return {.mode = S_IFDIR | 0755};
}

FileEntry linkEntry(std::string target)
{
    return {.mode = S_IFLNK | 0777, .content = std::move(target)};
}

FileEntry readableEntry(std::string content)
{
    return {.mode = S_IFREG | 0444, .content = std::move(content)};
}

FileEntry controlEntry(std::function<int()> onOpen,
                       std::function<int(std::string_view)> onWrite)
{
    return {.mode = S_IFREG | 0200,
            .onOpen = std::move(onOpen),
            .onWrite = std::move(onWrite)};
}

FileEntry deviceEntry(std::shared_ptr<MctpDevice> device)
{
    // A character device would be the real kernel's; a regular file is ours.
    return {.mode = S_IFREG | 0600, .device = std::move(device)};
}

FileTree::FileTree()
{
    put("", directoryEntry());
}

void FileTree::add(const std::string& path, FileEntry entry)
{
    for (auto slash = path.find('/'); slash != std::string::npos;
         slash = path.find('/', slash + 1))
    {
        const auto directory = path.substr(0, slash);
        if (!entries.contains(directory))
        {
            put(directory, directoryEntry());
        }
    }
    put(path, std::move(entry));
}

void FileTree::put(const std::string& path, FileEntry entry)
{
    entry.inode = ++lastInode;
    entries.insert_or_assign(path, std::move(entry));
}

void FileTree::remove(const std::string& path)
{
    const auto below = path + '/';
    std::erase_if(entries,
                  [&](const auto& entry)
                  {
                      return entry.first == path ||
                             entry.first.starts_with(below);
                  });
}

FileEntry* FileTree::find(std::string_view path)
{
    const auto found = entries.find(path);
    return found == entries.end() ? nullptr : &found->second;
}

std::vector<std::string> FileTree::names(std::string_view directory)
{
    const auto start =
        directory.empty() ? std::string() : std::string(directory) + '/';
    std::vector<std::string> found;
    for (const auto& [path, entry] : entries)
    {
        if (path.size() > start.size() && path.starts_with(start) &&
            path.find('/', start.size()) == std::string::npos)
        {
            found.push_back(path.substr(start.size()));
        }
    }
    return found;
}

} // namespace board
