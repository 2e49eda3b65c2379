// From a container's superblocks to its volumes.

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/APFS/Nodes.h"
#include "VintrelCore/FileSystems/APFS/SpaceManager.h"
#include "VintrelCore/FileSystems/APFS/VolumeReader.h"
#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Model/FileData.h"
#include "VintrelCore/Model/FileNode.h"
#include "VintrelCore/Model/FileTypes.h"
#include "VintrelCore/Model/Volume.h"
#include "VintrelCore/Model/WorkProgress.h"

#include <algorithm>
#include <bit>
#include <limits>

using namespace APFSFormat;

namespace {

constexpr std::int64_t firstRead
    = 4'096;                 ///< of the first superblock, whose block size is not known yet
constexpr int maxDepth = 15; ///< of an object map's tree
constexpr std::size_t maxOlderCheckpoints = 64; ///< that are searched for deleted files

/// On a sound container every block is read once or twice. On a damaged one trees may share nodes,
/// but what asks for so many times more than the source has is made up.
constexpr std::uint64_t readBudgetFactor = 8;

/// An extent record takes up more bytes than this on disk.
constexpr std::uint64_t bytesPerExtent = 48;
constexpr std::uint64_t minExtentBudget = 65'536;

constexpr std::int64_t fileSystemOIDs = offsetof(ContainerSuperblock, fileSystemOIDs);

bool hasMagic(ByteView block, std::string_view magic)
{
    return block.matches(magic, offsetof(ContainerSuperblock, magic));
}

/// The block size that a superblock names; none when it cannot be.
std::optional<std::uint32_t> blockSizeOf(ByteView superblock)
{
    const auto size = superblock.u32le(offsetof(ContainerSuperblock, blockSize));
    if (!hasMagic(superblock, "NXSB") || size < 4'096 || size > 65'536
        || !std::has_single_bit(size))
        return std::nullopt;
    return size;
}

bool isCheckpointSuperblock(ByteView block)
{
    const auto header = block.load<ObjectHeader>(0);
    return header && typeOf(*header) == ObjectType::containerSuperblock && hasMagic(block, "NXSB")
        && APFSParser::checksumOK(block);
}

/// What the source has at an offset. Bytes past its end are left out.
Bytes readAvailable(DiskSource& source, std::uint64_t offset, std::int64_t count)
{
    if (offset >= source.size())
        return {};
    const auto available
        = std::min<std::uint64_t>(source.size() - offset, static_cast<std::uint64_t>(count));
    return source.read(offset, static_cast<std::int64_t>(available), ReadMode::thorough);
}

} // namespace

std::shared_ptr<APFSContainer> APFSContainer::open(DiskSource& source, std::uint64_t base)
{
    return open(source, base, base);
}

std::shared_ptr<APFSContainer> APFSContainer::open(
    DiskSource& source, std::uint64_t base, std::uint64_t superblockOffset)
{
    const auto blockSize = blockSizeOf(readAvailable(source, superblockOffset, firstRead));
    if (!blockSize)
        return nullptr;
    auto first = readAvailable(source, superblockOffset, *blockSize);
    return std::shared_ptr<APFSContainer>(
        new APFSContainer(source, base, std::move(first), superblockOffset));
}

APFSContainer::APFSContainer(
    DiskSource& source, std::uint64_t base, Bytes firstSuperblock, std::uint64_t firstOffset)
    : source_(source)
    , base_(base)
    , blockSize_(ByteView(firstSuperblock).u32le(offsetof(ContainerSuperblock, blockSize)))
    , blockCount_(ByteView(firstSuperblock).u64le(offsetof(ContainerSuperblock, blockCount)))
    , superblock_(std::move(firstSuperblock))
    , xid_(superblock().u64le(offsetof(ObjectHeader, xid)))
    , readsLeft_(readBudgetFactor * (source.size() / blockSize_ + 8))
    , extentsLeft_(source.size() / bytesPerExtent + minExtentBudget)
{
    if (firstOffset != base)
        notes_.emplace_back("Containerens første superblok er tabt. En af de andre er brugt.");
    if (APFSParser::checksumOK(superblock_) && xid_ != 0)
        checkpoints_.push_back({ xid_, firstOffset });
    else
        notes_.emplace_back("Containerens superblok har forkert kontrolsum.");
    findCheckpoints();
    if (checkpoints_.empty()) {
        xid_ = std::numeric_limits<std::uint64_t>::max();
    } else {
        xid_ = checkpoints_.front().xid;
        superblock_ = superblockOf(checkpoints_.front());
    }
}

APFSContainer::~APFSContainer() = default;

/// Finds the valid superblocks of the checkpoint descriptor area. Of those with the same
/// transaction the first counts.
void APFSContainer::findCheckpoints()
{
    const auto count = superblock().u32le(offsetof(ContainerSuperblock, descriptorBlocks));
    const auto start = superblock().u64le(offsetof(ContainerSuperblock, descriptorBase));
    if ((count & nonContiguous) != 0 || count > maxDescriptorBlocks)
        return;
    for (std::uint64_t i = 0; i < count; ++i) {
        const auto offset = start <= std::numeric_limits<std::uint64_t>::max() - i
            ? offsetOf(start + i)
            : std::nullopt;
        if (!offset)
            break;
        const auto block = readAvailable(source_, *offset, static_cast<std::int64_t>(blockSize_));
        const auto xid = ByteView(block).u64le(offsetof(ObjectHeader, xid));
        if (isCheckpointSuperblock(block) && xid != 0)
            checkpoints_.push_back({ xid, *offset });
    }
    std::ranges::stable_sort(checkpoints_, std::ranges::greater {}, &Checkpoint::xid);
    const auto isSame
        = [](const Checkpoint& one, const Checkpoint& other) { return one.xid == other.xid; };
    checkpoints_.erase(
        std::unique(checkpoints_.begin(), checkpoints_.end(), isSame), checkpoints_.end());
}

Bytes APFSContainer::superblockOf(const Checkpoint& checkpoint)
{
    return readAvailable(source_, checkpoint.offset, static_cast<std::int64_t>(blockSize_));
}

std::optional<std::uint64_t> APFSContainer::offsetOf(std::uint64_t block) const
{
    if (base_ >= source_.size() || block > (source_.size() - base_ - 1) / blockSize_)
        return std::nullopt;
    return base_ + block * blockSize_;
}

bool APFSContainer::isValid(std::uint64_t block) const
{
    return block != 0 && blockCount_ != 1 && (blockCount_ == 0 || block < blockCount_)
        && offsetOf(block);
}

bool APFSContainer::readBlock(std::uint64_t block, Bytes& buffer)
{
    if (!isValid(block) || readsLeft_ == 0)
        return false;
    --readsLeft_;
    buffer.resize(static_cast<std::size_t>(blockSize_));
    source_.readReporting(*offsetOf(block), std::span(buffer), ReadMode::thorough);
    return true;
}

void APFSContainer::walkObjectMap(std::uint64_t oid, std::uint64_t maxXID,
    std::unordered_set<std::uint64_t>& visited, const std::function<void(const Version&)>& visit)
{
    struct Pending {
        std::uint64_t block;
        int depth;
    };
    Bytes bytes;
    if (!readBlock(oid, bytes) || !APFSParser::checksumOK(bytes))
        return;
    std::vector<Pending> pending { { ByteView(bytes).u64le(offsetof(ObjectMap, treeOID)), 0 } };
    while (!pending.empty()) {
        const auto [block, depth] = pending.back();
        pending.pop_back();
        if (depth > maxDepth || visited.contains(block) || !readBlock(block, bytes)
            || ByteView(bytes).u64le(offsetof(ObjectHeader, xid)) > maxXID)
            continue;
        const bool isLeaf = ByteView(bytes).u16le(offsetof(NodeHeader, level)) == 0;
        std::uint64_t room
            = blockSize_ / 24; // for keys and the shorter values: entries do not share bytes
        const auto level = APFSNodes::forEachRecord(bytes, blockSize_, { 16, 16 },
            [&, depth = depth](ByteView key, std::optional<ByteView> value) {
                if (!value || room == 0)
                    return;
                --room;
                if (isLeaf)
                    visit({ key.u64le(0), key.u64le(8), value->u64le(8),
                        (value->u32le(0) & deletedMask) != 0 });
                else
                    pending.push_back({ value->u64le(0), depth + 1 });
            });
        if (level)
            visited.insert(block);
    }
}

std::unordered_map<std::uint64_t, std::uint64_t> APFSContainer::loadOMap(
    std::uint64_t oid, std::uint64_t maxXID)
{
    std::unordered_map<std::uint64_t, Version> newest;
    std::unordered_set<std::uint64_t> visited;
    walkObjectMap(
        oid, std::numeric_limits<std::uint64_t>::max(), visited, [&](const Version& version) {
            if (version.isDeleted || version.xid > maxXID)
                return;
            const auto [known, isNew] = newest.emplace(version.oid, version);
            if (!isNew && known->second.xid < version.xid)
                known->second = version;
        });
    std::unordered_map<std::uint64_t, std::uint64_t> blocks;
    for (const auto& [virtualOID, version] : newest)
        blocks.emplace(virtualOID, version.block);
    return blocks;
}

/// The object map of the newest checkpoint whose map can be used, which becomes the container's.
/// Empty when none can.
std::unordered_map<std::uint64_t, std::uint64_t> APFSContainer::usableObjectMap()
{
    const auto mapOf = [this] {
        return loadOMap(superblock().u64le(offsetof(ContainerSuperblock, objectMapOID)), xid_);
    };
    auto map = mapOf();
    const bool hasVolumes
        = !superblock().isAllZero(fileSystemOIDs, std::int64_t { maxVolumeSlots * 8 });
    for (std::size_t next = 1;
         map.empty() && hasVolumes && next < std::min(checkpoints_.size(), maxOlderCheckpoints);
         ++next) {
        superblock_ = superblockOf(checkpoints_[next]);
        xid_ = checkpoints_[next].xid;
        map = mapOf();
        if (!map.empty())
            notes_.emplace_back(
                "Det nyeste checkpoint kan ikke bruges. Et ældre er læst i stedet.");
    }
    return map;
}

VolumeList APFSContainer::volumes(const std::string& origin, WorkProgress* progress)
{
    VolumeList volumes;
    const auto map = usableObjectMap();
    const auto slots = static_cast<std::int64_t>(std::min<std::size_t>(
        superblock().u32le(offsetof(ContainerSuperblock, maxFileSystems)), maxVolumeSlots));
    Bytes block;
    for (std::int64_t slot = 0; slot < slots; ++slot) {
        const auto place = map.find(superblock().u64le(fileSystemOIDs + 8 * slot));
        if (place == map.end() || place->first == 0 || !readBlock(place->second, block)
            || !hasMagic(block, "APSB"))
            continue;
        if (isCancelled(progress))
            break;
        volumes.push_back(volume(block, place->first, origin, progress));
    }
    if (!estimateDeleted())
        for (const auto& volume : volumes)
            volume->notes.emplace_back("Oversigten over ledig plads kunne ikke læses.");
    return volumes;
}

std::unique_ptr<Volume> APFSContainer::volume(
    ByteView superblock, std::uint64_t oid, const std::string& origin, WorkProgress* progress)
{
    return APFSVolumeReader::read(
        std::make_unique<APFSVolumeReader>(shared_from_this(), superblock, oid), origin, progress);
}

std::vector<Bytes> APFSContainer::olderSuperblocks(std::uint64_t volumeOID)
{
    if (!volumeVersions_) {
        volumeVersions_.emplace();
        const auto uuid
            = superblock().load<ContainerSuperblock>(0).value_or(ContainerSuperblock {}).uuid;
        std::unordered_set<std::uint64_t> visited;
        std::size_t count = 0;
        for (const auto& checkpoint : checkpoints_) {
            if (checkpoint.xid > xid_ || count++ > maxOlderCheckpoints)
                continue;
            const auto bytes = superblockOf(checkpoint);
            const auto older = ByteView(bytes).load<ContainerSuperblock>(0);
            if (older
                && older->uuid == uuid) // an earlier container in the same place is none of ours
                walkObjectMap(older->objectMapOID, checkpoint.xid, visited,
                    [&](const Version& version) { volumeVersions_->push_back(version); });
        }
        std::ranges::stable_sort(*volumeVersions_, std::ranges::greater {}, &Version::xid);
    }
    std::vector<Bytes> found;
    Bytes block;
    for (const auto& version : *volumeVersions_) {
        if (version.oid != volumeOID || !readBlock(version.block, block)
            || !APFSParser::checksumOK(block))
            continue;
        const auto header = *ByteView(block).load<ObjectHeader>(0);
        if (hasMagic(block, "APSB") && header.oid == volumeOID && header.xid <= xid_)
            found.push_back(block);
        if (found.size() > maxOlderCheckpoints)
            break;
    }
    return found;
}

bool APFSContainer::estimateDeleted()
{
    if (toEstimate_.empty())
        return true;
    if (!spaceManagerLoaded_)
        spaceManager_ = APFSSpaceManager::load(*this);
    spaceManagerLoaded_ = true;
    sortAndMerge(inUse_);
    for (auto* node : toEstimate_)
        estimate(*node);
    toEstimate_.clear();
    return spaceManager_ != nullptr;
}

void APFSContainer::estimate(FileNode& node)
{
    bool isFirst = true;
    bool isReused = false;
    bool isFirstReused = false;
    for (const auto& extent : std::get<ExtentList>(node.data)) {
        if (!extent.offset || isReused)
            continue;
        const std::uint64_t first = (*extent.offset - base_) / blockSize_;
        const std::uint64_t end
            = first + extent.length / blockSize_ + (extent.length % blockSize_ != 0);
        if (isFirst)
            isFirstReused = isInUse({ first, first + 1 });
        isReused = isFirstReused || isInUse({ first, end });
        isFirst = false;
    }
    node.judgeByReuse(isFirstReused, isReused);
}

bool APFSContainer::isInUse(Blocks blocks)
{
    const auto next = firstEndingBehind(inUse_, blocks.first);
    return (next != inUse_.end() && next->first < blocks.end)
        || (spaceManager_ && spaceManager_->isAnyAllocated(blocks));
}

bool APFSContainer::takeExtents(std::size_t count)
{
    if (count > extentsLeft_)
        return false;
    extentsLeft_ -= count;
    return true;
}

std::optional<APFSContainer::Node> APFSContainer::parseNode(
    ByteView bytes, int fixedKey, int fixedValue) const
{
    Node node;
    const auto level = APFSNodes::forEachRecord(bytes, blockSize_, { fixedKey, fixedValue },
        [&](ByteView key, std::optional<ByteView> value) {
            if (value)
                node.records.push_back({ key, *value });
        });
    if (!level)
        return std::nullopt;
    node.level = *level;
    return node;
}

namespace APFSParser {

VolumeList parse(
    DiskSource& source, std::uint64_t offset, const std::string& origin, WorkProgress* progress)
{
    const auto container = APFSContainer::open(source, offset);
    return container ? container->volumes(origin, progress) : VolumeList {};
}

std::optional<std::uint64_t> containerStart(DiskSource& source, std::uint64_t superblockOffset)
{
    const auto blockSize = blockSizeOf(readAvailable(source, superblockOffset, firstRead));
    if (!blockSize)
        return std::nullopt;
    const auto bytes = readAvailable(source, superblockOffset, *blockSize);
    const auto superblock = ByteView(bytes).load<ContainerSuperblock>(0);
    if (!superblock || !isCheckpointSuperblock(bytes))
        return std::nullopt;

    // A physical object knows the number of its own block, so that only the true start has it in
    // the right place.
    const auto isStart = [&](std::uint64_t start) {
        const std::uint64_t block = superblock->objectMapOID;
        if (start >= source.size() || block > (source.size() - start) / *blockSize)
            return false;
        const auto map = readAvailable(source, start + block * *blockSize, *blockSize);
        const auto header = ByteView(map).load<ObjectHeader>(0);
        return header && typeOf(*header) == ObjectType::objectMap && header->oid == block
            && checksumOK(map);
    };
    const std::uint32_t areaLength = superblock->descriptorBlocks;
    if (areaLength != 0 && areaLength <= maxDescriptorBlocks) {
        const std::uint64_t place = (std::uint64_t { superblock->descriptorIndex }
                                        + superblock->descriptorLength + areaLength - 1)
            % areaLength;
        const std::uint64_t base = superblock->descriptorBase;
        if (const std::uint64_t most = superblockOffset / *blockSize;
            place <= most && base <= most - place)
            if (const std::uint64_t start = superblockOffset - (base + place) * *blockSize;
                isStart(start))
                return start;
    }
    return isStart(superblockOffset) ? std::optional(superblockOffset) : std::nullopt;
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
    const auto container = APFSContainer::open(source, *start, superblockOffset);
    return container ? container->volumes(origin, progress) : VolumeList {};
}

std::string roleName(std::uint16_t role)
{
    constexpr std::pair<std::uint16_t, std::string_view> names[] = { { 1, "System" },
        { 2, "Bruger" }, { 4, "Gendannelse" }, { 8, "VM" }, { 16, "Preboot" }, { 64, "Data" } };
    for (const auto& [number, name] : names)
        if (number == role)
            return std::string(name);
    constexpr std::string_view digits = "0123456789ABCDEF";
    std::string text;
    for (unsigned rest = role; rest != 0 || text.empty(); rest /= 16)
        text.insert(text.begin(), digits[rest % 16]);
    return "0x" + text;
}

} // namespace APFSParser
