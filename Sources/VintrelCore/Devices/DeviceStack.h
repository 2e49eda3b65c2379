#pragma once

#include "VintrelCore/Disk/DiskSource.h"

#include <string>

/// Devices lie on devices: partitions on disks, encrypted and logical volumes and APFS containers
/// on partitions. Devices are called what CVintrel::deviceIdentity calls them.
namespace DeviceStack {

/// Whether what is written to a path, which need not exist yet, is written to the device that
/// `source` reads. False when the source is no device, and when the system cannot tell.
bool holds(const DiskSource& source, const std::string& path);

/// Whether `upper` is `lower` or lies on it, as the folder tells in which Linux describes its
/// devices
/// (/sys/dev/block).
bool liesOn(const std::string& upper, const std::string& lower, const std::string& sysfs);

/// The same as Apple's diskutil, given by its path, tells it.
bool liesOnByDiskutil(
    const std::string& upper, const std::string& lower, const std::string& diskutil);

} // namespace DeviceStack
