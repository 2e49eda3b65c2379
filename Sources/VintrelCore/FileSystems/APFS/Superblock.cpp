#include "VintrelCore/FileSystems/APFS/Superblock.h"

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
