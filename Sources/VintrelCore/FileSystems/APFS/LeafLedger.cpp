#include "VintrelCore/FileSystems/APFS/LeafLedger.h"

#include "VintrelCore/FileSystems/APFS/Records.h"
#include "VintrelCore/FileSystems/APFS/Structures.h"

#include <algorithm>

using namespace APFSFormat;

void APFSKnownObjects::add(const std::vector<Object>& objects)
{
    objects_.insert(objects_.end(), objects.begin(), objects.end());
    std::ranges::sort(objects_, {}, &Object::id);
}

std::optional<std::uint64_t> APFSKnownObjects::createdOf(std::uint64_t id) const
{
    const auto found = std::ranges::lower_bound(objects_, id, {}, &Object::id);
    return found != objects_.end() && found->id == id ? std::optional(found->created)
                                                      : std::nullopt;
}

APFSLeafLedger::Identity& APFSLeafLedger::add(Identity identity)
{
    return volumes_.emplace_back(std::move(identity));
}

void APFSLeafLedger::setOwner(std::uint64_t nodeOID, std::uint64_t volumeOID)
{
    owners_.emplace(nodeOID, volumeOID);
}

bool APFSLeafLedger::isLeafOf(const Identity& volume, ByteView leaf) const
{
    const auto owner = owners_.find(leaf.u64le(offsetof(ObjectHeader, oid)));
    if (owner != owners_.end() && owner->second != volume.volumeOID)
        return false;
    const auto own = agreement(volume, leaf);
    return own && std::ranges::all_of(volumes_, [&](const Identity& other) {
        return &other == &volume || agreement(other, leaf).value_or(-1) <= *own;
    });
}

/// How well the files in a leaf agree with those of a volume that have the same numbers, by when
/// they were created; none when it cannot be one of its leaves.
std::optional<std::int64_t> APFSLeafLedger::agreement(const Identity& volume, ByteView leaf) const
{
    APFSFileRecords records;
    records.addLeaf(leaf, blockSize_, volume.isHashed, {});
    const auto isTooHigh
        = [&](std::uint64_t id) { return volume.nextObjectID != 0 && id >= volume.nextObjectID; };
    std::int64_t sum = 0;
    bool isOlderThanVolume = false;
    for (const auto& inode : records.inodes()) {
        if (isTooHigh(inode.id))
            return std::nullopt;
        if (const auto created = volume.objects.createdOf(inode.id).value_or(0); created != 0)
            sum += created == inode.created ? 1 : -1;
        isOlderThanVolume = isOlderThanVolume || inode.changed < volume.formatted;
    }
    for (const auto& link : records.links())
        if (isTooHigh(link.id))
            return std::nullopt;
    for (const auto& extent : records.extents())
        if (isTooHigh(extent.owner))
            return std::nullopt;
    // A volume that was copied block by block may hold what is older than itself.
    return sum > 0 || (sum == 0 && !isOlderThanVolume) ? std::optional(sum) : std::nullopt;
}
