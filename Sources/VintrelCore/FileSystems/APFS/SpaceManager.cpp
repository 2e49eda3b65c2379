#include "VintrelCore/FileSystems/APFS/SpaceManager.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/APFS/Nodes.h"
#include "VintrelCore/FileSystems/APFS/Objects.h"
#include "VintrelCore/Foundation/Binary.h"

#include <algorithm>
#include <optional>
#include <unordered_set>
#include <vector>

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

/// Of the queue's entries, some of which have no value.
constexpr std::uint64_t minEntrySize = sizeof(FreeQueueKey);

/// Entry `index` of the array of `T` that begins at `start`.
template <class T>
std::optional<T> entryOf(ByteView bytes, std::uint64_t start, std::uint64_t index)
{
    return bytes.load<T>(static_cast<std::int64_t>(start + index * sizeof(T)));
}

} // namespace

std::unique_ptr<APFSSpaceManager> APFSSpaceManager::load(
    APFSBlockReader& blocks, const ContainerSuperblock& superblock)
{
    const auto mappings = readCheckpointMaps(blocks, superblock);
    std::unique_ptr<APFSSpaceManager> manager(new APFSSpaceManager(blocks));
    const auto object = manager->readObject(mappings, superblock.spaceManagerOID);
    const auto stored = ByteView(object).load<SpaceManager>(0);
    if (!stored || !manager->loadChunks(object, stored->devices[mainDevice]))
        return nullptr;
    manager->loadFreeQueue(mappings, stored->freeQueues[mainDeviceQueue].treeOID);
    return manager;
}

APFSSpaceManager::MappingByOID APFSSpaceManager::readCheckpointMaps(
    APFSBlockReader& blocks, const ContainerSuperblock& superblock)
{
    MappingByOID mappings;
    const std::uint32_t areaLength = superblock.descriptorBlocks;
    if (areaLength == 0 || areaLength > maxDescriptorBlocks)
        return mappings;
    const auto count = std::min<std::uint32_t>(superblock.descriptorLength, areaLength);
    Bytes block;
    for (std::uint64_t i = 0; i < count; ++i) {
        const std::uint64_t index = (std::uint64_t { superblock.descriptorIndex } + i) % areaLength;
        if (!blocks.read(superblock.descriptorBase + index, block)
            || !APFSParser::checksumOK(block))
            continue;
        const auto map = *ByteView(block).load<CheckpointMap>(0);
        if (typeOf(map.object) != ObjectType::checkpointMap
            || map.object.xid != superblock.object.xid)
            continue;
        for (std::uint64_t entry = 0; entry < map.count; ++entry) {
            const auto mapping = entryOf<CheckpointMapping>(block, sizeof(CheckpointMap), entry);
            if (!mapping)
                break;
            mappings.emplace(mapping->oid, *mapping);
        }
    }
    return mappings;
}

Bytes APFSSpaceManager::readObject(const MappingByOID& mappings, std::uint64_t oid)
{
    const auto mapping = mappings.find(oid);
    if (mapping == mappings.end() || mapping->second.size > maxSpaceManager)
        return {};
    Bytes object;
    Bytes block;
    for (std::uint64_t i = 0; i < mapping->second.size / blocks_.blockSize(); ++i) {
        if (!blocks_.read(mapping->second.block + i, block))
            return {};
        object.insert(object.end(), block.begin(), block.end());
    }
    const auto manager = ByteView(object).load<SpaceManager>(0);
    if (!manager || !APFSParser::checksumOK(object)
        || typeOf(manager->object) != ObjectType::spaceManager || manager->object.oid != oid
        || manager->blocksPerChunk != blocks_.blockSize() * 8)
        return {};
    return object;
}

/// Small containers have the addresses of the chunk-info blocks in the space manager itself.
bool APFSSpaceManager::loadChunks(ByteView object, const SpaceManagerDevice& device)
{
    blocksPerChunk_ = blocks_.blockSize() * 8;
    const bool isInline = device.addressBlocks == 0;
    const std::uint32_t count = isInline ? device.infoBlocks : device.addressBlocks;
    for (std::uint32_t i = 0; i < count; ++i) {
        const auto number = entryOf<LE64>(object, device.addressOffset, i);
        if (!number || !(isInline ? loadChunkInfo(*number) : loadChunkAddresses(*number)))
            return false;
    }
    return true;
}

bool APFSSpaceManager::loadChunkAddresses(std::uint64_t number)
{
    Bytes block;
    if (!blocks_.read(number, block) || !APFSParser::checksumOK(block))
        return false;
    const auto head = *ByteView(block).load<ChunkBlock>(0);
    if (typeOf(head.object) != ObjectType::chunkAddresses)
        return false;
    for (std::uint32_t entry = 0; entry < head.count; ++entry) {
        const auto info = entryOf<LE64>(block, sizeof(ChunkBlock), entry);
        if (!info || !loadChunkInfo(*info))
            return false;
    }
    return true;
}

bool APFSSpaceManager::loadChunkInfo(std::uint64_t number)
{
    Bytes block;
    if (!blocks_.read(number, block) || !APFSParser::checksumOK(block))
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
void APFSSpaceManager::loadFreeQueue(const MappingByOID& mappings, std::uint64_t rootOID)
{
    std::vector<std::uint64_t> waiting { rootOID };
    std::unordered_set<std::uint64_t> visited;
    Bytes block;
    while (!waiting.empty() && visited.size() < maxQueueNodes) {
        const std::uint64_t oid = waiting.back();
        waiting.pop_back();
        const auto mapping = mappings.find(oid);
        if (mapping == mappings.end() || !visited.insert(oid).second
            || !blocks_.read(mapping->second.block, block))
            continue;
        const bool isLeaf = ByteView(block).load<NodeHeader>(0)->level == 0;
        std::uint64_t room = blocks_.blockSize() / minEntrySize;
        APFSNodes::forEachRecord(block, blocks_.blockSize(),
            { sizeof(FreeQueueKey), sizeof(FreeQueueValue) },
            [&](ByteView key, std::optional<ByteView> value) {
                if (room == 0)
                    return;
                --room;
                if (isLeaf)
                    addFreed(key, value);
                else if (value)
                    waiting.push_back(value->u64le(offsetof(IndexValue, child)));
            });
    }
    freed_.merge();
}

void APFSSpaceManager::addFreed(ByteView key, std::optional<ByteView> value)
{
    const std::uint64_t first = key.u64le(offsetof(FreeQueueKey, block));
    const std::uint64_t count = value ? value->u64le(offsetof(FreeQueueValue, blockCount)) : 1;
    if (first < blocks_.blockCount() && count <= blocks_.blockCount() - first)
        freed_.add({ first, first + count });
}

/// Not counted against what may be read: each bitmap is read once.
const Bytes& APFSSpaceManager::bitmapOf(Chunk& chunk)
{
    if (!chunk.isRead && chunk.bitmapBlock != 0) {
        // A bitmap has no checksum. One that cannot be read must not call anything free.
        const auto offset = blocks_.offsetOf(chunk.bitmapBlock);
        chunk.bitmap.assign(static_cast<std::size_t>(blocks_.blockSize()), 0xFF);
        if (offset
            && blocks_.source().readReporting(*offset, std::span(chunk.bitmap), ReadMode::thorough)
                > 0)
            std::ranges::fill(chunk.bitmap, std::uint8_t { 0xFF });
    }
    chunk.isRead = true;
    return chunk.bitmap;
}

bool APFSSpaceManager::findAllocated(APFSBlocks blocks)
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
            const auto queued = freed_.rangeWith(block);
            if (!queued)
                return true;
            block = queued->end;
        }
    }
    return false;
}
