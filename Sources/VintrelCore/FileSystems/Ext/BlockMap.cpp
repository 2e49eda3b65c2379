#include "VintrelCore/FileSystems/Ext/BlockMap.h"

#include "VintrelCore/FileSystems/Ext/Checksums.h"
#include "VintrelCore/Foundation/Rounding.h"

#include <algorithm>
#include <array>

using namespace ExtFormat;

namespace {

constexpr std::size_t directBlocks = 12; // "Direct/Indirect Block Addressing"
constexpr std::uint16_t listLevels = 3;
constexpr std::int64_t headerSize = sizeof(ExtentHeader);
constexpr std::int64_t entrySize = sizeof(LeafExtent);

/// What the maps of one volume may read: in a sound one each block is a part of one file. Several
/// states of a file and deleted files name some of them again.
constexpr std::uint64_t statesOfBlock = 4;
constexpr std::uint64_t leastBudget = 65'536;

/// The entries of a node, as many as it has room for.
std::uint16_t entryCount(ByteView node, const ExtentHeader& header)
{
    const auto room = (static_cast<std::int64_t>(node.size()) - headerSize) / entrySize;
    return static_cast<std::uint16_t>(std::min<std::int64_t>(header.entries, room));
}

} // namespace

std::uint64_t ExtMapping::blockCount() const
{
    std::uint64_t count = 0;
    for (const auto& run : runs)
        count += run.count;
    return count;
}

ExtBlockMaps::ExtBlockMaps(const ExtGeometry& geometry)
    : geometry_(geometry)
    , nodesLeft_(geometry.blockCount * statesOfBlock + leastBudget)
    , runsLeft_(nodesLeft_)
{
}

bool ExtBlockMaps::take(std::uint64_t& budget)
{
    if (budget == 0)
        return false;
    --budget;
    return true;
}

ExtFit ExtBlockMaps::judgeNode(const ExtInode& inode, ByteView block, std::uint16_t depth) const
{
    const auto header = block.load<ExtentHeader>(0);
    if (!header || header->magic != extentMagic || header->depth != depth
        || header->entries > header->capacity
        || headerSize + header->capacity * entrySize > static_cast<std::int64_t>(block.size()))
        return ExtFit::none;
    if (!geometry_.hasChecksums())
        return ExtFit::possible;
    // "Extent Tree": struct ext4_extent_tail lies behind the last entry that there is room for.
    const auto tail = headerSize + header->capacity * entrySize;
    const auto sum = ExtChecksums::crc32c(
        ExtInodes::seedOf(geometry_, inode.number, inode.generation), block.sub(0, tail));
    return sum == block.u32le(tail) ? ExtFit::proved : ExtFit::possible;
}

ExtFit ExtBlockMaps::judgeList(ByteView block) const
{
    bool hasBlocks = false;
    for (std::int64_t at = 0; at < static_cast<std::int64_t>(block.size()); at += 4) {
        const auto number = block.u32le(at);
        if (number != 0 && !geometry_.isBlock(number))
            return ExtFit::none;
        hasBlocks = hasBlocks || number != 0;
    }
    return hasBlocks ? ExtFit::possible : ExtFit::none;
}

ExtRun runOf(const LeafExtent& extent)
{
    const bool isWritten = extent.count <= maxWrittenLength;
    return { .logical = extent.block,
        .physical = blockOf(extent),
        .count = std::uint64_t { extent.count } - (isWritten ? 0 : maxWrittenLength),
        .isWritten = isWritten };
}

ExtMapping ExtBlockMaps::read(const ExtInode& inode, const Lookup& lookup)
{
    ExtMapping mapping;
    if (!inode.hasExtents()) {
        readLists(inode, lookup, mapping);
        return mapping;
    }
    const ByteView root(inode.map);
    const auto header = root.load<ExtentHeader>(0).value_or(ExtentHeader {});
    if (header.magic != extentMagic || header.depth > maxExtentDepth) {
        mapping.isWhole = inode.size == 0;
        return mapping;
    }
    readExtents(inode, root, header.depth, lookup, mapping);
    return mapping;
}

ExtMapping ExtBlockMaps::readDeadTree(const ExtInode& inode, const Lookup& lookup)
{
    ExtMapping mapping;
    const ByteView root(inode.map);
    for (std::int64_t at = headerSize; at + entrySize <= static_cast<std::int64_t>(root.size());
         at += entrySize) {
        // An extent that was taken out has zeros where an index has its node.
        const auto index = root.load<ExtentIndex>(at).value_or(ExtentIndex {});
        if (index.nodeLow != 0 && geometry_.isBlock(blockOf(index))
            && !readNode(inode, blockOf(index), lookup, mapping))
            mapping.isWhole = false;
    }
    return mapping;
}

/// A node of a height that nothing says any more.
bool ExtBlockMaps::readNode(
    const ExtInode& inode, std::uint64_t block, const Lookup& lookup, ExtMapping& mapping)
{
    for (std::uint16_t depth = 0; depth < maxExtentDepth && take(nodesLeft_); ++depth) {
        const auto node
            = lookup(block, [&](ByteView bytes) { return judgeNode(inode, bytes, depth); });
        const bool isNode = !node.empty()
            && (!geometry_.hasChecksums() || judgeNode(inode, node, depth) == ExtFit::proved);
        if (!isNode)
            continue;
        mapping.innerBlocks.push_back(block);
        readExtents(inode, node, depth, lookup, mapping);
        return true;
    }
    return false;
}

/// Goes through a tree with the nodes that are still to be read on a stack, the next one on top.
void ExtBlockMaps::readExtents(const ExtInode& inode, ByteView node, std::uint16_t depth,
    const Lookup& lookup, ExtMapping& mapping)
{
    std::vector<Open> open;
    const auto addEntries = [&](ByteView bytes, std::uint16_t level) {
        const auto header = bytes.load<ExtentHeader>(0).value_or(ExtentHeader {});
        const auto count = entryCount(bytes, header);
        for (std::uint16_t index = 0; level == 0 && index < count; ++index)
            if (const auto extent = bytes.load<LeafExtent>(headerSize + index * entrySize))
                addExtent(mapping, *extent);
        for (std::uint16_t index = count; level > 0 && index > 0; --index)
            if (const auto below = bytes.load<ExtentIndex>(headerSize + (index - 1) * entrySize))
                open.push_back(
                    { blockOf(*below), below->block, static_cast<std::uint16_t>(level - 1) });
    };
    addEntries(node, depth);
    while (!open.empty()) {
        const auto next = open.back();
        open.pop_back();
        if (!geometry_.isBlock(next.block) || !take(nodesLeft_)) {
            mapping.isWhole = false;
            continue;
        }
        const auto bytes = lookup(
            next.block, [&](ByteView block) { return judgeNode(inode, block, next.depth); });
        if (bytes.empty()) {
            mapping.isWhole = false;
            continue;
        }
        if (geometry_.hasChecksums() && judgeNode(inode, bytes, next.depth) != ExtFit::proved)
            mapping.isSound = false;
        mapping.innerBlocks.push_back(next.block);
        addEntries(bytes, next.depth);
    }
}

void ExtBlockMaps::addExtent(ExtMapping& mapping, const LeafExtent& extent)
{
    const auto run = runOf(extent);
    const auto next = mapping.runs.empty() ? 0 : mapping.runs.back().end();
    if (run.count == 0)
        return;
    if (run.logical < next || !geometry_.isBlock(run.physical)
        || run.count > geometry_.blockCount - run.physical || !take(runsLeft_)) {
        mapping.isWhole = false;
        return;
    }
    mapping.runs.push_back(run);
}

void ExtBlockMaps::readLists(const ExtInode& inode, const Lookup& lookup, ExtMapping& mapping)
{
    const ByteView map(inode.map);
    const std::uint64_t wanted = unitsFor(inode.size, geometry_.blockSize);
    const std::uint64_t perList = geometry_.blockSize / sizeof(LE32);
    for (std::size_t index = 0; index < directBlocks; ++index)
        addBlock(mapping, index, map.u32le(static_cast<std::int64_t>(index * sizeof(LE32))));

    std::vector<Open> open;
    std::uint64_t logical = directBlocks;
    std::uint64_t covered = perList; // by a list of the level
    std::array<Open, listLevels> tops;
    for (std::uint16_t level = 0; level < listLevels; ++level) {
        tops[level] = { map.u32le(static_cast<std::int64_t>((directBlocks + level) * sizeof(LE32))),
            logical, level };
        logical += covered;
        covered *= perList;
    }
    for (auto top = tops.rbegin(); top != tops.rend(); ++top)
        if (top->block != 0)
            open.push_back(*top);
    while (!open.empty()) {
        const auto next = open.back();
        open.pop_back();
        if (next.logical >= wanted) // the list is kept for a file that has shrunk
            continue;
        if (!geometry_.isBlock(next.block) || !take(nodesLeft_)) {
            mapping.isWhole = false;
            continue;
        }
        const auto bytes = lookup(next.block, [&](ByteView block) { return judgeList(block); });
        if (bytes.empty()) {
            mapping.isWhole = false;
            continue;
        }
        mapping.innerBlocks.push_back(next.block);
        const ByteView list(bytes);
        std::uint64_t step = 1;
        for (std::uint16_t level = 0; level < next.depth; ++level)
            step *= perList;
        for (std::uint64_t index = 0; next.depth == 0 && index < perList; ++index)
            addBlock(mapping, next.logical + index,
                list.u32le(static_cast<std::int64_t>(index * sizeof(LE32))));
        for (std::uint64_t index = perList; next.depth > 0 && index > 0; --index)
            if (const auto block
                = list.u32le(static_cast<std::int64_t>((index - 1) * sizeof(LE32))))
                open.push_back({ block, next.logical + (index - 1) * step,
                    static_cast<std::uint16_t>(next.depth - 1) });
    }
    while (!mapping.runs.empty() && mapping.runs.back().logical >= wanted)
        mapping.runs.pop_back();
}

void ExtBlockMaps::addBlock(ExtMapping& mapping, std::uint64_t logical, std::uint64_t block)
{
    if (block == 0)
        return;
    if (!geometry_.isBlock(block)) {
        mapping.isWhole = false;
        return;
    }
    if (!mapping.runs.empty()) {
        auto& last = mapping.runs.back();
        if (logical == last.end() && block == last.physical + last.count) {
            ++last.count;
            return;
        }
    }
    if (take(runsLeft_))
        mapping.runs.push_back({ logical, block, 1, true });
    else
        mapping.isWhole = false;
}

ExtentList ExtBlockMaps::place(const ExtMapping& mapping, std::uint64_t size) const
{
    ExtentList pieces;
    std::uint64_t placed = 0; // bytes of the file
    const auto add = [&](std::optional<std::uint64_t> offset, std::uint64_t length) {
        length = std::min(length, size - placed);
        if (length == 0)
            return;
        placed += length;
        const bool goesOn = !pieces.empty()
            && pieces.back().offset.has_value() == offset.has_value()
            && (!offset || *pieces.back().offset + pieces.back().length == *offset);
        if (goesOn)
            pieces.back().length += length;
        else
            pieces.push_back({ offset, length });
    };
    for (const auto& run : mapping.runs) {
        const auto from = saturatingMultiply(run.logical, geometry_.blockSize);
        if (from >= size)
            break;
        add(std::nullopt, from - placed);
        add(run.isWritten ? std::optional(geometry_.offsetOf(run.physical)) : std::nullopt,
            run.count * geometry_.blockSize);
    }
    add(std::nullopt, size - placed);
    return pieces;
}
