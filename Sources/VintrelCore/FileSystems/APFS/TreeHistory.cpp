#include "VintrelCore/FileSystems/APFS/TreeHistory.h"

#include "VintrelCore/FileSystems/APFS/Nodes.h"
#include "VintrelCore/FileSystems/APFS/Objects.h"

#include <algorithm>
#include <tuple>
#include <unordered_set>

using namespace APFSFormat;

namespace {

constexpr int maxDepth = 15; ///< of the file-system tree
constexpr std::ptrdiff_t maxVersionsTried
    = 8; ///< of a node that cannot be read, of the newest map and of those before it each

/// A node that is still to be read.
struct WaitingNode {
    std::uint64_t oid;
    int depth;
    bool isAboveLeaf = true; ///< as its parent says
};

/// The shortest key and value that an index entry can have.
constexpr std::uint64_t minEntrySize = sizeof(RecordKey) + sizeof(IndexValue);

bool precedes(const APFSObjectVersion& one, const APFSObjectVersion& other)
{
    return std::tuple(one.oid, one.xid, one.block) < std::tuple(other.oid, other.xid, other.block);
}

} // namespace

APFSTreeHistory::APFSTreeHistory(APFSContainerState& state, const VolumeSuperblock& superblock,
    std::uint64_t volumeOID, std::uint64_t xid)
    : state_(state)
    , volumeOID_(volumeOID)
    , xid_(xid)
    , hasSnapshots_(superblock.snapshotCount != 0)
{
    isLiveMapWhole_ = state_.volumeMaps().forEachVersion(superblock.objectMapOID,
        state_.checkpoints().xid(), [&](const Version& version) { live_.push_back(version); });
    std::ranges::sort(live_, precedes);
}

void APFSTreeHistory::loadOlderMaps()
{
    if (hasOlderMaps_)
        return;
    hasOlderMaps_ = true;
    for (const auto& superblock : state_.checkpoints().olderSuperblocks(volumeOID_)) {
        const auto older = *ByteView(superblock).load<VolumeSuperblock>(0);
        state_.volumeMaps().forEachVersion(older.objectMapOID, older.object.xid,
            [&](const Version& version) { older_.push_back(version); });
    }
    std::ranges::sort(older_, precedes);
}

/// The version of a node that the live tree has; none when it has none, or it is deleted.
const APFSObjectVersion* APFSTreeHistory::liveVersion(std::uint64_t oid) const
{
    const Version newest { oid, xid_, ~std::uint64_t { 0 } };
    const auto behind = std::ranges::upper_bound(live_, newest, precedes);
    if (behind == live_.begin() || std::prev(behind)->oid != oid || std::prev(behind)->isDeleted)
        return nullptr;
    return &*std::prev(behind);
}

bool APFSTreeHistory::readNode(std::uint64_t block, std::uint64_t oid, Bytes& node)
{
    if (!state_.blocks().read(block, node))
        return false;
    const auto header = *ByteView(node).load<NodeHeader>(0);
    const auto type = typeOf(header.object);
    return (type == ObjectType::rootNode || type == ObjectType::node)
        && header.object.subtype == ObjectType::fileSystemTree && header.object.oid == oid
        && header.object.xid <= xid_ && APFSParser::checksumOK(node);
}

std::optional<std::uint64_t> APFSTreeHistory::readLiveVersion(std::uint64_t oid, Bytes& node)
{
    const auto* live = liveVersion(oid);
    return live != nullptr && readNode(live->block, oid, node) ? std::optional(live->block)
                                                               : std::nullopt;
}

std::optional<std::uint64_t> APFSTreeHistory::readOlderVersion(std::uint64_t oid, Bytes& node)
{
    loadOlderMaps();
    std::vector<Version> others;
    for (const auto* versions : { &live_, &older_ }) {
        const auto first = std::ranges::lower_bound(*versions, oid, {}, &Version::oid);
        const auto last = std::ranges::upper_bound(first, versions->end(), oid, {}, &Version::oid);
        const auto count = std::min(last - first, maxVersionsTried);
        others.insert(others.end(), last - count, last);
    }
    std::ranges::stable_sort(others, std::ranges::greater {}, &Version::xid);
    for (const auto& version : others)
        if (readNode(version.block, oid, node))
            return version.block;
    return std::nullopt;
}

APFSTreeHistory::LiveLeaves APFSTreeHistory::findLiveLeaves(std::uint64_t rootOID)
{
    LiveLeaves found;
    std::unordered_set<std::uint64_t> visited;
    std::vector<WaitingNode> waiting { { rootOID, 0 } };
    bool isCut = false;
    Bytes node;
    while (!waiting.empty()) {
        const auto [oid, depth, isAboveLeaf] = waiting.back();
        waiting.pop_back();
        if (depth > maxDepth || !visited.insert(oid).second)
            continue;
        auto block = readLiveVersion(oid, node);
        const bool isLive = block.has_value();
        if (!isLive) {
            found.isDamaged = true;
            block = readOlderVersion(oid, node);
        }
        const auto level = block ? ByteView(node).load<NodeHeader>(0)->level : LE16 {};
        if (!isLive && level == 0 && (block || !isAboveLeaf))
            found.lost.insert(oid);
        // What is newer than an older index is not in it.
        isCut = isCut || !isLive;
        if (!block || (!isLive && level == 0))
            continue;
        found.indexBlocks.push_back(*block);
        if (level == 0) {
            found.leaves.push_back({ *block, oid });
            continue;
        }
        std::uint64_t room = state_.blocks().blockSize() / minEntrySize;
        APFSNodes::forEachRecord(node, state_.blocks().blockSize(), {},
            [&, depth = depth](ByteView, std::optional<ByteView> value) {
                if (!value || room == 0)
                    return;
                --room;
                const std::uint64_t child = value->u64le(offsetof(IndexValue, child));
                const auto* version = liveVersion(child);
                // Leaves are read later, in the order of the disk; only what is above them is
                // needed now.
                if (level == 1 && version != nullptr && visited.insert(child).second)
                    found.leaves.push_back({ version->block, child });
                else
                    waiting.push_back({ child, depth + 1, level > 1 });
            });
    }
    if (isCut)
        for (const auto& version : live_)
            if (liveVersion(version.oid) == &version && !visited.contains(version.oid))
                found.leaves.push_back({ version.block, version.oid });
    std::ranges::sort(found.leaves, {}, &Leaf::block);
    return found;
}

APFSTreeHistory::LostKeys APFSTreeHistory::findLostKeys(
    std::uint64_t rootOID, const std::unordered_set<std::uint64_t>& lost, bool isHashed)
{
    struct WaitingRange {
        std::uint64_t oid;
        int depth;
        APFSKeyRange keys;
    };
    LostKeys found;
    std::vector<APFSKeyRange> cut; // where the index is not the newest one, or none
    std::unordered_set<std::uint64_t> visited;
    std::vector<WaitingRange> waiting { { rootOID, 0, {} } };
    Bytes node;
    while (!waiting.empty()) {
        const auto [oid, depth, keys] = std::move(waiting.back());
        waiting.pop_back();
        if (depth > maxDepth || !visited.insert(oid).second)
            continue;
        if (lost.contains(oid)) {
            found.keys.add(keys);
            continue;
        }
        const bool isLive = readLiveVersion(oid, node).has_value();
        if (!isLive)
            cut.push_back(keys);
        if (!isLive && !readOlderVersion(oid, node))
            continue;
        if (ByteView(node).load<NodeHeader>(0)->level != 0)
            for (auto& child : childrenOf(node, keys, isHashed))
                waiting.push_back({ child.oid, depth + 1, std::move(child.keys) });
    }
    const auto isPlaced = [&](std::uint64_t oid) { return visited.contains(oid); };
    found.isIndexLost = !cut.empty() && (!isLiveMapWhole_ || !std::ranges::all_of(lost, isPlaced));
    if (found.isIndexLost)
        for (const auto& keys : cut)
            found.keys.add(keys);
    return found;
}

/// The nodes that one of the index leads to, with the keys of each.
std::vector<APFSTreeHistory::Child> APFSTreeHistory::childrenOf(
    ByteView node, const APFSKeyRange& keys, bool isHashed) const
{
    std::vector<Child> children;
    std::uint64_t room = state_.blocks().blockSize() / minEntrySize;
    APFSNodes::forEachRecord(
        node, state_.blocks().blockSize(), {}, [&](ByteView key, std::optional<ByteView> value) {
            if (!value || room == 0)
                return;
            --room;
            auto first = APFSTreeKey::decode(key, isHashed);
            if (!children.empty())
                children.back().keys.end = first;
            children.push_back(
                { value->u64le(offsetof(IndexValue, child)), { std::move(first), keys.end } });
        });
    if (!children.empty())
        children.front().keys.first = keys.first;
    return children;
}

std::vector<APFSTreeHistory::Leaf> APFSTreeHistory::unreadNodes()
{
    loadOlderMaps();
    std::vector<Leaf> nodes;
    for (const auto* versions : { &live_, &older_ })
        for (const auto& version : *versions)
            if (!state_.leaves().isRead(version.block))
                nodes.push_back(
                    { version.block, version.oid, versions == &live_ && hasSnapshots_ });
    std::ranges::stable_sort(nodes, {}, &Leaf::block);
    return nodes;
}

void APFSTreeHistory::registerOwner() const
{
    for (const auto* versions : { &live_, &older_ })
        for (const auto& version : *versions)
            state_.leaves().setOwner(version.oid, volumeOID_);
}
