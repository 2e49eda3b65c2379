#pragma once

#include "VintrelCore/Foundation/SystemResult.h"

#include <utility>

/// An open file descriptor, closed when its owner dies.
class FileDescriptor {
public:
    FileDescriptor() = default;
    explicit FileDescriptor(int descriptor)
        : descriptor_(descriptor)
    {
    }
    FileDescriptor(FileDescriptor&& other) noexcept
        : descriptor_(other.release())
    {
    }
    FileDescriptor& operator=(FileDescriptor&& other) noexcept;
    ~FileDescriptor() { close(); }

    int get() const { return descriptor_; }
    explicit operator bool() const { return descriptor_ >= 0; }
    int release() { return std::exchange(descriptor_, -1); }
    /// Closes early. A file system may keep an error for this moment.
    SystemError close();

private:
    int descriptor_ = -1;
};
