#include "VintrelCore/Foundation/FileDescriptor.h"

#include <unistd.h>

FileDescriptor& FileDescriptor::operator=(FileDescriptor&& other) noexcept
{
    if (this != &other) {
        close();
        descriptor_ = other.release();
    }
    return *this;
}

SystemError FileDescriptor::close()
{
    // Not tried again after EINTR: the descriptor is gone then, and its number may be somebody
    // else's.
    return descriptor_ >= 0 && ::close(release()) != 0 ? SystemError::last() : SystemError();
}
