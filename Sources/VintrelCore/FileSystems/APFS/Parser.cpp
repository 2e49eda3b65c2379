#include "VintrelCore/FileSystems/APFS/Parser.h"

#include "VintrelCore/FileSystems/APFS/BlockReader.h"
#include "VintrelCore/FileSystems/APFS/Structures.h"
#include "VintrelCore/FileSystems/APFS/Superblock.h"
#include "VintrelCore/FileSystems/APFS/VolumeReader.h"

using namespace APFSFormat;

namespace APFSParser {

namespace {

/// Where the container begins if this superblock is a checkpoint's, of which it is the last block
/// in the descriptor area; none when that would be before the source.
std::optional<std::uint64_t> startByCheckpoint(
    const ContainerSuperblock& superblock, std::uint64_t superblockOffset)
{
    const std::uint64_t areaLength = superblock.descriptorBlocks;
    if (areaLength == 0 || areaLength > maxDescriptorBlocks)
        return std::nullopt;
    const std::uint64_t first = superblock.descriptorIndex;
    const std::uint64_t last = (first + superblock.descriptorLength + areaLength - 1) % areaLength;
    const std::uint64_t area = superblock.descriptorBase;
    const std::uint64_t blocksBefore = superblockOffset / superblock.blockSize;
    if (last > blocksBefore || area > blocksBefore - last)
        return std::nullopt;
    return superblockOffset - (area + last) * superblock.blockSize;
}

} // namespace

std::optional<FileSystemType> probe(ByteView head)
{
    return APFSSuperblock::hasMagic(head) ? std::optional(FileSystemType::apfs) : std::nullopt;
}

VolumeList parse(
    DiskSource& source, std::uint64_t offset, const std::string& origin, WorkProgress* progress)
{
    auto container = APFSContainer::open(source, offset);
    return container ? container->volumes(origin, progress) : VolumeList {};
}

std::optional<std::uint64_t> containerStart(DiskSource& source, std::uint64_t superblockOffset)
{
    const auto block = APFSSuperblock::read(source, superblockOffset);
    if (!block || !APFSSuperblock::isSound(*block))
        return std::nullopt;
    const auto superblock = APFSSuperblock::decode(*block);
    for (const auto start :
        { startByCheckpoint(superblock, superblockOffset), std::optional(superblockOffset) })
        if (start
            && APFSSuperblock::hasObjectMap(
                source, *start, superblock.objectMapOID, superblock.blockSize))
            return start;
    return std::nullopt;
}

bool isInContainer(const Volume& volume, std::uint64_t containerStart)
{
    return volume.type == FileSystemType::apfs && volume.offset == containerStart;
}

VolumeList parseFromSuperblock(DiskSource& source, std::uint64_t superblockOffset,
    const std::string& origin, WorkProgress* progress)
{
    const auto start = containerStart(source, superblockOffset);
    if (!start)
        return {};
    auto volumes = parse(source, *start, origin, progress);
    if (!volumes.empty())
        return volumes;
    auto container = APFSContainer::open(source, *start, superblockOffset);
    return container ? container->volumes(origin, progress) : VolumeList {};
}

std::unique_ptr<FileNode> lostFiles(DiskSource& source, Volume& volume,
    std::span<const std::uint64_t> leafOffsets, WorkProgress* progress)
{
    auto* reader = dynamic_cast<APFSVolumeReader*>(volume.deepContext.get());
    return reader != nullptr && reader->isOn(source)
        ? reader->lostFiles(volume, leafOffsets, progress)
        : nullptr;
}

VolumeList snapshots(DiskSource& source, Volume& volume, WorkProgress* progress)
{
    auto* reader = dynamic_cast<APFSVolumeReader*>(volume.deepContext.get());
    return reader != nullptr && reader->isOn(source) ? reader->snapshots(volume, progress)
                                                     : VolumeList {};
}

bool addUsedRanges(DiskSource& source, const Volume& volume, std::vector<ByteRange>& ranges)
{
    const auto* context = dynamic_cast<const APFSVolumeContext*>(volume.deepContext.get());
    return context != nullptr && context->isOn(source) && context->addUsedRanges(ranges);
}

} // namespace APFSParser
