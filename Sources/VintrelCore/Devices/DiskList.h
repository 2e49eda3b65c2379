#pragma once

#include <cstdint>
#include <string>
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

/// From lsblk of util-linux and, when there is one, smartctl of smartmontools, by their paths.
std::vector<DiskRecord> fromLsblk(const std::string& lsblk, const std::string& smartctl);

} // namespace DiskList
