#pragma once

#include "VintrelCore/Binary.h"

#include <array>
#include <cstddef>
#include <cstdint>

/// APFS as it lies on disk. Everything is little-endian.
namespace APFSFormat {

/// Every object begins with this. Physical objects have the number of their block for an oid, virtual ones are found
/// by object maps, and ephemeral ones by the checkpoint maps.
struct ObjectHeader {
    LE64 checksum; //  0  Fletcher-64 of what follows it
    LE64 oid, xid; //  8, 16
    LE32 type;     // 24  the low half; the high half tells how the object is stored
    LE32 subtype;  // 28  of a B-tree: what it holds
};
static_assert(sizeof(ObjectHeader) == 32 && offsetof(ObjectHeader, subtype) == 28);

namespace ObjectType {
constexpr std::uint16_t containerSuperblock = 1;
constexpr std::uint16_t rootNode = 2; ///< of a B-tree
constexpr std::uint16_t node = 3;
constexpr std::uint16_t spaceManager = 5;
constexpr std::uint16_t chunkAddresses = 6;
constexpr std::uint16_t chunkInfo = 7;
constexpr std::uint16_t objectMap = 11;
constexpr std::uint16_t checkpointMap = 12;
constexpr std::uint16_t volumeSuperblock = 13;
constexpr std::uint16_t fileSystemTree = 14; ///< only as a subtype
} // namespace ObjectType

/// The low half of the type field.
inline std::uint16_t typeOf(const ObjectHeader& header) { return static_cast<std::uint16_t>(header.type); }

struct NodeHeader {
    ObjectHeader object;           //  0
    LE16 flags;                    // 32
    LE16 level;                    // 34  0: leaf
    LE32 keyCount;                 // 36
    LE16 tableOffset, tableLength; // 40, 42  of the table of contents, from the end of this header
    LE32 freeSpace;                // 44
    LE32 freeKeys, freeValues;     // 48, 52
};
static_assert(sizeof(NodeHeader) == 56 && offsetof(NodeHeader, tableOffset) == 40);

namespace NodeFlag {
constexpr std::uint16_t root = 1;
constexpr std::uint16_t leaf = 2;
constexpr std::uint16_t fixedSize = 4; ///< of keys and values
} // namespace NodeFlag

constexpr std::uint32_t maxKeys = 9999; ///< that a node is believed to have

} // namespace APFSFormat
