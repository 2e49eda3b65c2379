#pragma once

#include "VintrelCore/FileSystems/APFS/Parser.h"
#include "VintrelCore/FileSystems/APFS/Structures.h"

/// The nodes of B-trees.
namespace APFSNodes {

/// The lengths of keys and leaf values in nodes whose table of contents does not say them. Values
/// of index nodes are eight bytes long.
struct FixedLengths {
    int key = 0;
    int value = 0;
};

/// Hands every entry of a node to `visit(key, value)`, in the order of its table of contents and as
/// far as they lie within the node; the value is none for an entry that has none. Returns the
/// node's level, and none for what is no node or a damaged one.
template <class Visit>
std::optional<std::uint16_t> forEachRecord(
    ByteView bytes, std::uint64_t blockSize, FixedLengths lengths, Visit visit)
{
    using namespace APFSFormat;
    constexpr std::int64_t footerSize = 40; // of a root: facts about the tree
    constexpr std::uint16_t noValue = 0xFFFF;

    const auto node = bytes.load<NodeHeader>(0);
    if (!node || (typeOf(node->object) & ~1) != ObjectType::rootNode
        || !APFSParser::checksumOK(bytes))
        return std::nullopt;
    const bool isFixed = (node->flags & NodeFlag::fixedSize) != 0;
    const std::int64_t table = std::int64_t { sizeof(NodeHeader) } + node->tableOffset;
    const std::int64_t keyArea = table + node->tableLength;
    const auto size = static_cast<std::int64_t>(bytes.size());
    const std::uint32_t count = node->keyCount;
    if (count > maxKeys || keyArea >= size)
        return std::nullopt;
    const std::int64_t valueEnd = static_cast<std::int64_t>(blockSize)
        - ((node->flags & NodeFlag::root) != 0 ? footerSize : 0);

    for (std::int64_t i = 0; i < count; ++i) {
        const std::int64_t at = table + i * (isFixed ? 4 : 8);
        const std::int64_t keyStart = keyArea + bytes.u16le(at);
        const std::int64_t keyLength = isFixed ? lengths.key : bytes.u16le(at + 2);
        const std::uint16_t valueOffset = bytes.u16le(at + (isFixed ? 2 : 4));
        if (keyStart > size - keyLength) {
            if (valueOffset == noValue)
                continue;
            break;
        }
        const auto key = bytes.sub(keyStart, keyLength);
        if (valueOffset == noValue) {
            visit(key, std::nullopt);
            continue;
        }
        const std::int64_t valueLength = !isFixed ? bytes.u16le(at + 6)
            : node->level == 0                    ? lengths.value
                                                  : 8;
        const std::int64_t valueStart = valueEnd - valueOffset;
        if (valueStart < 0 || valueStart > size - valueLength)
            break;
        visit(key, std::optional(bytes.sub(valueStart, valueLength)));
    }
    return node->level;
}

} // namespace APFSNodes
