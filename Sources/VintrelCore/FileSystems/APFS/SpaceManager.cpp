#include "VintrelCore/FileSystems/APFS/SpaceManager.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/APFS/Nodes.h"
#include "VintrelCore/FileSystems/APFS/Objects.h"
#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Foundation/Rounding.h"

#include <algorithm>
#include <optional>
#include <unordered_set>
#include <utility>
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
    std::unique_ptr<APFSSpaceManager> manager(new APFSSpaceManager(blocks, superblock.object.xid));
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
        || typeOf(manager->object) != ObjectType::spaceManager
        || !isOfCheckpoint(manager->object, oid)
        || manager->blocksPerChunk != blocks_.blockSize() * 8)
        return {};
    return object;
}

/// Every checkpoint writes all ephemeral objects anew. An older one in the same place would call
/// free what is in use by now.
bool APFSSpaceManager::isOfCheckpoint(const ObjectHeader& object, std::uint64_t oid) const
{
    return object.oid == oid && object.xid == xid_;
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
    if (typeOf(head.object) != ObjectType::chunkAddresses || head.object.oid != number)
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
    if (typeOf(head.object) != ObjectType::chunkInfo || head.object.oid != number)
        return false;
    for (std::uint32_t entry = 0; entry < head.count; ++entry) {
        const auto chunk = entryOf<ChunkInfo>(block, sizeof(ChunkBlock), entry);
        if (!chunk)
            return false;
        auto& kept = chunks_[chunk->firstBlock / blocksPerChunk_];
        kept.bitmapBlock = chunk->bitmapBlock;
        kept.blockCount = chunk->blockCount;
        kept.freeCount = chunk->freeCount;
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
        const auto header = *ByteView(block).load<NodeHeader>(0);
        if (!isOfCheckpoint(header.object, oid) || header.object.subtype != ObjectType::freeQueue)
            continue;
        const bool isLeaf = header.level == 0;
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

/// A bitmap has no checksum, but its chunk says how many of its blocks are free.
bool APFSSpaceManager::agreesWithCount(const Chunk& chunk)
{
    if (chunk.blockCount > chunk.bitmap.size() * 8)
        return false;
    std::uint64_t used = 0;
    for (std::uint32_t block = 0; block < chunk.blockCount; ++block)
        used += chunk.bitmap[block / 8] >> block % 8 & 1;
    return chunk.blockCount - used == chunk.freeCount;
}

/// Not counted against what may be read: each bitmap is read once.
void APFSSpaceManager::readBitmap(Chunk& chunk)
{
    if (std::exchange(chunk.isRead, true) || chunk.bitmapBlock == 0)
        return;
    const auto offset = blocks_.offsetOf(chunk.bitmapBlock);
    chunk.bitmap.resize(static_cast<std::size_t>(blocks_.blockSize()));
    chunk.isLost = !offset
        || blocks_.source().readReporting(*offset, std::span(chunk.bitmap), ReadMode::thorough) > 0
        || !agreesWithCount(chunk);
    if (!chunk.isLost)
        return;
    ++lostBitmaps_;
    chunk.bitmap = {};
}

const APFSSpaceManager::Chunk* APFSSpaceManager::readableChunk(std::uint64_t number)
{
    const auto [chunk, isMissing] = chunks_.try_emplace(number);
    if (isMissing) {
        chunk->second.isRead = chunk->second.isLost = true;
        ++lostBitmaps_;
    }
    readBitmap(chunk->second);
    return chunk->second.isLost ? nullptr : &chunk->second;
}

APFSSpaceManager::Use APFSSpaceManager::useOf(APFSBlocks blocks)
{
    Use use;
    std::uint64_t block = blocks.first;
    const std::uint64_t end = blocks.first + std::min(blocks.end - blocks.first, maxBlockChecks);
    while (block < end) {
        const std::uint64_t inChunk = block % blocksPerChunk_;
        const std::uint64_t chunkEnd = std::min(end, block + blocksPerChunk_ - inChunk);
        const auto* chunk = readableChunk(block / blocksPerChunk_);
        if (chunk == nullptr || chunk->bitmap.empty()) {
            const bool isKnown = chunk != nullptr || freed_.covers({ block, chunkEnd });
            use.isUnknown = use.isUnknown || !isKnown;
            block = chunkEnd;
            continue;
        }
        const auto byte = chunk->bitmap[static_cast<std::size_t>(inChunk / 8)];
        if (byte >> inChunk % 8 == 0) {
            block += 8 - inChunk % 8;
        } else if ((byte >> inChunk % 8 & 1) == 0) {
            ++block;
        } else if (const auto queued = freed_.rangeWith(block)) {
            block = queued->end;
        } else {
            use.isAllocated = true;
            break;
        }
    }
    return use;
}

bool APFSSpaceManager::addAllocated(std::vector<APFSBlocks>& allocated)
{
    const std::uint64_t count = unitsFor(blocks_.blockCount(), blocksPerChunk_);
    const std::size_t before = allocated.size();
    bool isComplete = count > 0 && count <= chunks_.size();
    for (std::uint64_t number = 0; isComplete && number < count; ++number) {
        const auto kept = chunks_.find(number);
        const bool wasRead = kept != chunks_.end() && kept->second.isRead;
        const auto* chunk = readableChunk(number);
        isComplete = chunk != nullptr;
        if (!isComplete)
            break;
        addAllocatedIn(*chunk, number, allocated);
        if (!wasRead) { // all bitmaps together are large
            kept->second.isRead = false;
            kept->second.bitmap = {};
        }
    }
    if (!isComplete)
        allocated.resize(before);
    return isComplete;
}

void APFSSpaceManager::addAllocatedIn(
    const Chunk& chunk, std::uint64_t number, std::vector<APFSBlocks>& allocated) const
{
    if (chunk.bitmap.empty())
        return;
    const std::uint64_t first = number * blocksPerChunk_;
    const std::uint64_t count = std::min(blocksPerChunk_, blocks_.blockCount() - first);
    const auto isAllocated = [&](std::uint64_t block) {
        return (chunk.bitmap[static_cast<std::size_t>(block / 8)] >> block % 8 & 1) != 0;
    };
    for (std::uint64_t block = 0; block < count; ++block) {
        if (!isAllocated(block))
            continue;
        const std::uint64_t start = block;
        while (block < count && isAllocated(block))
            ++block;
        addUnlessFreed({ first + start, first + block }, allocated);
    }
}

/// Leaves out what waits in the queue of freed blocks.
void APFSSpaceManager::addUnlessFreed(APFSBlocks blocks, std::vector<APFSBlocks>& allocated) const
{
    std::uint64_t block = blocks.first;
    while (block < blocks.end) {
        const auto queued
            = freed_.firstEndingBehind(block).value_or(APFSBlocks { blocks.end, blocks.end });
        if (queued.first > block)
            allocated.push_back({ block, std::min(queued.first, blocks.end) });
        block = queued.end;
    }
}
