#pragma once

#include "VintrelCore/FileSystems/APFS/Objects.h"
#include "VintrelCore/FileSystems/APFS/Structures.h"
#include "VintrelCore/Foundation/Binary.h"

#include <cstdint>
#include <optional>

/// The nodes of B-trees.
namespace APFSNodes {

/// The lengths of keys and leaf values in nodes whose table of contents does not say them. Values
/// of index nodes are eight bytes long.
struct FixedLengths {
    int key = 0;
    int value = 0;
};

/// Where an entry's key and value lie. `valueOffset` counts from the end of the values, backwards.
struct EntryLayout {
    std::int64_t keyOffset, keyLength;
    std::uint16_t valueOffset;
    std::int64_t valueLength;
};

/// Entry `index` of the table of contents at `table`; zeros for one that the node's end cuts.
inline EntryLayout layoutOf(ByteView node, const APFSFormat::NodeHeader& header, std::int64_t table,
    std::int64_t index, FixedLengths lengths)
{
    using namespace APFSFormat;
    if ((header.flags & NodeFlag::fixedSize) == 0) {
        const auto entry
            = node.load<TableEntry>(table + index * std::int64_t { sizeof(TableEntry) })
                  .value_or(TableEntry {});
        return { entry.keyOffset, entry.keyLength, entry.valueOffset, entry.valueLength };
    }
    const auto entry
        = node.load<FixedTableEntry>(table + index * std::int64_t { sizeof(FixedTableEntry) })
              .value_or(FixedTableEntry {});
    return { entry.keyOffset, lengths.key, entry.valueOffset,
        header.level == 0 ? std::int64_t { lengths.value } : indexValueSize };
}

/// Hands every entry of a node to `visit(key, value)`, in the order of its table of contents and as
/// far as they lie within the node; the value is none for an entry that has none. Returns the
/// node's level, and none for what is no node or a damaged one.
template <class Visit>
std::optional<std::uint16_t> forEachRecord(
    ByteView bytes, std::uint64_t blockSize, FixedLengths lengths, Visit visit)
{
    using namespace APFSFormat;
    const auto node = bytes.load<NodeHeader>(0);
    if (!node || (typeOf(node->object) & ~1) != ObjectType::rootNode
        || !APFSParser::checksumOK(bytes))
        return std::nullopt;
    const std::int64_t table = std::int64_t { sizeof(NodeHeader) } + node->tableOffset;
    const std::int64_t keyArea = table + node->tableLength;
    const auto size = static_cast<std::int64_t>(bytes.size());
    const std::uint32_t count = node->keyCount;
    if (count > maxKeys || keyArea >= size)
        return std::nullopt;
    const std::int64_t valueEnd = static_cast<std::int64_t>(blockSize)
        - ((node->flags & NodeFlag::root) != 0 ? treeFooterSize : 0);

    for (std::int64_t i = 0; i < count; ++i) {
        const auto entry = layoutOf(bytes, *node, table, i, lengths);
        const std::int64_t keyStart = keyArea + entry.keyOffset;
        const bool hasKey = keyStart <= size - entry.keyLength;
        if (entry.valueOffset == noValue) {
            if (hasKey)
                visit(bytes.sub(keyStart, entry.keyLength), std::nullopt);
            continue;
        }
        const std::int64_t valueStart = valueEnd - entry.valueOffset;
        if (!hasKey || valueStart < 0 || valueStart > size - entry.valueLength)
            break;
        visit(bytes.sub(keyStart, entry.keyLength),
            std::optional(bytes.sub(valueStart, entry.valueLength)));
    }
    return node->level;
}

} // namespace APFSNodes
