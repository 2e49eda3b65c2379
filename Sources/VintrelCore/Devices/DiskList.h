#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

/// A partition, or what else has a file system on a disk: a volume of an APFS container, an
/// encrypted volume, the whole disk when it has no partitions.
struct PartitionRecord {
    std::string bsdName;    ///< as the disk's
    std::uint64_t size = 0; ///< bytes
    std::string
        content; ///< its file system or, when that is not known, the type in the partition table
    std::string volumeName; ///< empty when there is none
    std::string mountPoint; ///< empty when it is not mounted
};

struct DiskRecord {
    std::string bsdName;     ///< what opens the disk: "disk4" on macOS, "/dev/sdb" on Linux
    std::string mediaName;   ///< what its maker calls it; may be empty
    std::uint64_t size = 0;  ///< bytes
    std::string busProtocol; ///< how it is connected: "USB"; may be empty
    std::string smartStatus; ///< "Verified", "Failing" or "Not Supported"
    std::vector<PartitionRecord> partitions;
};

/// The disks that are attached. Text in the records comes from the disks and can be anything.
namespace DiskList {

/// From what the system has to ask. Empty when it has nothing, or that gives no answer.
std::vector<DiskRecord> load();

/// From Apple's diskutil, by its path.
std::vector<DiskRecord> fromDiskutil(const std::string& diskutil);

/// Whether a block device of Linux by the kernel's name is nothing to recover from: memory that
/// plays disk, and a drive or a loop without a medium. A disk of size 0 that cannot be removed has
/// died: it is what the user looks for.
bool isNoDisk(std::string_view kernelName, bool isRemovable, std::uint64_t size);

/// From lsblk of util-linux and, when there is one, smartctl of smartmontools, by their paths.
std::vector<DiskRecord> fromLsblk(const std::string& lsblk, const std::string& smartctl);

/// From the folder in which Linux has its block devices (/sys/block), where there is no lsblk. What
/// file systems and mounts there are it does not tell.
std::vector<DiskRecord> fromSysfs(const std::string& folder, const std::string& smartctl);

} // namespace DiskList
