#pragma once

#include "VintrelCore/Model/CarvedFile.h"
#include "VintrelCore/Model/FileTypes.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

/// A boot sector, or a copy of one, that lies somewhere on the source.
struct FoundBoot {
    std::uint64_t offset = 0; ///< of the sector, in bytes
    FileSystemType type {};
    std::array<std::uint8_t, 512> sector {};
};

/// What a sweep over a source found. Offsets are in bytes on the source, ascending.
struct DeepScanResult {
    using Offsets = std::vector<std::uint64_t>;

    std::vector<CarvedFile> carved;
    std::vector<BrokenHead> brokenHeads; ///< only where files in pieces are wanted
    std::vector<FoundBoot> boots;
    Offsets hfsHeaders;            ///< where the volumes begin: 1024 bytes before their headers
    Offsets hfsTrees;              ///< header nodes of HFS+ catalogs and extents overflow files
    Offsets hfsLeaves;             ///< leaf nodes of HFS+ catalogs
    Offsets nxsb;                  ///< APFS container superblocks
    Offsets mftRecords;            ///< sectors that begin an NTFS file record
    Offsets ntfsIndexBlocks;       ///< sectors that begin a block of an NTFS folder's index
    Offsets fatDirSectors;         ///< sectors that look like part of a FAT directory
    Offsets apfsLeafNodes;         ///< leaves of APFS file-system trees
    Offsets apfsVolumeSuperblocks; ///< blocks that have the magic of one
    Offsets apfsObjectMaps;        ///< blocks that have the type of one
    Offsets exfatDirSectors;       ///< sectors in which entry sets of exFAT directories begin
    Offsets extSuperblocks;        ///< superblocks of ext2, ext3 and ext4, copies among them
    Offsets extFolderInodes;       ///< slots that may hold the inode of a directory of ext2, ext3
    Offsets extJournals;           ///< sectors that begin a journal of ext3 or ext4
    Offsets extBlockLists;         ///< sectors that may begin a list of a file's blocks
    Offsets extNodes;              ///< sectors that may begin a node of an extent tree
    bool carvingRanOut = false;    ///< whether places had to be given up that cost too much
    bool completed = false;        ///< whether the end of the source was reached
    std::uint64_t scannedUpTo = 0;
};

/// A kind of find that the user is told the number of.
struct FindCount {
    std::string_view words; ///< Danish, behind the number
    std::string_view key;   ///< for programs
    std::size_t count;
};

/// How many finds of each kind a sweep has made, in the order in which they are told.
std::vector<FindCount> findCounts(const DeepScanResult& result);
