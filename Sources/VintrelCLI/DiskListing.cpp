#include "VintrelCLI/DiskListing.h"

#include "VintrelCLI/ByteCount.h"
#include "VintrelCore/Foundation/Unicode/Unicode.h"

std::string describeDisks(const std::vector<DiskRecord>& disks)
{
    using Unicode::escaped;
    std::string text;
    for (const auto& disk : disks) {
        text += escaped(disk.bsdName) + "\t" + formatBytes(disk.size) + "\t"
            + escaped(disk.mediaName.empty() ? disk.bsdName : disk.mediaName) + "\t"
            + escaped(disk.busProtocol) + "\tSMART: " + escaped(disk.smartStatus) + "\n";
        for (const auto& partition : disk.partitions)
            text += "   " + escaped(partition.bsdName) + "\t" + formatBytes(partition.size) + "\t"
                + escaped(partition.content) + "\t" + escaped(partition.volumeName) + "\t"
                + escaped(partition.mountPoint) + "\n";
    }
    return text;
}
