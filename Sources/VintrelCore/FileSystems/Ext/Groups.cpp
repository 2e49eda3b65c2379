#include "VintrelCore/FileSystems/Ext/Groups.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/Ext/Checksums.h"
#include "VintrelCore/Foundation/Rounding.h"

#include <algorithm>

using namespace ExtFormat;

namespace {

/// Copies of a descriptor block that are tried. Every third, fifth or seventh power has one, so
/// that no volume needs more.
constexpr std::size_t maxCopies = 8;

} // namespace

ExtGroups::ExtGroups(const ExtBlocks& blocks)
    : blocks_(blocks)
    , geometry_(blocks.geometry())
{
    // Groups beyond the source's end have nothing that could be read.
    const auto held = blocks.source().size() > geometry_.base
        ? (blocks.source().size() - geometry_.base) / geometry_.blockSize
        : 0;
    const auto onSource = unitsFor(held, geometry_.blocksPerGroup());
    groups_.resize(
        static_cast<std::size_t>(std::min<std::uint64_t>(geometry_.groupCount, onSource)));
    const std::uint32_t perBlock = geometry_.blockSize / geometry_.descriptorSize;
    for (std::uint32_t index = 0; std::uint64_t { index } * perBlock < groups_.size(); ++index) {
        const auto places = placesOf(index);
        for (std::size_t copy = 0; copy < places.size(); ++copy)
            load(index, places[copy], copy == 0 ? Trust::full : Trust::placesOnly);
    }
    for (std::uint32_t group = 0; group < groups_.size(); ++group) {
        if (groups_[group].inodeTable != 0)
            tables_.emplace_back(groups_[group].inodeTable, group);
        else
            ++missingCount_;
    }
    std::ranges::sort(tables_);
}

/// The blocks in which a block of descriptors and its copies lie, the one in use first ("Block
/// Group Descriptors", "Meta Block Groups").
std::vector<std::uint64_t> ExtGroups::placesOf(std::uint32_t descriptorBlock) const
{
    std::vector<std::uint64_t> places;
    const std::uint32_t perBlock = geometry_.blockSize / geometry_.descriptorSize;
    const std::uint32_t firstGroup = descriptorBlock * perBlock;
    if (geometry_.isIncompatible(Feature::metaGroups)
        && descriptorBlock >= geometry_.superblock.firstMetaGroup) {
        for (const auto group : { firstGroup, firstGroup + 1, firstGroup + perBlock - 1 })
            places.push_back(geometry_.firstBlockOf(group) + (geometry_.hasBackup(group) ? 1 : 0));
        return places;
    }
    for (std::uint32_t group = 0; group < geometry_.groupCount && places.size() < maxCopies;
         ++group)
        if (geometry_.hasBackup(group))
            places.push_back(geometry_.firstBlockOf(group) + 1 + descriptorBlock);
    return places;
}

bool ExtGroups::isSound(std::uint32_t group, ByteView descriptor) const
{
    constexpr std::int64_t sumOffset = offsetof(GroupDescriptor, checksum);
    constexpr std::int64_t behind = sumOffset + 2;
    const auto size = static_cast<std::int64_t>(descriptor.size());
    const auto stored = descriptor.u16le(sumOffset);
    if (geometry_.hasChecksums()) {
        constexpr std::array<std::uint8_t, 2> zeros {};
        auto sum = ExtChecksums::crc32c(geometry_.checksumSeed, LE32(group));
        sum = ExtChecksums::crc32c(sum, descriptor.sub(0, sumOffset));
        sum = ExtChecksums::crc32c(sum, zeros);
        sum = ExtChecksums::crc32c(sum, descriptor.sub(behind, size));
        return (sum & 0xFFFF) == stored;
    }
    if (!geometry_.isReadOnly(Feature::groupChecksum))
        return true;
    const auto number = std::bit_cast<std::array<std::uint8_t, sizeof(LE32)>>(LE32(group));
    auto sum = ExtChecksums::crc16(0xFFFF, geometry_.superblock.uuid);
    sum = ExtChecksums::crc16(sum, number);
    sum = ExtChecksums::crc16(sum, descriptor.sub(0, sumOffset));
    return ExtChecksums::crc16(sum, descriptor.sub(behind, size)) == stored;
}

void ExtGroups::load(std::uint32_t descriptorBlock, std::uint64_t at, Trust trust)
{
    const std::uint32_t perBlock = geometry_.blockSize / geometry_.descriptorSize;
    const std::uint32_t first = descriptorBlock * perBlock;
    const auto last = std::min<std::uint64_t>(std::uint64_t { first } + perBlock, groups_.size());
    const auto lacksTable = [](const ExtGroup& group) { return group.inodeTable == 0; };
    if (!geometry_.isBlock(at)
        || std::none_of(groups_.begin() + first,
            groups_.begin() + static_cast<std::ptrdiff_t>(last), lacksTable))
        return;
    const auto bytes = blocks_.read(at);
    for (std::uint32_t group = first; group < last; ++group) {
        const auto raw = ByteView(bytes).sub(
            std::int64_t { group - first } * geometry_.descriptorSize, geometry_.descriptorSize);
        Bytes padded(raw.span().begin(), raw.span().end());
        padded.resize(std::max(padded.size(), sizeof(GroupDescriptor)));
        const auto descriptor
            = ByteView(padded).load<GroupDescriptor>(0).value_or(GroupDescriptor {});
        const auto wide = [&](LE32 low, LE32 high) { return low | std::uint64_t { high } << 32; };
        const bool isWide = geometry_.descriptorSize >= sizeof(GroupDescriptor);
        const auto table
            = wide(descriptor.inodeTableLow, isWide ? descriptor.inodeTableHigh : LE32 {});
        const auto bitmap
            = wide(descriptor.blockBitmapLow, isWide ? descriptor.blockBitmapHigh : LE32 {});
        const bool isPossible = geometry_.isBlock(table) && geometry_.isBlock(bitmap)
            && geometry_.tableBlocks() <= geometry_.blockCount - table;
        if (!isPossible || groups_[group].inodeTable != 0)
            continue;
        const bool isTrusted = trust == Trust::full && isSound(group, raw);
        unsoundCount_ += trust == Trust::full && !isTrusted ? 1 : 0;
        healedCount_ += trust == Trust::placesOnly ? 1 : 0;
        const bool hasFlags
            = geometry_.hasChecksums() || geometry_.isReadOnly(Feature::groupChecksum);
        const auto flags
            = isTrusted && hasFlags ? std::uint16_t { descriptor.flags } : std::uint16_t { 0 };
        const std::uint32_t unused
            = isTrusted && hasFlags ? std::uint32_t { descriptor.unusedInodes } : 0;
        groups_[group] = { .blockBitmap = bitmap,
            .inodeTable = table,
            .usedInodes = (flags & inodesUnused) != 0
                ? 0
                : geometry_.inodesPerGroup() - std::min(unused, geometry_.inodesPerGroup()),
            .hasBitmap = (flags & blocksUnused) == 0 };
    }
}

std::optional<std::uint32_t> ExtGroups::firstInodeIn(std::uint64_t block) const
{
    const auto next = std::ranges::upper_bound(
        tables_, block, {}, [](const auto& table) { return table.first; });
    if (next == tables_.begin())
        return std::nullopt;
    const auto& [start, group] = *std::prev(next);
    if (block - start >= geometry_.tableBlocks())
        return std::nullopt;
    return static_cast<std::uint32_t>(std::uint64_t { group } * geometry_.inodesPerGroup()
        + (block - start) * geometry_.inodesPerBlock() + 1);
}
