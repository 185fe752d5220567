// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * A file descriptor with one owner, closed when its owner goes.
 */

#include <unistd.h>

#include <utility>

namespace platform
{

class FileDescriptor
{
  public:
    /** Owns `descriptor`; a negative one stands for none. */
    explicit FileDescriptor(int descriptor) noexcept : descriptor(descriptor)
    {
    }

    FileDescriptor(FileDescriptor&& other) noexcept :
        descriptor(std::exchange(other.descriptor, -1))
    {
    }

    FileDescriptor& operator=(FileDescriptor&& other) noexcept
    {
        std::swap(descriptor, other.descriptor);
        return *this;
    }

    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;

    ~FileDescriptor()
    {
        if (descriptor >= 0)
        {
            // The descriptor is gone whatever close reports.
            static_cast<void>(::close(descriptor));
        }
    }

    [[nodiscard]] int get() const noexcept
    {
        return descriptor;
    }

    explicit operator bool() const noexcept
    {
        return descriptor >= 0;
    }

  private:
    int descriptor;
};

} // namespace platform
