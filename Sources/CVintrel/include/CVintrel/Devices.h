#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <sys/types.h>

/// Disks as the running system has them.
namespace CVintrel {

/// Programs of the system that do what needs its help, by absolute path; empty where there is none.
struct HelperPrograms {
    std::string authopen; ///< opens what only an administrator may read
    std::string hdiutil;  ///< attaches disk images of Apple's
    std::string diskutil; ///< knows the disks; speaks in property lists
    std::string lsblk;    ///< knows the disks; speaks in lines of NAME="value"
    std::string smartctl; ///< asks a disk for its health
};
HelperPrograms helperPrograms();

/// The file that reads the device of this name, past the system's cache where that is a file of its
/// own.
std::string rawDevicePath(const std::string& name);

/// Whether the file of this path and mode is a disk, or a part of one.
bool isDisk(const std::string& path, mode_t mode);

struct DeviceGeometry {
    std::uint32_t blockSize = 0; ///< bytes; never below 512
    std::uint64_t blockCount = 0;
};

/// The geometry of an open device; none, with the reason in errno, when the system does not tell
/// how large it is.
std::optional<DeviceGeometry> deviceGeometry(int descriptor);

/// Whether a read that failed with this error number says that there is no device any more.
bool meansNoDevice(int error);

/// Reads of an open device go past the system's cache from now on. Whether their buffers, offsets
/// and counts have to be aligned for that.
bool turnOffCache(int descriptor);

/// What the device at this path is called below: "8:17" on Linux, "disk4s1" on macOS. Empty when it
/// is none.
std::string deviceIdentity(const std::string& path);

/// The device that holds the file system of an existing file or folder; empty when that is on none,
/// or is not known.
std::string deviceHolding(const std::string& path);

} // namespace CVintrel
