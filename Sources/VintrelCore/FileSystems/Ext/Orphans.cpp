#include "VintrelCore/FileSystems/Ext/Orphans.h"

#include "VintrelCore/FileSystems/Ext/BlockMap.h"
#include "VintrelCore/FileSystems/Ext/Checksums.h"
#include "VintrelCore/FileSystems/Ext/Inode.h"

#include <algorithm>
#include <array>
#include <bit>

using namespace ExtFormat;

namespace {

/// A system has fewer files open. What is behind them counts as other deleted files do.
constexpr std::size_t maxOrphans = 1'048'576;
/// Systems make orphan files of no more than 512 blocks.
constexpr std::uint64_t maxOrphanBlocks = 4096;

/// The place of an inode in its table; empty where there is none.
Bytes slotOf(const ExtContext& context, std::uint32_t number)
{
    const auto place = context.groups().slotOf(number);
    if (!place)
        return {};
    const auto block = context.blocks().read(place->block);
    const auto slot = ByteView(block).sub(place->at, context.geometry().inodeSize).span();
    return { slot.begin(), slot.end() };
}

/// Each inode of the list has the number of the next one where its time of deletion would be.
void addListed(const ExtContext& context, std::set<std::uint32_t>& numbers)
{
    std::uint32_t number = context.geometry().superblock.lastOrphan;
    while (number != 0 && numbers.size() < maxOrphans) {
        const auto inode = ByteView(slotOf(context, number)).load<Inode>(0);
        if (!inode || !numbers.insert(number).second) // a list that loops ends here
            return;
        number = inode->deleted;
    }
}

/// The checksum of a block of the orphan file, which begins with its place.
std::uint32_t sumOf(
    const ExtGeometry& geometry, const ExtInode& file, std::uint64_t block, ByteView numbers)
{
    const auto place = std::bit_cast<std::array<std::uint8_t, sizeof(LE64)>>(LE64(block));
    const auto seed = ExtInodes::seedOf(geometry, file.number, file.generation);
    return ExtChecksums::crc32c(ExtChecksums::crc32c(seed, place), numbers);
}

void addBlock(const ExtContext& context, const ExtInode& file, std::uint64_t number,
    std::set<std::uint32_t>& numbers)
{
    const auto& geometry = context.geometry();
    const auto bytes = context.blocks().read(number);
    const ByteView block(bytes);
    const auto tailAt = static_cast<std::int64_t>(block.size() - sizeof(OrphanTail));
    const auto tail = block.load<OrphanTail>(tailAt).value_or(OrphanTail {});
    const bool isSound = tail.magic == orphanMagic
        && (!geometry.hasChecksums()
            || tail.checksum == sumOf(geometry, file, number, block.sub(0, tailAt)));
    if (!isSound)
        return;
    for (std::int64_t at = 0; at < tailAt && numbers.size() < maxOrphans; at += sizeof(LE32))
        if (const auto orphan = block.u32le(at); orphan != 0 && orphan <= geometry.inodeCount())
            numbers.insert(orphan);
}

void addFromFile(const ExtContext& context, std::set<std::uint32_t>& numbers)
{
    const auto& geometry = context.geometry();
    const std::uint32_t number = geometry.superblock.orphanFileInode;
    const auto slot = slotOf(context, number);
    const auto inode = ExtInode::decode(geometry, number, slot);
    if (slot.empty() || !inode.isFile() || inode.isInline())
        return;
    ExtBlockMaps maps(geometry);
    const auto mapping
        = maps.read(inode, [&](std::uint64_t block, const ExtBlockMaps::Judge& judge) {
              auto bytes = context.blocks().read(block);
              return judge(bytes) != ExtFit::none ? bytes : Bytes();
          });
    auto left = maxOrphanBlocks;
    for (const auto& run : mapping.runs) {
        const auto count = run.isWritten ? std::min(left, run.count) : 0;
        left -= count;
        for (std::uint64_t index = 0; index < count; ++index)
            addBlock(context, inode, run.physical + index, numbers);
    }
}

} // namespace

namespace ExtOrphans {

std::set<std::uint32_t> numbers(const ExtContext& context)
{
    std::set<std::uint32_t> numbers;
    if (context.trust() != ExtTrust::full)
        return numbers;
    addListed(context, numbers);
    // What fast commits have taken from its folder is given back by a whole transaction alone.
    for (const auto& inode : context.fastCommits().inodes)
        numbers.insert(inode.number);
    if (context.geometry().isCompatible(Feature::orphanFile))
        addFromFile(context, numbers);
    return numbers;
}

bool isOrphanFile(const ExtGeometry& geometry, std::uint32_t number)
{
    return geometry.isCompatible(Feature::orphanFile)
        && number == geometry.superblock.orphanFileInode;
}

} // namespace ExtOrphans
