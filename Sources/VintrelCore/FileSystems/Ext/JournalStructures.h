#pragma once

#include "VintrelCore/Foundation/Binary.h"

#include <array>
#include <cstddef>
#include <cstdint>

/// The journal of ext3 and ext4 as it lies on disk, all of it big-endian ("Journal (jbd2)" in "ext4
/// Data Structures and Algorithms" of the Linux kernel's documentation).
namespace ExtJournalFormat {

constexpr std::uint32_t magicNumber = 0xC03B'3998;

/// "Block Header": journal_header_s. Begins every block that is not a copy.
struct Header {
    BE32 magic;    // 0
    BE32 type;     // 4
    BE32 sequence; // 8  of the transaction
};
static_assert(sizeof(Header) == 12);

constexpr std::uint32_t descriptorType = 1;
constexpr std::uint32_t commitType = 2;
constexpr std::uint32_t oldSuperblockType = 3;
constexpr std::uint32_t superblockType = 4;
constexpr std::uint32_t revokeType = 5;

/// "Super Block": journal_superblock_s, its first fields.
struct Superblock {
    Header header;                       //  0
    BE32 blockSize, blockCount;          // 12, 16
    BE32 first;                          // 20  block of the log
    BE32 sequence;                       // 24  of the first transaction to replay
    BE32 start;                          // 28  its block; 0: nothing to replay
    BE32 error;                          // 32
    BE32 compatible;                     // 36  features
    BE32 incompatible;                   // 40
    BE32 readOnlyCompatible;             // 44
    std::array<std::uint8_t, 16> uuid;   // 48
    BE32 users, dynamicSuper;            // 64, 68
    BE32 maxTransaction, maxData;        // 72, 76
    std::uint8_t checksumType;           // 80
    std::array<std::uint8_t, 3> padding; // 81
    BE32 fastCommitBlocks;               // 84
};
static_assert(sizeof(Superblock) == 88 && offsetof(Superblock, uuid) == 48);

constexpr std::uint32_t checksum1Feature = 0x1;   ///< compatible
constexpr std::uint32_t wideFeature = 0x2;        ///< incompatible
constexpr std::uint32_t checksum2Feature = 0x8;   ///< incompatible
constexpr std::uint32_t checksum3Feature = 0x10;  ///< incompatible
constexpr std::uint32_t fastCommitFeature = 0x20; ///< incompatible

/// "Descriptor Block": journal_block_tag3_s, with checksums of version 3.
struct Tag3 {
    BE32 blockLow, flags; //  0, 4
    BE32 blockHigh;       //  8
    BE32 checksum;        // 12
};
static_assert(sizeof(Tag3) == 16);

/// journal_block_tag_s, without. The last field is only there on wide journals.
struct Tag {
    BE32 blockLow;        // 0
    BE16 checksum, flags; // 4, 6
};
static_assert(sizeof(Tag) == 8);

constexpr std::uint32_t escapedFlag = 0x1;
constexpr std::uint32_t sameUUIDFlag = 0x2;
constexpr std::uint32_t lastFlag = 0x8;
constexpr std::size_t uuidSize = 16;
constexpr std::size_t tailSize = 4; ///< the checksum at the end of descriptor and revoke blocks

/// "Commit Block": commit_header.
struct Commit {
    Header header;                       //  0
    std::uint8_t checksumType;           // 12
    std::uint8_t checksumSize;           // 13
    std::array<std::uint8_t, 2> padding; // 14
    std::array<BE32, 8> checksums;       // 16
    BE64 seconds;                        // 48
    BE32 nanoseconds;                    // 56
};
static_assert(sizeof(Commit) == 60 && offsetof(Commit, seconds) == 48);

constexpr std::uint8_t crc32Type = 1; ///< of a commit's checksum

/// "Revocation Block": jbd2_journal_revoke_header_s.
struct Revoke {
    Header header; //  0
    BE32 used;     // 12  bytes, with this
};
static_assert(sizeof(Revoke) == 16);

} // namespace ExtJournalFormat
