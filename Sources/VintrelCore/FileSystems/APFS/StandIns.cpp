#include "VintrelCore/FileSystems/APFS/StandIns.h"

#include "VintrelCore/FileSystems/APFS/Structures.h"

#include <algorithm>
#include <utility>

void APFSStandIns::offer(
    const APFSKeyRanges& lost, std::uint64_t block, ByteView leaf, bool isHeldBySnapshot)
{
    const auto keys = keysOf(leaf, blocks_.blockSize(), isHashed_);
    const auto header = leaf.load<APFSFormat::ObjectHeader>(0);
    if (keys && header && lost.intersects(*keys))
        candidates_.push_back(
            { block, { header->xid, isHeldBySnapshot, role_ == Role::standIn }, *keys });
}

bool APFSStandIns::fill(APFSKeyRanges& lost, APFSFileRecords& records)
{
    const auto newestFirst = [](const Candidate& one, const Candidate& other) {
        return one.version.xid > other.version.xid;
    };
    std::ranges::stable_sort(candidates_, newestFirst);
    bool hasFilled = false;
    Bytes leaf;
    for (const auto& [block, version, keys] : std::exchange(candidates_, {})) {
        if (!lost.intersects(keys) || !blocks_.read(block, leaf))
            continue;
        records.addLeaf(
            leaf, blocks_.blockSize(), isHashed_, version, [&](std::uint64_t, ByteView key) {
                return lost.contains(APFSTreeKey::decode(key, isHashed_));
            });
        lost.subtract(keys);
        hasFilled = true;
    }
    return hasFilled;
}
