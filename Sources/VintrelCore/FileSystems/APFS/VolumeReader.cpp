#include "VintrelCore/FileSystems/APFS/VolumeReader.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/APFS/Nodes.h"
#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Model/FileNode.h"
#include "VintrelCore/Model/FileTypes.h"
#include "VintrelCore/Model/Volume.h"
#include "VintrelCore/Model/WorkProgress.h"

#include <algorithm>
#include <tuple>

using namespace APFSFormat;

namespace {

constexpr int maxDepth = 15; ///< of the file-system tree
constexpr std::int64_t flagsEnd
    = 272; ///< of a superblock that is long enough to say whether it is encrypted
constexpr int maxVersionsTried = 8; ///< of a node that cannot be read
constexpr std::size_t leavesPerCancelCheck = 256;

bool isEncrypted(ByteView superblock)
{
    return superblock.size() < flagsEnd
        || (superblock.u64le(offsetof(VolumeSuperblock, flags)) & unencryptedFlag) == 0;
}

bool precedes(const APFSContainer::Version& one, const APFSContainer::Version& other)
{
    return std::tuple(one.oid, one.xid, one.block) < std::tuple(other.oid, other.xid, other.block);
}

} // namespace

APFSVolumeReader::APFSVolumeReader(
    std::shared_ptr<APFSContainer> container, ByteView superblock, std::uint64_t oid)
    : container_(std::move(container))
    , superblock_(superblock.span().begin(), superblock.span().end())
    , oid_(oid)
{
}

APFSVolumeReader::~APFSVolumeReader()
{
    auto& readers = container_->readers;
    readers.erase(std::remove(readers.begin(), readers.end(), this), readers.end());
}

std::unique_ptr<Volume> APFSVolumeReader::read(
    std::unique_ptr<APFSVolumeReader> reader, const std::string& origin, WorkProgress* progress)
{
    const ByteView superblock(reader->superblock_);
    auto& container = reader->container();
    const auto stored = superblock.load<VolumeSuperblock>(0).value_or(VolumeSuperblock {});
    const std::uint64_t size
        = std::min(container.blockCount(), ~std::uint64_t { 0 } / container.blockSize());
    const std::string_view name(stored.name.data(), stored.name.size());
    auto volume = std::make_unique<Volume>(FileSystemType::apfs,
        APFSFileTree::displayed(name.substr(0, name.find('\0'))), container.base(),
        size * container.blockSize(), FileNode::makeFolder("", EntryStatus::existing), origin);
    volume->root->fsID = rootFolderID;
    volume->clusterSize = container.blockSize();
    volume->notes = container.notes();
    const auto note = [&](bool applies, std::string text) {
        if (applies)
            volume->notes.push_back(std::move(text));
    };
    note(stored.role != 0, "Rolle: " + APFSParser::roleName(stored.role));
    note(!APFSParser::checksumOK(superblock), "Volumens superblok har forkert kontrolsum.");
    if (isEncrypted(superblock)) {
        note(true,
            "Volumen er krypteret (FileVault). Filerne kan ikke læses uden at låse disken op i "
            "macOS.");
        return volume;
    }
    note((stored.incompatibleFeatures & IncompatibleFeature::sealed) != 0,
        "Volumen er forseglet (macOS' egne filer). Det, som kun forseglingen sikrer, læses ikke.");
    note(stored.snapshotCount != 0, "Volumen har snapshots. De vises ikke for sig.");
    reader->readTrees(*volume, progress);
    volume->deepContext = std::move(reader);
    return volume;
}

void APFSVolumeReader::readTrees(Volume& volume, WorkProgress* progress)
{
    if (progress != nullptr)
        progress->report(0, "Læser APFS-filtræ …");
    const auto stored = *ByteView(superblock_).load<VolumeSuperblock>(0);
    isHashed_ = (stored.incompatibleFeatures
                    & (IncompatibleFeature::caseInsensitive
                        | IncompatibleFeature::normalizationInsensitive))
        != 0;
    hasSnapshots_ = stored.snapshotCount != 0;
    nextObjectID_ = stored.nextObjectID;
    loadLiveMap();
    tree_.emplace(*container_, *volume.root);
    container_->readers.push_back(this);
    const auto live = readLive(stored.rootTreeOID, progress);
    tree_->addExisting(live);
    if (live.inodes().empty() && !isCancelled(progress))
        volume.notes.emplace_back("Filtræet kunne ikke læses.");
    else if (isDamaged_)
        volume.notes.emplace_back(
            "Dele af filtræet er beskadiget. Filer kan mangle eller stå i en ældre udgave.");
    tree_->addDeleted(readOld(progress), live);
    for (const auto* versions : { &live_, &older_ })
        for (const auto& version : *versions)
            container_->ownerOf.emplace(version.oid, oid_);
    live_ = {};
    older_ = {};
    volume.root->sortChildren();
}

void APFSVolumeReader::loadLiveMap()
{
    container_->walkObjectMap(ByteView(superblock_).u64le(offsetof(VolumeSuperblock, objectMapOID)),
        container_->xid(), container_->visitedMaps,
        [&](const Version& version) { live_.push_back(version); });
    std::ranges::sort(live_, precedes);
}

void APFSVolumeReader::loadOlderMaps()
{
    if (olderLoaded_)
        return;
    olderLoaded_ = true;
    for (const auto& superblock : container_->olderSuperblocks(oid_)) {
        const auto older = ByteView(superblock).load<VolumeSuperblock>(0);
        container_->walkObjectMap(older->objectMapOID, older->object.xid, container_->visitedMaps,
            [&](const Version& version) { older_.push_back(version); });
    }
    std::ranges::sort(older_, precedes);
}

/// The version of a node that the live tree has; none when it has none, or it is deleted.
const APFSContainer::Version* APFSVolumeReader::liveVersion(std::uint64_t oid) const
{
    const Version newest { oid, container_->xid(), ~std::uint64_t { 0 } };
    const auto behind = std::ranges::upper_bound(live_, newest, precedes);
    if (behind == live_.begin() || std::prev(behind)->oid != oid || std::prev(behind)->isDeleted)
        return nullptr;
    return &*std::prev(behind);
}

/// Reads a block that should be a certain node of the tree. A stale pointer finds another one
/// there, or none.
bool APFSVolumeReader::readNode(std::uint64_t block, std::uint64_t oid)
{
    if (!container_->readBlock(block, node_))
        return false;
    const auto header = *ByteView(node_).load<NodeHeader>(0);
    const auto type = typeOf(header.object);
    return (type == ObjectType::rootNode || type == ObjectType::node)
        && header.object.subtype == ObjectType::fileSystemTree && header.object.oid == oid
        && header.object.xid <= container_->xid() && APFSParser::checksumOK(node_);
}

/// Reads a node of the live tree, in the newest version that can be read. Says where that lies.
bool APFSVolumeReader::readAnyVersion(std::uint64_t oid, std::uint64_t& block)
{
    const auto* live = liveVersion(oid);
    if (live != nullptr && readNode(live->block, oid)) {
        block = live->block;
        return true;
    }
    isDamaged_ = true;
    loadOlderMaps();
    std::vector<Version> others;
    for (const auto* versions : { &live_, &older_ }) {
        const auto first = std::ranges::lower_bound(*versions, oid, {}, &Version::oid);
        const auto last = std::ranges::upper_bound(first, versions->end(), oid, {}, &Version::oid);
        const auto count = std::min<std::ptrdiff_t>(last - first, maxVersionsTried);
        others.insert(others.end(), last - count, last);
    }
    std::ranges::stable_sort(others, std::ranges::greater {}, &Version::xid);
    for (const auto& version : others) {
        if (readNode(version.block, oid)) {
            block = version.block;
            return true;
        }
    }
    return false;
}

/// The leaves that the index leads to from the root, by their place on the disk. Of a damaged tree
/// also those that the object map alone still knows.
std::vector<APFSVolumeReader::Leaf> APFSVolumeReader::findLiveLeaves(std::uint64_t rootOID)
{
    struct Pending {
        std::uint64_t oid;
        int depth;
    };
    std::vector<Leaf> leaves;
    std::unordered_set<std::uint64_t> visited;
    std::vector<Pending> pending { { rootOID, 0 } };
    bool isCut = false;
    while (!pending.empty()) {
        const auto [oid, depth] = pending.back();
        pending.pop_back();
        if (depth > maxDepth || !visited.insert(oid).second)
            continue;
        std::uint64_t block = 0;
        if (!readAnyVersion(oid, block)) {
            isCut = true;
            continue;
        }
        container_->addInUse({ block, block + 1 });
        const auto level = ByteView(node_).load<NodeHeader>(0)->level;
        if (level == 0) {
            leaves.push_back({ block, oid });
            continue;
        }
        std::uint64_t room = container_->blockSize() / 16; // for the shortest keys and values
        APFSNodes::forEachRecord(node_, container_->blockSize(), {},
            [&, depth = depth](ByteView, std::optional<ByteView> value) {
                if (!value || room == 0)
                    return;
                --room;
                const std::uint64_t child = value->u64le(0);
                const auto* version = liveVersion(child);
                // Leaves are read later, in the order of the disk; only what is above them is
                // needed now.
                if (level == 1 && version != nullptr && visited.insert(child).second)
                    leaves.push_back({ version->block, child });
                else
                    pending.push_back({ child, depth + 1 });
            });
    }
    if (isCut)
        for (const auto& version : live_)
            if (const auto* live = liveVersion(version.oid);
                live == &version && !visited.contains(version.oid))
                leaves.push_back({ version.block, version.oid });
    std::ranges::sort(leaves, {}, &Leaf::block);
    return leaves;
}

void APFSVolumeReader::addLeaf(
    APFSFileRecords& records, std::uint64_t block, bool isHeldBySnapshot, bool onlyUnknown)
{
    container_->minedLeaves.insert(block);
    std::function<bool(std::uint64_t)> isWanted;
    if (onlyUnknown)
        isWanted = [this](std::uint64_t id) { return !tree_->isKnown(id); };
    const auto xid = ByteView(node_).u64le(offsetof(ObjectHeader, xid));
    records.addLeaf(node_, container_->blockSize(), isHashed_, { xid, isHeldBySnapshot }, isWanted);
}

APFSFileRecords APFSVolumeReader::readLive(std::uint64_t rootOID, WorkProgress* progress)
{
    APFSFileRecords records;
    std::size_t count = 0;
    for (const auto& leaf : findLiveLeaves(rootOID)) {
        if (count++ % leavesPerCancelCheck == 0 && isCancelled(progress))
            break;
        std::uint64_t block = leaf.block;
        if (container_->minedLeaves.contains(block)
            || (!readNode(block, leaf.oid) && !readAnyVersion(leaf.oid, block)))
            continue;
        container_->addInUse({ block, block + 1 });
        if (ByteView(node_).load<NodeHeader>(0)->level == 0)
            addLeaf(records, block, false, false);
    }
    records.sort();
    return records;
}

/// The records of every version of a node that the live tree does not have.
APFSFileRecords APFSVolumeReader::readOld(WorkProgress* progress)
{
    loadOlderMaps();
    std::vector<Leaf> leaves;
    for (const auto* versions : { &live_, &older_ })
        for (const auto& version : *versions)
            if (!container_->minedLeaves.contains(version.block))
                leaves.push_back(
                    { version.block, version.oid, versions == &live_ && hasSnapshots_ });
    std::ranges::stable_sort(leaves, {}, &Leaf::block);
    APFSFileRecords records;
    std::size_t count = 0;
    for (const auto& leaf : leaves) {
        if (count++ % leavesPerCancelCheck == 0 && isCancelled(progress))
            break;
        if (!container_->minedLeaves.contains(leaf.block) && readNode(leaf.block, leaf.oid)
            && ByteView(node_).load<NodeHeader>(0)->level == 0)
            addLeaf(records, leaf.block, leaf.isHeldBySnapshot, true);
    }
    records.sort();
    return records;
}

/// How well the files in a leaf agree with those of the volume that have the same numbers; none
/// when it cannot be one of its leaves.
std::optional<std::int64_t> APFSVolumeReader::agreementOf(ByteView leaf) const
{
    APFSFileRecords records;
    records.addLeaf(leaf, container_->blockSize(), isHashed_, {});
    std::int64_t agreement = 0;
    for (const auto& inode : records.inodes()) {
        if (nextObjectID_ != 0 && inode.id >= nextObjectID_)
            return std::nullopt;
        if (const auto* created = tree_->createdOf(inode.id); created != nullptr && *created != 0)
            agreement += *created == inode.created ? 1 : -1;
    }
    return agreement >= 0 ? std::optional(agreement) : std::nullopt;
}

/// Whether a loose leaf is one of this volume's. Nothing in it says so: the number of the node is
/// the container's, and earlier containers had the same ones. The files' numbers are alike in all
/// volumes, but not when they were created.
bool APFSVolumeReader::isOwnLeaf(ByteView leaf) const
{
    const auto owner = container_->ownerOf.find(leaf.u64le(offsetof(ObjectHeader, oid)));
    if (owner != container_->ownerOf.end() && owner->second != oid_)
        return false;
    const auto agreement = agreementOf(leaf);
    return agreement
        && std::ranges::all_of(container_->readers, [&](const APFSVolumeReader* other) {
               return other == this || other->agreementOf(leaf).value_or(-1) <= *agreement;
           });
}

std::unique_ptr<FileNode> APFSVolumeReader::lostFiles(
    std::span<const std::uint64_t> leafOffsets, WorkProgress* progress)
{
    const std::uint64_t blockSize = container_->blockSize();
    std::vector<std::uint64_t> offsets(leafOffsets.begin(), leafOffsets.end());
    std::ranges::sort(offsets);
    APFSFileRecords records;
    std::size_t count = 0;
    for (const auto offset : offsets) {
        if (count++ % leavesPerCancelCheck == 0 && isCancelled(progress))
            break;
        if (offset < container_->base() || (offset - container_->base()) % blockSize != 0)
            continue;
        const std::uint64_t block = (offset - container_->base()) / blockSize;
        if (!container_->minedLeaves.contains(block) && container_->readBlock(block, node_)
            && ByteView(node_).u64le(offsetof(ObjectHeader, xid)) <= container_->xid()
            && APFSParser::looksLikeFSTreeLeaf(node_, 0, blockSize) && isOwnLeaf(node_))
            addLeaf(records, block, false, true);
    }
    records.sort();

    auto* known = tree_->orphans();
    auto made = known == nullptr
        ? FileNode::makeFolder(std::string(APFSFileTree::orphansName), EntryStatus::orphaned)
        : nullptr;
    auto& folder = known != nullptr ? *known : *made;
    tree_->addLost(records, folder);
    container_->estimateDeleted();
    folder.sortChildren();
    return made && !made->children().empty() ? std::move(made) : nullptr;
}

namespace APFSParser {

std::unique_ptr<FileNode> lostFiles(DiskSource& source, Volume& volume,
    std::span<const std::uint64_t> leafOffsets, WorkProgress* progress)
{
    auto* reader = dynamic_cast<APFSVolumeReader*>(volume.deepContext.get());
    if (reader == nullptr || &reader->container().source() != &source)
        return nullptr;
    return reader->lostFiles(leafOffsets, progress);
}

} // namespace APFSParser
