#include "VintrelCore/FileSystems/Ext/Groups.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/Ext/Checksums.h"
#include "VintrelCore/FileSystems/Ext/Inode.h"
#include "VintrelCore/Foundation/CRC16.h"
#include "VintrelCore/Foundation/Rounding.h"

#include <algorithm>

using namespace ExtFormat;

namespace {

/// Copies of a descriptor block that are tried. Every third, fifth or seventh power has one, so
/// that no volume needs more.
constexpr std::size_t maxCopies = 8;

constexpr std::uint64_t pieceSize = 1'048'576; ///< of the search for tables
/// What lies before the tables at the beginning of a group: descriptors, room for more of them, and
/// bitmaps.
constexpr std::uint64_t mostBlocksBeforeTables = 2048;

bool lacksTable(const ExtGroup& group) { return group.inodeTable == 0; }

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
        // A copy whose checksum fits counts before what lies in the first place without one.
        for (const bool wantsSound : { true, false })
            for (std::size_t copy = 0; copy < places.size(); ++copy)
                load(index, places[copy], copy == 0 ? Trust::full : Trust::placesOnly, wantsSound);
    }
    if (std::ranges::any_of(groups_, lacksTable))
        findTables();
    indexTables();
}

ExtGroups::ExtGroups(const ExtBlocks& blocks, const std::vector<std::uint64_t>& tables)
    : blocks_(blocks)
    , geometry_(blocks.geometry())
{
    groups_.reserve(tables.size());
    for (const auto table : tables)
        groups_.push_back({ .inodeTable = table, .usedInodes = geometry_.inodesPerGroup() });
    indexTables();
}

void ExtGroups::indexTables()
{
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

/// Looks for the tables that no descriptor knows where the making of a volume puts them: at the
/// beginning of their group, or of several that have theirs in a row ("Flexible Block Groups"). An
/// inode's checksum has its number in it.
void ExtGroups::findTables()
{
    if (!geometry_.hasChecksums())
        return;
    const auto together = geometry_.groupsTogether();
    for (std::uint64_t group = 0; group < groups_.size(); group += together) {
        const auto last = std::min<std::uint64_t>(group + together, groups_.size());
        if (std::none_of(groups_.begin() + static_cast<std::ptrdiff_t>(group),
                groups_.begin() + static_cast<std::ptrdiff_t>(last), lacksTable))
            continue;
        const auto first = geometry_.firstBlockOf(static_cast<std::uint32_t>(group));
        findTablesIn(first,
            std::min((last - group) * geometry_.tableBlocks() + mostBlocksBeforeTables,
                geometry_.blockCount - first));
    }
}

void ExtGroups::findTablesIn(std::uint64_t first, std::uint64_t count)
{
    const auto piece = pieceSize / geometry_.blockSize;
    for (std::uint64_t done = 0; done < count; done += piece) {
        const auto bytes = blocks_.read(first + done, std::min(piece, count - done));
        for (std::uint64_t at = 0; at < bytes.size(); at += geometry_.blockSize)
            noteTable(first + done + at / geometry_.blockSize,
                ByteView(bytes).sub(static_cast<std::int64_t>(at), geometry_.blockSize));
    }
}

/// Of other bytes the number is chance, and hardly one that belongs in its place of a block.
void ExtGroups::noteTable(std::uint64_t block, ByteView bytes)
{
    for (std::uint32_t index = 0; index < geometry_.inodesPerBlock(); ++index) {
        const auto slot
            = bytes.sub(std::int64_t { index } * geometry_.inodeSize, geometry_.inodeSize);
        const auto number
            = slot.u16le(0) != 0 ? ExtInodes::numberOf(geometry_, slot) : std::nullopt;
        if (!number || *number == 0 || *number > geometry_.inodeCount())
            continue;
        const auto group = (*number - 1) / geometry_.inodesPerGroup();
        const auto inTable = (*number - 1) % geometry_.inodesPerGroup();
        const auto before = inTable / geometry_.inodesPerBlock();
        if (inTable % geometry_.inodesPerBlock() != index || group >= groups_.size()
            || before >= block || !lacksTable(groups_[group]))
            continue;
        groups_[group] = { .inodeTable = block - before, .usedInodes = geometry_.inodesPerGroup() };
        ++healedCount_;
    }
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
    auto sum = crc16(0xFFFF, geometry_.superblock.uuid);
    sum = crc16(sum, number);
    sum = crc16(sum, descriptor.sub(0, sumOffset));
    return crc16(sum, descriptor.sub(behind, size)) == stored;
}

void ExtGroups::load(std::uint32_t descriptorBlock, std::uint64_t at, Trust trust, bool wantsSound)
{
    const std::uint32_t perBlock = geometry_.blockSize / geometry_.descriptorSize;
    const std::uint32_t first = descriptorBlock * perBlock;
    const auto last = std::min<std::uint64_t>(std::uint64_t { first } + perBlock, groups_.size());
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
        const bool fits = isSound(group, raw);
        if (wantsSound && !fits)
            continue;
        const bool isTrusted = trust == Trust::full && fits;
        unsoundCount_ += fits ? 0 : 1;
        healedCount_ += trust == Trust::placesOnly ? 1 : 0;
        const bool hasFlags
            = geometry_.hasChecksums() || geometry_.isReadOnly(Feature::groupChecksum);
        const auto flags
            = isTrusted && hasFlags ? std::uint16_t { descriptor.flags } : std::uint16_t { 0 };
        const std::uint32_t unused
            = isTrusted && hasFlags ? std::uint32_t { descriptor.unusedInodes } : 0;
        groups_[group] = { .blockBitmap = bitmap,
            .inodeBitmap
            = wide(descriptor.inodeBitmapLow, isWide ? descriptor.inodeBitmapHigh : LE32 {}),
            .inodeTable = table,
            .usedInodes = (flags & inodesUnused) != 0
                ? 0
                : geometry_.inodesPerGroup() - std::min(unused, geometry_.inodesPerGroup()),
            .hasBitmap = (flags & blocksUnused) == 0 };
    }
}

std::optional<ExtSlot> ExtGroups::slotOf(std::uint32_t number) const
{
    const auto group = (number - 1) / geometry_.inodesPerGroup();
    if (number == 0 || number > geometry_.inodeCount() || group >= groups_.size()
        || groups_[group].inodeTable == 0)
        return std::nullopt;
    const auto index = (number - 1) % geometry_.inodesPerGroup();
    return ExtSlot { groups_[group].inodeTable + index / geometry_.inodesPerBlock(),
        std::int64_t { index % geometry_.inodesPerBlock() } * geometry_.inodeSize };
}

void ExtGroups::use(std::uint32_t number)
{
    auto& group = groups_[(number - 1) / geometry_.inodesPerGroup()];
    group.usedInodes = std::max(group.usedInodes, (number - 1) % geometry_.inodesPerGroup() + 1);
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
