#include "VintrelCore/FileSystems/APFS/Snapshots.h"

#include "VintrelCore/FileSystems/APFS/Nodes.h"
#include "VintrelCore/FileSystems/APFS/VolumeSuperblock.h"

#include <algorithm>
#include <unordered_set>

using namespace APFSFormat;

namespace {

constexpr std::size_t maxNodes = 1'024;     ///< of the tree that lists snapshots
constexpr std::size_t maxSnapshots = 1'024; ///< that are listed of a volume

/// An entry of a leaf; none when it is of another kind, or leads to no superblock.
std::optional<APFSSnapshot> snapshotIn(
    APFSBlockReader& blocks, const VolumeSuperblock& volume, ByteView key, ByteView value)
{
    const auto idAndKind = key.u64le(offsetof(RecordKey, idAndKind));
    const auto stored = value.load<SnapshotValue>(0);
    Bytes block;
    if (!stored || idAndKind >> recordKindShift != RecordKind::snapshot
        || !blocks.read(stored->superblock, block) || !APFSVolumeSuperblock::isSound(block))
        return std::nullopt;
    const auto name = value.sub(sizeof(SnapshotValue), stored->nameLength).span();
    APFSSnapshot snapshot { idAndKind & objectIDMask,
        { name.begin(), std::ranges::find(name, std::uint8_t { 0 }) },
        *ByteView(block).load<VolumeSuperblock>(0) };
    snapshot.superblock.objectMapOID = volume.objectMapOID;
    return snapshot;
}

} // namespace

std::vector<APFSSnapshot> APFSSnapshot::listOf(
    APFSBlockReader& blocks, const VolumeSuperblock& volume)
{
    std::vector<APFSSnapshot> found;
    std::unordered_set<std::uint64_t> visited;
    std::vector<std::uint64_t> waiting { volume.snapshotTreeOID };
    Bytes node;
    while (!waiting.empty() && visited.size() < maxNodes) {
        const auto block = waiting.back();
        waiting.pop_back();
        if (!visited.insert(block).second || !blocks.read(block, node))
            continue;
        const bool isLeaf = ByteView(node).load<NodeHeader>(0)->level == 0;
        APFSNodes::forEachRecord(
            node, blocks.blockSize(), {}, [&](ByteView key, std::optional<ByteView> value) {
                if (!value || found.size() >= maxSnapshots || waiting.size() >= maxNodes)
                    return;
                if (!isLeaf)
                    waiting.push_back(value->u64le(offsetof(IndexValue, child)));
                else if (auto snapshot = snapshotIn(blocks, volume, key, *value))
                    found.push_back(std::move(*snapshot));
            });
    }
    std::ranges::sort(found, {}, &APFSSnapshot::xid);
    return found;
}
