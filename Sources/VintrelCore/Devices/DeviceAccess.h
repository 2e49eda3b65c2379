#pragma once

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/Foundation/FileDescriptor.h"

#include <functional>
#include <string>

/// What opening disks needs from programs of the system. Their paths are given; what goes wrong is
/// a SourceError.
namespace DeviceAccess {

/// The device at `path`, opened for reading by Apple's authopen, which asks the user for an
/// administrator's password.
FileDescriptor openWithAuthorization(
    const std::string& authopen, const std::string& path, const std::string& displayName);

struct AttachedImage {
    std::string device;           ///< the whole disk: "/dev/disk4"
    std::function<void()> detach; ///< called once nothing reads it any more
};

/// A disk image of Apple's, attached by hdiutil as a disk that cannot be written to and is not
/// mounted.
AttachedImage attachImage(const std::string& hdiutil, const std::string& path);

} // namespace DeviceAccess
