#pragma once

#include "VintrelCore/Foundation/Binary.h"

#include <array>
#include <cstddef>
#include <cstdint>

/// ext2, ext3 and ext4 as they lie on disk. Everything but the journal is little-endian. The layout
/// is that of "ext4 Data Structures and Algorithms" in the documentation of the Linux kernel; each
/// structure says its name there. What ext2 had already is in "The Second Extended File System"
/// too.
namespace ExtFormat {

constexpr std::uint64_t superblockOffset = 1024; ///< from the volume's start
constexpr std::uint16_t superblockMagic = 0xEF53;

using UUID = std::array<std::uint8_t, 16>;
/// Where an inode keeps the place of its content: fifteen block numbers, an extent tree's root, or
/// the content itself.
using InodeBlocks = std::array<std::uint8_t, 60>;

/// "The Super Block": struct ext4_super_block. A copy lies in some of the groups.
struct Superblock {
    LE32 inodeCount;                          //    0
    LE32 blockCountLow;                       //    4
    LE32 reservedBlocks;                      //    8
    LE32 freeBlocks;                          //   12
    LE32 freeInodes;                          //   16
    LE32 firstDataBlock;                      //   20
    LE32 logBlockSize;                        //   24  the block size is 1024 shifted by it
    LE32 logClusterSize;                      //   28
    LE32 blocksPerGroup;                      //   32
    LE32 clustersPerGroup;                    //   36
    LE32 inodesPerGroup;                      //   40
    LE32 mountTime, writeTime;                //   44, 48
    LE16 mountCount, maxMountCount;           //   52, 54
    LE16 magic;                               //   56
    LE16 state, errors, minorRevision;        //   58, 60, 62
    LE32 lastCheck, checkInterval;            //   64, 68
    LE32 creator;                             //   72
    LE32 revision;                            //   76  0: inodes have 128 bytes, and no features
    LE16 reservedUser, reservedGroup;         //   80, 82
    LE32 firstInode;                          //   84
    LE16 inodeSize;                           //   88
    LE16 groupNumber;                         //   90  of the group that this copy lies in
    LE32 compatible;                          //   92  features
    LE32 incompatible;                        //   96
    LE32 readOnlyCompatible;                  //  100
    UUID uuid;                                //  104
    std::array<std::uint8_t, 16> label;       //  120
    std::array<std::uint8_t, 64> mount;       //  136
    LE32 algorithms;                          //  200
    std::array<std::uint8_t, 2> preallocated; // 204
    LE16 reservedDescriptorBlocks;            // 206
    UUID journalUUID;                         // 208
    LE32 journalInode, journalDevice;         // 224, 228
    LE32 lastOrphan;                          // 232
    std::array<LE32, 4> hashSeed;             // 236
    std::uint8_t hashVersion;                 // 252
    std::uint8_t journalBackupType;           // 253  1: the next but five is in use
    LE16 descriptorSize;                      // 254
    LE32 mountOptions;                        // 256
    LE32 firstMetaGroup;                      // 260
    LE32 madeTime;                            // 264
    InodeBlocks journalBlocks;                // 268  of the journal's inode
    LE32 journalSizeHigh, journalSizeLow;     // 328, 332
    LE32 blockCountHigh;                      // 336
    std::array<std::uint8_t, 32> more;        // 340
    std::uint8_t logGroupsPerFlex;            // 372
    std::array<std::uint8_t, 215> evenMore;   // 373
    std::array<LE32, 2> backupGroups;         // 588
    std::array<std::uint8_t, 28> encryption;  // 596
    LE32 checksumSeed;                        // 624
    std::array<std::uint8_t, 12> dates;       // 628  and others
    LE32 orphanFileInode;                     // 640
    std::array<std::uint8_t, 376> rest;       // 644
    LE32 checksum;                            // 1020
};
static_assert(sizeof(Superblock) == 1024 && offsetof(Superblock, compatible) == 92
    && offsetof(Superblock, journalBlocks) == 268 && offsetof(Superblock, blockCountHigh) == 336
    && offsetof(Superblock, backupGroups) == 588 && offsetof(Superblock, checksumSeed) == 624
    && offsetof(Superblock, orphanFileInode) == 640);

/// Features that change what lies where ("The Super Block", s_feature_…).
namespace Feature {
constexpr std::uint32_t hasJournal = 0x4;      // compatible
constexpr std::uint32_t sparseSuper2 = 0x200;  // compatible
constexpr std::uint32_t orphanFile = 0x1000;   // compatible
constexpr std::uint32_t recover = 0x4;         // incompatible
constexpr std::uint32_t journalDevice = 0x8;   // incompatible
constexpr std::uint32_t metaGroups = 0x10;     // incompatible
constexpr std::uint32_t entryTypes = 0x2;      // incompatible
constexpr std::uint32_t extents = 0x40;        // incompatible
constexpr std::uint32_t wide = 0x80;           // incompatible
constexpr std::uint32_t checksumSeed = 0x2000; // incompatible
constexpr std::uint32_t inlineData = 0x8000;   // incompatible
constexpr std::uint32_t encryption = 0x10000;  // incompatible
constexpr std::uint32_t caseFolding = 0x20000; // incompatible
constexpr std::uint32_t sparseSuper = 0x1;     // read-only compatible
constexpr std::uint32_t groupChecksum = 0x10;  // read-only compatible
constexpr std::uint32_t clusters = 0x200;      // read-only compatible
constexpr std::uint32_t checksums = 0x400;     // read-only compatible
} // namespace Feature

/// "Block Group Descriptors": struct ext4_group_desc. Only the first half lies on volumes that are
/// not wide.
struct GroupDescriptor {
    LE32 blockBitmapLow, inodeBitmapLow, inodeTableLow;    //  0, 4, 8
    LE16 freeBlocks, freeInodes, directories;              // 12, 14, 16
    LE16 flags;                                            // 18
    LE32 exclude;                                          // 20
    LE16 blockBitmapChecksum, inodeBitmapChecksum;         // 24, 26
    LE16 unusedInodes;                                     // 28  at the end of the table
    LE16 checksum;                                         // 30
    LE32 blockBitmapHigh, inodeBitmapHigh, inodeTableHigh; // 32, 36, 40
    std::array<std::uint8_t, 20> rest;                     // 44
};
static_assert(sizeof(GroupDescriptor) == 64 && offsetof(GroupDescriptor, checksum) == 30);

constexpr std::uint16_t inodesUnused = 0x1; ///< flag: the inode table was never written
constexpr std::uint16_t blocksUnused = 0x2; ///< flag: the block bitmap was never written

/// "Index Nodes": struct ext4_inode, its first 128 bytes and what may follow them.
struct Inode {
    LE16 mode;                      //   0
    LE16 owner;                     //   2
    LE32 sizeLow;                   //   4
    LE32 accessed, changed;         //   8, 12
    LE32 modified, deleted;         //  16, 20
    LE16 group;                     //  24
    LE16 links;                     //  26
    LE32 sectorsLow;                //  28  of 512 bytes
    LE32 flags;                     //  32
    LE32 version;                   //  36
    InodeBlocks blocks;             //  40
    LE32 generation;                // 100
    LE32 attributesLow;             // 104  block of the extended attributes
    LE32 sizeHigh;                  // 108
    LE32 fragment;                  // 112
    LE16 sectorsHigh;               // 116
    LE16 attributesHigh;            // 118
    std::array<LE16, 2> ownersHigh; // 120
    LE16 checksumLow;               // 124
    LE16 reserved;                  // 126
};
static_assert(sizeof(Inode) == 128 && offsetof(Inode, generation) == 100);

struct InodeExtra {
    LE16 size;         // 0  of what is in use behind the first 128 bytes
    LE16 checksumHigh; // 2
    LE32 changed;      // 4  the extra bits of the dates
    LE32 modified;     // 8
    LE32 accessed;     // 12
    LE32 created;      // 16
    LE32 createdExtra; // 20
    LE32 versionHigh;  // 24
};
static_assert(sizeof(InodeExtra) == 28);

/// Values of `Inode::mode`, the upper four bits.
constexpr std::uint16_t modeMask = 0xF000;
constexpr std::uint16_t directoryMode = 0x4000;
constexpr std::uint16_t fileMode = 0x8000;
constexpr std::uint16_t linkMode = 0xA000;

/// Values of `Inode::flags`.
constexpr std::uint32_t encryptedFlag = 0x800;
constexpr std::uint32_t hashedFlag = 0x1000;
constexpr std::uint32_t hugeFlag = 0x40000;
constexpr std::uint32_t extentsFlag = 0x80000;
constexpr std::uint32_t attributeInodeFlag = 0x200000;
constexpr std::uint32_t inlineFlag = 0x10000000;

constexpr std::uint32_t rootInode = 2;
constexpr std::uint32_t journalInode = 8;

/// "Extent Tree": struct ext4_extent_header, ext4_extent_idx and ext4_extent.
struct ExtentHeader {
    LE16 magic;      // 0
    LE16 entries;    // 2
    LE16 capacity;   // 4
    LE16 depth;      // 6  0: a leaf
    LE32 generation; // 8
};
struct ExtentIndex {
    LE32 block;    // 0  the first that the node below is about
    LE32 nodeLow;  // 4
    LE16 nodeHigh; // 8
    LE16 unused;   // 10
};
struct LeafExtent {
    LE32 block;     // 0
    LE16 count;     // 4  above 32768: so many less of them, which were never written
    LE16 startHigh; // 6
    LE32 startLow;  // 8
};
static_assert(sizeof(ExtentHeader) == 12 && sizeof(ExtentIndex) == 12 && sizeof(LeafExtent) == 12);

/// The first block of an extent.
inline std::uint64_t blockOf(const LeafExtent& extent)
{
    return extent.startLow | std::uint64_t { extent.startHigh } << 32;
}

/// The block of a node that an index names.
inline std::uint64_t blockOf(const ExtentIndex& index)
{
    return index.nodeLow | std::uint64_t { index.nodeHigh } << 32;
}

constexpr std::uint16_t extentMagic = 0xF30A;
constexpr std::uint16_t maxExtentDepth = 5;
constexpr std::uint16_t maxWrittenLength = 32768;

/// "Directory Entries": struct ext4_dir_entry_2, followed by the name.
struct DirectoryEntry {
    LE32 inode;              // 0  0: not in use
    LE16 length;             // 4  to the next entry
    std::uint8_t nameLength; // 6
    std::uint8_t type;       // 7  0 where the volume does not keep it
};
static_assert(sizeof(DirectoryEntry) == 8);

/// "Orphan file": struct ext4_orphan_block_tail, at the end of a block with numbers of inodes.
struct OrphanTail {
    LE32 magic;    // 0
    LE32 checksum; // 4
};
static_assert(sizeof(OrphanTail) == 8);

constexpr std::uint32_t orphanMagic = 0x0B10'CA04;

constexpr std::uint8_t checksumEntryType = 0xDE; ///< of the entry at a block's end
constexpr std::int64_t checksumEntrySize = 12;

} // namespace ExtFormat
