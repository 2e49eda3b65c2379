#include "VintrelCore/FileSystems/APFS/VolumeReader.h"

#include "VintrelCore/FileSystems/APFS/Objects.h"
#include "VintrelCore/FileSystems/APFS/Role.h"
#include "VintrelCore/FileSystems/APFS/Structures.h"
#include "VintrelCore/Model/FileTypes.h"

#include <algorithm>
#include <functional>
#include <limits>
#include <string_view>
#include <vector>

using namespace APFSFormat;

namespace {

constexpr std::size_t leavesPerCancelCheck = 256;

/// Asks now and then whether the work should stop.
class CancelCheck {
public:
    explicit CancelCheck(const WorkProgress* progress)
        : progress_(progress)
    {
    }

    /// To be asked once for each leaf.
    bool isDue() { return count_++ % leavesPerCancelCheck == 0 && isCancelled(progress_); }

private:
    const WorkProgress* progress_;
    std::size_t count_ = 0;
};

/// Whether directory records have the hash of their name.
bool hasHashes(const VolumeSuperblock& superblock)
{
    constexpr std::uint64_t ignoring
        = IncompatibleFeature::caseInsensitive | IncompatibleFeature::normalizationInsensitive;
    return (superblock.incompatibleFeatures & ignoring) != 0;
}

constexpr const char* snapshotsNote = "Volumen har snapshots. De vises ikke for sig.";

bool isLeaf(ByteView node) { return node.load<NodeHeader>(0)->level == 0; }

std::uint64_t xidOf(ByteView node) { return node.load<ObjectHeader>(0)->xid; }

/// A volume without files, and what the user should know of it.
std::unique_ptr<Volume> describe(
    APFSContainerState& state, const APFSVolumeSuperblock& chosen, const std::string& origin)
{
    const auto& superblock = chosen.stored;
    const auto& blocks = state.blocks();
    const std::uint64_t size = std::min(
        blocks.blockCount(), std::numeric_limits<std::uint64_t>::max() / blocks.blockSize());
    const std::string_view name(superblock.name.data(), superblock.name.size());
    auto volume = std::make_unique<Volume>(FileSystemType::apfs,
        APFSFileTree::displayed(name.substr(0, name.find('\0'))), blocks.base(),
        size * blocks.blockSize(), FileNode::makeFolder("", EntryStatus::existing), origin);
    volume->root->fsID = rootFolderID;
    volume->clusterSize = blocks.blockSize();
    volume->notes = state.checkpoints().notes();
    if (superblock.role != 0)
        volume->notes.push_back("Rolle: " + APFSParser::roleName(superblock.role));
    if (!chosen.note.empty())
        volume->notes.emplace_back(chosen.note);
    return volume;
}

} // namespace

APFSVolumeReader::APFSVolumeReader(std::shared_ptr<APFSContainerState> state,
    const VolumeSuperblock& superblock, std::uint64_t oid, FileNode& root)
    : APFSVolumeContext(std::move(state), oid, superblock.uuid)
    , identity_(state_->leaves().add({ .volumeOID = oid,
          .isHashed = hasHashes(superblock),
          .nextObjectID = superblock.nextObjectID,
          .formatted = superblock.formatted }))
    , tree_(std::in_place, *state_, identity_.objects, root)
{
}

std::unique_ptr<Volume> APFSVolumeReader::read(std::shared_ptr<APFSContainerState> state,
    const APFSVolumeSuperblock& superblock, const std::string& origin, WorkProgress* progress)
{
    using Trust = APFSVolumeSuperblock::Trust;
    const auto& stored = superblock.stored;
    auto volume = describe(*state, superblock, origin);
    // The tree of an encrypted volume passes for no tree, so that nothing is lost by trying.
    const bool isEncrypted
        = superblock.trust == Trust::sound && (stored.flags & unencryptedFlag) == 0;
    if (isEncrypted)
        volume->notes.emplace_back("Volumen er krypteret (FileVault). Filerne kan ikke læses uden "
                                   "at låse disken op i macOS.");
    if (isEncrypted || superblock.trust == Trust::lost) {
        volume->deepContext
            = std::make_unique<APFSVolumeContext>(std::move(state), superblock.oid, stored.uuid);
        return volume;
    }
    if ((stored.incompatibleFeatures & IncompatibleFeature::sealed) != 0)
        volume->notes.emplace_back("Volumen er forseglet (macOS' egne filer). Det, som kun "
                                   "forseglingen sikrer, læses ikke.");
    if (stored.snapshotCount != 0)
        volume->notes.emplace_back(snapshotsNote);
    std::unique_ptr<APFSVolumeReader> reader(
        new APFSVolumeReader(std::move(state), stored, superblock.oid, *volume->root));
    reader->stored_ = stored;
    reader->status_ = superblock.isDeleted ? EntryStatus::deleted : EntryStatus::existing;
    reader->readTrees(*volume, stored, progress);
    volume->deepContext = std::move(reader);
    return volume;
}

void APFSVolumeReader::readTrees(
    Volume& volume, const VolumeSuperblock& superblock, WorkProgress* progress)
{
    report(progress, 0, "Læser APFS-filtræ …");
    const auto noteUnreadable = [&](std::string_view part, std::string_view effect) {
        const std::uint64_t lost = state_->blocks().takeUnreadable();
        if (lost > 0)
            volume.notes.push_back("Dele af " + std::string(part) + " kunne ikke læses ("
                + std::to_string(lost * state_->blocks().blockSize()) + " bytes)."
                + std::string(effect));
    };
    state_->blocks().takeUnreadable();
    APFSTreeHistory history(*state_, superblock, identity_.volumeOID, state_->checkpoints().xid());
    noteUnreadable("volumens objektkort", " Filer kan mangle.");
    auto live = readLive(history, superblock.rootTreeOID, progress);
    tree_->addTree(live.records, status_);
    if (live.records.inodes().empty() && !isCancelled(progress))
        volume.notes.emplace_back("Filtræet kunne ikke læses.");
    else if (live.isDamaged)
        volume.notes.emplace_back(
            "Dele af filtræet er beskadiget. Filer kan mangle eller stå i en ældre udgave.");
    noteUnreadable("filtræet", "");
    auto old = readOld(history, progress);
    tree_->addDeleted(old, live.records);
    noteUnreadable("filtræets ældre udgaver", " Slettede filer kan mangle.");
    history.registerOwner();
    if (!lostKeys_.empty())
        damaged_ = { std::move(live.records), std::move(old) };
    volume.root->sortChildren();
}

APFSVolumeReader::LiveRecords APFSVolumeReader::readLive(
    APFSTreeHistory& history, std::uint64_t rootOID, WorkProgress* progress)
{
    auto found = history.findLiveLeaves(rootOID);
    if (status_ == EntryStatus::existing)
        for (const auto block : found.indexBlocks)
            state_->chances().addInUse({ block, block + 1 });
    LiveRecords live { .records = {}, .isDamaged = found.isDamaged };
    live.records.reserve(found.leaves.size(), state_->blocks().blockSize());
    CancelCheck check(progress);
    Bytes node;
    for (const auto& leaf : found.leaves) {
        if (check.isDue())
            break;
        if (state_->leaves().isRead(leaf.block))
            continue;
        if (!history.readNode(leaf.block, leaf.oid, node)) {
            live.isDamaged = true;
            found.lost.insert(leaf.oid);
            continue;
        }
        if (status_ == EntryStatus::existing)
            state_->chances().addInUse({ leaf.block, leaf.block + 1 });
        if (isLeaf(node))
            addLeaf(live.records, leaf.block, node, false, Objects::all);
    }
    if (live.isDamaged && !isCancelled(progress)) {
        findLostKeys(history, rootOID, found);
        fillLostKeys(history, live.records);
    }
    live.records.sort();
    return live;
}

/// Which records of a damaged tree are in none of the leaves that were read.
void APFSVolumeReader::findLostKeys(
    APFSTreeHistory& history, std::uint64_t rootOID, const APFSTreeHistory::LiveLeaves& found)
{
    auto lost = history.findLostKeys(rootOID, found.lost, identity_.isHashed);
    lostKeys_ = std::move(lost.keys);
    if (!lost.isIndexLost)
        return;
    Bytes node;
    for (const auto& leaf : found.leaves) {
        if (found.lost.contains(leaf.oid) || !history.readNode(leaf.block, leaf.oid, node))
            continue;
        if (const auto keys = keysOf(node, state_->blocks().blockSize(), identity_.isHashed))
            lostKeys_.subtract(*keys);
    }
}

/// Takes what is lost from older states of the tree.
void APFSVolumeReader::fillLostKeys(APFSTreeHistory& history, APFSFileRecords& records)
{
    APFSStandIns standIns(state_->blocks(), identity_.isHashed);
    Bytes node;
    for (const auto& leaf : history.unreadNodes())
        if (!lostKeys_.empty() && history.readNode(leaf.block, leaf.oid, node) && isLeaf(node))
            standIns.offer(lostKeys_, leaf.block, node, leaf.isHeldBySnapshot);
    standIns.fill(lostKeys_, records);
}

/// The records of every version of a node that the live tree does not have.
APFSFileRecords APFSVolumeReader::readOld(APFSTreeHistory& history, WorkProgress* progress)
{
    APFSFileRecords records;
    CancelCheck check(progress);
    Bytes node;
    for (const auto& leaf : history.unreadNodes()) {
        if (check.isDue())
            break;
        if (!state_->leaves().isRead(leaf.block) && history.readNode(leaf.block, leaf.oid, node)
            && isLeaf(node))
            addLeaf(records, leaf.block, node, leaf.isHeldBySnapshot, Objects::unknown);
    }
    records.sort();
    return records;
}

/// Calls `visit(block, node)` for every leaf that is the volume's, in the order of the disk.
template <class Visit>
void APFSVolumeReader::forEachLoose(
    std::span<const std::uint64_t> leafOffsets, WorkProgress* progress, Visit visit)
{
    auto& blocks = state_->blocks();
    std::vector<std::uint64_t> offsets(leafOffsets.begin(), leafOffsets.end());
    std::ranges::sort(offsets);
    CancelCheck check(progress);
    Bytes node;
    for (const auto offset : offsets) {
        if (check.isDue())
            break;
        if (offset < blocks.base() || (offset - blocks.base()) % blocks.blockSize() != 0)
            continue;
        const std::uint64_t block = (offset - blocks.base()) / blocks.blockSize();
        if (!state_->leaves().isRead(block) && blocks.read(block, node)
            && APFSParser::looksLikeFSTreeLeaf(node, 0, blocks.blockSize()))
            visit(block, node);
    }
}

/// Whether a leaf that no object map leads to is the volume's.
bool APFSVolumeReader::isOwnLeaf(ByteView leaf) const
{
    return !hasAllLeaves_ && xidOf(leaf) <= state_->checkpoints().xid()
        && state_->leaves().isLeafOf(identity_, leaf);
}

bool APFSVolumeContext::hasLeaf(std::uint64_t offset, ByteView /*leaf*/) const
{
    const auto& blocks = state_->blocks();
    return offset >= blocks.base() && (offset - blocks.base()) % blocks.blockSize() == 0
        && state_->leaves().isRead((offset - blocks.base()) / blocks.blockSize());
}

bool APFSVolumeReader::hasLeaf(std::uint64_t offset, ByteView leaf) const
{
    return APFSVolumeContext::hasLeaf(offset, leaf) || isOwnLeaf(leaf);
}

std::unique_ptr<Volume> APFSVolumeReader::fromLeaves(std::shared_ptr<APFSContainerState> state,
    const APFSVolumeSuperblock& superblock, std::span<const std::uint64_t> leafOffsets,
    const std::string& origin, WorkProgress* progress)
{
    auto volume = describe(*state, superblock, origin);
    std::unique_ptr<APFSVolumeReader> reader(
        new APFSVolumeReader(std::move(state), superblock.stored, superblock.oid, *volume->root));
    reader->readGroup(*volume, leafOffsets, progress);
    volume->deepContext = std::move(reader);
    return volume->root->children().empty() ? nullptr : std::move(volume);
}

VolumeList APFSVolumeReader::snapshots(Volume& volume, WorkProgress* progress)
{
    VolumeList found;
    if (stored_.snapshotCount == 0)
        return found;
    const APFSSameFiles living(*volume.root);
    for (const auto& snapshot : APFSSnapshot::listOf(state_->blocks(), stored_)) {
        if (isCancelled(progress))
            break;
        found.push_back(readSnapshot(volume, snapshot, living, progress));
    }
    if (!found.empty())
        std::erase(volume.notes, snapshotsNote);
    return found;
}

/// With a state of its own: the living volume has read most of the snapshot's nodes.
std::unique_ptr<Volume> APFSVolumeReader::readSnapshot(const Volume& volume,
    const APFSSnapshot& snapshot, const APFSSameFiles& living, WorkProgress* progress) const
{
    const auto& blocks = state_->blocks();
    const auto state = std::make_shared<APFSContainerState>(
        blocks.source(), blocks.base(), blocks.blockSize(), std::vector<APFSObjectVersion> {});
    auto listed = describe(
        *state, { .stored = snapshot.superblock, .oid = identity_.volumeOID }, "Snapshot");
    listed->label = volume.label + ", " + APFSFileTree::displayed(snapshot.name);
    listed->size = volume.size;
    APFSVolumeReader reader(state, snapshot.superblock, identity_.volumeOID, *listed->root);
    APFSTreeHistory history(*state, snapshot.superblock, identity_.volumeOID, snapshot.xid);
    const auto records = reader.readLive(history, snapshot.superblock.rootTreeOID, progress);
    reader.tree_->addDifferent(records.records, living);
    if (records.isDamaged)
        listed->notes.emplace_back(
            "Dele af filtræet er beskadiget. Filer kan mangle eller stå i en ældre udgave.");
    listed->root->sortChildren();
    listed->deepContext
        = std::make_unique<APFSVolumeContext>(state, identity_.volumeOID, snapshot.superblock.uuid);
    return listed;
}

/// Takes the newest of the leaves for the tree, and what only others have for deleted.
void APFSVolumeReader::readGroup(
    Volume& volume, std::span<const std::uint64_t> leafOffsets, WorkProgress* progress)
{
    hasAllLeaves_ = true;
    APFSStandIns tree(state_->blocks(), identity_.isHashed, APFSStandIns::Role::tree);
    APFSKeyRanges all;
    all.add({});
    forEachLoose(leafOffsets, progress,
        [&](std::uint64_t block, ByteView node) { tree.offer(all, block, node); });
    APFSFileRecords live;
    tree.fill(all, live);
    live.sort();
    tree_->addTree(live, status_);
    APFSFileRecords old;
    forEachLoose(leafOffsets, progress, [&](std::uint64_t block, ByteView node) {
        addLeaf(old, block, node, false, Objects::unknown);
    });
    old.sort();
    tree_->addDeleted(old, live);
    if (const auto note = state_->chances().judgeWaiting(state_->checkpoints().superblock()))
        volume.notes.push_back(*note);
    volume.root->sortChildren();
}

APFSFileRecords APFSVolumeReader::readLoose(
    std::span<const std::uint64_t> leafOffsets, WorkProgress* progress)
{
    APFSFileRecords records;
    forEachLoose(leafOffsets, progress, [&](std::uint64_t block, ByteView node) {
        if (isOwnLeaf(node))
            addLeaf(records, block, node, false, Objects::unknown);
    });
    records.sort();
    return records;
}

/// Takes what older states lack too from loose leaves, and builds the volume's tree anew.
void APFSVolumeReader::fillFromLoose(
    Volume& volume, std::span<const std::uint64_t> leafOffsets, WorkProgress* progress)
{
    APFSStandIns standIns(state_->blocks(), identity_.isHashed);
    forEachLoose(leafOffsets, progress,
        [&](std::uint64_t block, ByteView node) { standIns.offer(lostKeys_, block, node); });
    if (!standIns.fill(lostKeys_, damaged_->live))
        return;
    damaged_->live.sort();
    volume.root->removeAllChildren();
    identity_.objects = {};
    tree_.emplace(*state_, identity_.objects, *volume.root);
    tree_->addTree(damaged_->live, status_);
    tree_->addDeleted(damaged_->old, damaged_->live);
    volume.root->sortChildren();
}

void APFSVolumeReader::addLeaf(APFSFileRecords& records, std::uint64_t block, ByteView node,
    bool isHeldBySnapshot, Objects objects)
{
    state_->leaves().markRead(block);
    APFSFileRecords::IsWanted isWanted;
    if (objects == Objects::unknown)
        isWanted = [this](std::uint64_t id, ByteView) { return !identity_.objects.contains(id); };
    records.addLeaf(node, state_->blocks().blockSize(), identity_.isHashed,
        { xidOf(node), isHeldBySnapshot, false }, isWanted);
}

std::unique_ptr<FileNode> APFSVolumeReader::lostFiles(
    Volume& volume, std::span<const std::uint64_t> leafOffsets, WorkProgress* progress)
{
    if (damaged_)
        fillFromLoose(volume, leafOffsets, progress);
    const auto records = readLoose(leafOffsets, progress);
    auto* known = tree_->orphans();
    auto made = known == nullptr
        ? FileNode::makeFolder(std::string(APFSFileTree::orphansName), EntryStatus::orphaned)
        : nullptr;
    auto& folder = known != nullptr ? *known : *made;
    tree_->addLost(records, folder);
    const auto note = state_->chances().judgeWaiting(state_->checkpoints().superblock());
    if (note && std::ranges::count(volume.notes, *note) == 0)
        volume.notes.push_back(*note);
    folder.sortChildren();
    return made && !made->children().empty() ? std::move(made) : nullptr;
}
