#include "VintrelCore/FileSystems/APFS/Superblock.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/APFS/BlockReader.h"
#include "VintrelCore/FileSystems/APFS/Objects.h"

#include <algorithm>
#include <bit>
#include <cstring>

using namespace APFSFormat;

namespace APFSSuperblock {

namespace {

constexpr std::uint32_t minBlockSize = 4'096;
constexpr std::uint32_t maxBlockSize = 65'536;

} // namespace

bool hasMagic(ByteView block)
{
    return block.matches("NXSB", offsetof(ContainerSuperblock, magic));
}

ContainerSuperblock decode(ByteView block)
{
    ContainerSuperblock superblock {};
    if (const auto count = std::min(block.size(), sizeof(superblock)); count > 0)
        std::memcpy(&superblock, block.data(), count);
    return superblock;
}

bool isSound(ByteView block)
{
    return hasMagic(block) && typeOf(decode(block).object) == ObjectType::containerSuperblock
        && APFSParser::checksumOK(block);
}

/// Not counted against what may be read: there are no more than the descriptor area has blocks.
std::vector<Place> findInArea(DiskSource& source, std::uint64_t base,
    const ContainerSuperblock& superblock, std::uint64_t blockSize)
{
    std::vector<Place> found;
    const std::uint32_t count = superblock.descriptorBlocks;
    const std::uint64_t start = superblock.descriptorBase;
    if ((count & nonContiguous) != 0 || count > maxDescriptorBlocks)
        return found;
    for (std::uint64_t i = 0; i < count; ++i) {
        const std::uint64_t blocksOnSource = (source.size() - base) / blockSize;
        if (start > blocksOnSource || i > blocksOnSource - start)
            break;
        const std::uint64_t offset = base + (start + i) * blockSize;
        const auto block = APFSBlockReader::readAvailable(source, offset, blockSize);
        const std::uint64_t xid = decode(block).object.xid;
        if (isSound(block) && xid != 0)
            found.push_back({ xid, offset });
    }
    return found;
}

ContainerSuperblock newest(DiskSource& source, std::uint64_t base, ByteView first)
{
    auto best = decode(first);
    const bool isFirstSound = isSound(first);
    std::uint64_t bestXID = isFirstSound ? std::uint64_t { best.object.xid } : 0;
    const auto area = best;
    for (std::uint32_t size = minBlockSize; size <= maxBlockSize; size *= 2) {
        if (isFirstSound ? size != area.blockSize : bestXID != 0)
            continue;
        for (const auto& place : findInArea(source, base, area, size)) {
            const auto found
                = decode(APFSBlockReader::readAvailable(source, place.offset, minBlockSize));
            if (place.xid <= bestXID || found.blockSize != size)
                continue;
            best = found;
            bestXID = place.xid;
        }
    }
    return best;
}

bool hasObjectMap(
    DiskSource& source, std::uint64_t start, std::uint64_t block, std::uint64_t blockSize)
{
    if (start >= source.size() || block > (source.size() - start) / blockSize)
        return false;
    const auto map = APFSBlockReader::readAvailable(source, start + block * blockSize, blockSize);
    const auto header = ByteView(map).load<ObjectHeader>(0);
    return header && typeOf(*header) == ObjectType::objectMap && header->oid == block
        && APFSParser::checksumOK(map);
}

std::optional<Bytes> read(DiskSource& source, std::uint64_t offset)
{
    const auto head = APFSBlockReader::readAvailable(source, offset, minBlockSize);
    const std::uint32_t blockSize = decode(head).blockSize;
    if (!hasMagic(head) || blockSize < minBlockSize || blockSize > maxBlockSize
        || !std::has_single_bit(blockSize))
        return std::nullopt;
    return APFSBlockReader::readAvailable(source, offset, blockSize);
}

} // namespace APFSSuperblock
