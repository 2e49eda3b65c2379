#include "VintrelCore/FileSystems/APFS/ObjectMaps.h"

#include "VintrelCore/FileSystems/APFS/Nodes.h"
#include "VintrelCore/FileSystems/APFS/Structures.h"
#include "VintrelCore/Foundation/Binary.h"

#include <limits>
#include <vector>

using namespace APFSFormat;

namespace {

constexpr int maxDepth = 15; ///< of a map's tree

/// A node that is still to be read.
struct WaitingNode {
    std::uint64_t block;
    int depth;
};

/// Index values are shorter than leaf values, so that this is what any entry takes up at least.
constexpr std::uint64_t minEntrySize = sizeof(ObjectMapKey) + sizeof(IndexValue);

/// An entry of a leaf. Fields that a short value lacks are 0.
APFSObjectVersion versionOf(ByteView key, ByteView value)
{
    return { key.u64le(offsetof(ObjectMapKey, oid)), key.u64le(offsetof(ObjectMapKey, xid)),
        value.u64le(offsetof(ObjectMapValue, block)),
        (value.u32le(offsetof(ObjectMapValue, flags)) & deletedMask) != 0 };
}

} // namespace

bool APFSObjectMaps::forEachVersion(std::uint64_t oid, std::uint64_t maxXID,
    const std::function<void(const APFSObjectVersion&)>& visit)
{
    Bytes bytes;
    if (!blocks_.read(oid, bytes) || !APFSParser::checksumOK(bytes))
        return false;
    bool isWhole = true;
    std::vector<WaitingNode> waiting { { ByteView(bytes).load<ObjectMap>(0)->treeOID, 0 } };
    while (!waiting.empty()) {
        const auto [block, depth] = waiting.back();
        waiting.pop_back();
        if (visited_.contains(block))
            continue;
        const bool isRead = depth <= maxDepth && blocks_.read(block, bytes);
        const auto header = isRead ? *ByteView(bytes).load<NodeHeader>(0) : NodeHeader {};
        if (!isRead || header.object.xid > maxXID) {
            isWhole = false;
            continue;
        }
        std::uint64_t room = blocks_.blockSize() / minEntrySize; // entries do not share bytes
        const auto level = APFSNodes::forEachRecord(bytes, blocks_.blockSize(),
            { sizeof(ObjectMapKey), sizeof(ObjectMapValue) },
            [&, depth = depth](ByteView key, std::optional<ByteView> value) {
                if (!value || room == 0)
                    return;
                --room;
                if (header.level == 0)
                    visit(versionOf(key, *value));
                else
                    waiting.push_back({ value->u64le(offsetof(IndexValue, child)), depth + 1 });
            });
        if (level)
            visited_.insert(block);
        else
            isWhole = false;
    }
    return isWhole;
}

APFSObjectMaps::BlockByOID APFSObjectMaps::newestIn(
    APFSBlockReader& blocks, std::uint64_t oid, std::uint64_t maxXID)
{
    std::unordered_map<std::uint64_t, APFSObjectVersion> newest;
    APFSObjectMaps(blocks).forEachVersion(
        oid, std::numeric_limits<std::uint64_t>::max(), [&](const APFSObjectVersion& version) {
            if (version.isDeleted || version.xid > maxXID)
                return;
            const auto [known, isNew] = newest.emplace(version.oid, version);
            if (!isNew && known->second.xid < version.xid)
                known->second = version;
        });
    BlockByOID found;
    for (const auto& [virtualOID, version] : newest)
        found.emplace(virtualOID, version.block);
    return found;
}
