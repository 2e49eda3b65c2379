#include "VintrelCore/FileSystems/APFS/SpaceManager.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/APFS/Nodes.h"
#include "VintrelCore/Foundation/Binary.h"

#include <algorithm>
#include <unordered_set>

using namespace APFSFormat;

namespace {

/// The space manager of a sound container is a few blocks long, however large that is.
constexpr std::uint32_t maxSpaceManager = 1'048'576;

/// Blocks of one extent that are looked up in the bitmaps.
constexpr std::uint64_t maxBlockChecks = 1'048'576;

/// Nodes of the queue of freed blocks, which is kept short.
constexpr std::size_t maxQueueNodes = 4'096;

constexpr std::size_t mainDevice = 0;
constexpr std::size_t mainDeviceQueue = 1;

/// Entry `index` of the array of `T` that begins at `start`.
template <class T>
std::optional<T> entryOf(ByteView bytes, std::uint64_t start, std::uint64_t index)
{
    return bytes.load<T>(static_cast<std::int64_t>(start + index * sizeof(T)));
}

} // namespace

std::unique_ptr<APFSSpaceManager> APFSSpaceManager::load(APFSContainer& container)
{
    const auto superblock = container.superblock().load<ContainerSuperblock>(0);
    const std::uint32_t areaLength = superblock ? superblock->descriptorBlocks : LE32(0);
    if (areaLength == 0 || areaLength > maxDescriptorBlocks)
        return nullptr;
    Places places;
    Bytes block;
    for (std::uint64_t i = 0; i < std::min<std::uint32_t>(superblock->descriptorLength, areaLength);
         ++i) {
        const std::uint64_t place
            = (std::uint64_t { superblock->descriptorIndex } + i) % areaLength;
        if (!container.readBlock(superblock->descriptorBase + place, block)
            || !APFSParser::checksumOK(block))
            continue;
        const auto map = *ByteView(block).load<CheckpointMap>(0);
        if (typeOf(map.object) != ObjectType::checkpointMap
            || map.object.xid != superblock->object.xid)
            continue;
        for (std::uint64_t entry = 0; entry < map.count; ++entry) {
            const auto mapping = entryOf<CheckpointMapping>(block, sizeof(CheckpointMap), entry);
            if (!mapping)
                break;
            places.emplace(mapping->oid, *mapping);
        }
    }
    std::unique_ptr<APFSSpaceManager> manager(new APFSSpaceManager(container));
    std::uint64_t freeQueueOID = 0;
    if (!manager->loadChunks(places, superblock->spaceManagerOID, freeQueueOID))
        return nullptr;
    manager->loadFreeQueue(places, freeQueueOID);
    return manager;
}

bool APFSSpaceManager::loadChunks(
    const Places& places, std::uint64_t oid, std::uint64_t& freeQueueOID)
{
    const auto place = places.find(oid);
    if (place == places.end() || place->second.size > maxSpaceManager)
        return false;
    const std::uint64_t blockSize = container_.blockSize();
    Bytes object;
    Bytes block;
    for (std::uint64_t i = 0; i < place->second.size / blockSize; ++i) {
        if (!container_.readBlock(place->second.block + i, block))
            return false;
        object.insert(object.end(), block.begin(), block.end());
    }
    const auto manager = ByteView(object).load<SpaceManager>(0);
    if (!manager || !APFSParser::checksumOK(object)
        || typeOf(manager->object) != ObjectType::spaceManager || manager->object.oid != oid
        || manager->blocksPerChunk != blockSize * 8)
        return false;
    blocksPerChunk_ = manager->blocksPerChunk;
    freeQueueOID = manager->freeQueues[mainDeviceQueue].treeOID;

    const auto& device = manager->devices[mainDevice];
    if (device.addressBlocks == 0) {
        for (std::uint32_t i = 0; i < device.infoBlocks; ++i) {
            const auto info = entryOf<LE64>(object, device.addressOffset, i);
            if (!info || !loadChunkInfo(*info))
                return false;
        }
        return true;
    }
    for (std::uint32_t i = 0; i < device.addressBlocks; ++i) {
        const auto address = entryOf<LE64>(object, device.addressOffset, i);
        if (!address || !container_.readBlock(*address, block) || !APFSParser::checksumOK(block))
            return false;
        const auto head = *ByteView(block).load<ChunkBlock>(0);
        if (typeOf(head.object) != ObjectType::chunkAddresses)
            return false;
        for (std::uint32_t entry = 0; entry < head.count; ++entry) {
            const auto info = entryOf<LE64>(block, sizeof(ChunkBlock), entry);
            if (!info || !loadChunkInfo(*info))
                return false;
        }
    }
    return true;
}

bool APFSSpaceManager::loadChunkInfo(std::uint64_t number)
{
    Bytes block;
    if (!container_.readBlock(number, block) || !APFSParser::checksumOK(block))
        return false;
    const auto head = *ByteView(block).load<ChunkBlock>(0);
    if (typeOf(head.object) != ObjectType::chunkInfo)
        return false;
    for (std::uint32_t entry = 0; entry < head.count; ++entry) {
        const auto chunk = entryOf<ChunkInfo>(block, sizeof(ChunkBlock), entry);
        if (!chunk)
            return false;
        chunks_[chunk->firstBlock / blocksPerChunk_].bitmapBlock = chunk->bitmapBlock;
    }
    return true;
}

/// What can be read of the queue: a block that is missing in it only seems to be in use.
void APFSSpaceManager::loadFreeQueue(const Places& places, std::uint64_t rootOID)
{
    std::vector<std::uint64_t> pending { rootOID };
    std::unordered_set<std::uint64_t> visited;
    Bytes block;
    while (!pending.empty() && visited.size() < maxQueueNodes) {
        const std::uint64_t oid = pending.back();
        pending.pop_back();
        const auto place = places.find(oid);
        if (place == places.end() || !visited.insert(oid).second
            || !container_.readBlock(place->second.block, block))
            continue;
        const bool isLeaf = ByteView(block).u16le(offsetof(NodeHeader, level)) == 0;
        std::uint64_t room = container_.blockSize() / 16; // for keys alone
        APFSNodes::forEachRecord(block, container_.blockSize(), { 16, 8 },
            [&](ByteView key, std::optional<ByteView> value) {
                if (room == 0)
                    return;
                --room;
                if (!isLeaf) {
                    if (value)
                        pending.push_back(value->u64le(0));
                    return;
                }
                const std::uint64_t first = key.u64le(8);
                const std::uint64_t count
                    = value ? value->u64le(0) : 1; // a single block is kept without its count
                if (first < container_.blockCount() && count <= container_.blockCount() - first)
                    freed_.push_back({ first, first + count });
            });
    }
    sortAndMerge(freed_);
}

const Bytes& APFSSpaceManager::bitmapOf(Chunk& chunk)
{
    if (!chunk.isRead && chunk.bitmapBlock != 0) {
        const auto offset = container_.offsetOf(chunk.bitmapBlock);
        chunk.bitmap.assign(static_cast<std::size_t>(container_.blockSize()), 0xFF);
        // A bitmap has no checksum. One that cannot be read must not call anything free.
        if (offset
            && container_.source().readReporting(
                   *offset, std::span(chunk.bitmap), ReadMode::thorough)
                > 0)
            std::ranges::fill(chunk.bitmap, std::uint8_t { 0xFF });
    }
    chunk.isRead = true;
    return chunk.bitmap;
}

bool APFSSpaceManager::isAnyAllocated(APFSContainer::Blocks blocks)
{
    std::uint64_t block = blocks.first;
    const std::uint64_t end = blocks.first + std::min(blocks.end - blocks.first, maxBlockChecks);
    while (block < end) {
        const auto chunk = chunks_.find(block / blocksPerChunk_);
        const std::uint64_t inChunk = block % blocksPerChunk_;
        if (chunk == chunks_.end() || bitmapOf(chunk->second).empty()) {
            block += blocksPerChunk_ - inChunk;
            continue;
        }
        const auto byte = bitmapOf(chunk->second)[static_cast<std::size_t>(inChunk / 8)];
        if (byte >> inChunk % 8 == 0) {
            block += 8 - inChunk % 8;
        } else if ((byte >> inChunk % 8 & 1) == 0) {
            ++block;
        } else {
            const auto queued = firstEndingBehind(freed_, block);
            if (queued == freed_.end() || queued->first > block)
                return true;
            block = queued->end;
        }
    }
    return false;
}

void sortAndMerge(std::vector<APFSContainer::Blocks>& ranges)
{
    std::ranges::sort(ranges, {}, &APFSContainer::Blocks::first);
    std::size_t count = 0;
    for (const auto& range : ranges) {
        if (count > 0 && range.first <= ranges[count - 1].end)
            ranges[count - 1].end = std::max(ranges[count - 1].end, range.end);
        else
            ranges[count++] = range;
    }
    ranges.resize(count);
}

std::vector<APFSContainer::Blocks>::const_iterator firstEndingBehind(
    const std::vector<APFSContainer::Blocks>& ranges, std::uint64_t block)
{
    return std::ranges::upper_bound(ranges, block, {}, &APFSContainer::Blocks::end);
}
