#include "VintrelCore/FileSystems/APFS/Checkpoints.h"

#include "VintrelCore/FileSystems/APFS/Objects.h"
#include "VintrelCore/FileSystems/APFS/Superblock.h"

#include <algorithm>
#include <functional>
#include <limits>
#include <set>

using namespace APFSFormat;

namespace {

constexpr std::size_t maxOlderCheckpoints = 64; ///< that are searched for deleted files

constexpr auto noLimit = std::numeric_limits<std::uint64_t>::max();

} // namespace

APFSCheckpoints::APFSCheckpoints(APFSBlockReader& blocks, ByteView first, std::uint64_t firstOffset)
    : blocks_(blocks)
    , superblock_(APFSSuperblock::decode(first))
    , xid_(superblock_.object.xid)
{
    if (firstOffset != blocks_.base())
        notes_.emplace_back("Containerens første superblok er tabt. En af de andre er brugt.");
    if (APFSParser::checksumOK(first) && xid_ != 0)
        checkpoints_.push_back({ xid_, firstOffset });
    else
        notes_.emplace_back("Containerens superblok har forkert kontrolsum.");
    findInDescriptorArea();
    if (checkpoints_.empty()) {
        xid_ = noLimit;
    } else {
        xid_ = checkpoints_.front().xid;
        superblock_ = APFSSuperblock::decode(read(checkpoints_.front()));
    }
    chooseUsable();
    if (const std::uint64_t lost = blocks_.takeUnreadable(); lost > 0)
        notes_.push_back("Dele af containerens objektkort kunne ikke læses ("
            + std::to_string(lost * blocks_.blockSize()) + " bytes). Volumener kan mangle.");
}

APFSCheckpoints::APFSCheckpoints(APFSBlockReader& blocks, std::vector<APFSObjectVersion> volumes)
    : blocks_(blocks)
    , xid_(noLimit)
    , volumeVersions_(std::move(volumes))
{
    std::ranges::stable_sort(*volumeVersions_, std::ranges::greater {}, &APFSObjectVersion::xid);
}

/// Finds the sound superblocks of the checkpoint descriptor area. Of those with the same
/// transaction the first counts.
void APFSCheckpoints::findInDescriptorArea()
{
    const auto found = APFSSuperblock::findInArea(
        blocks_.source(), blocks_.base(), superblock_, blocks_.blockSize());
    checkpoints_.insert(checkpoints_.end(), found.begin(), found.end());
    std::ranges::stable_sort(checkpoints_, std::ranges::greater {}, &Checkpoint::xid);
    const auto isSame
        = [](const Checkpoint& one, const Checkpoint& other) { return one.xid == other.xid; };
    checkpoints_.erase(
        std::unique(checkpoints_.begin(), checkpoints_.end(), isSame), checkpoints_.end());
}

/// Takes an older checkpoint where the newest one names volumes, but has no usable object map.
void APFSCheckpoints::chooseUsable()
{
    objectMap_ = APFSObjectMaps::newestIn(blocks_, superblock_.objectMapOID, xid_);
    const bool hasVolumes = std::ranges::any_of(
        superblock_.fileSystemOIDs, [](std::uint64_t oid) { return oid != 0; });
    if (!hasVolumes)
        return;
    const auto end = std::min(checkpoints_.size(), maxOlderCheckpoints);
    for (std::size_t next = 1; objectMap_.empty() && next < end; ++next) {
        const auto older = APFSSuperblock::decode(read(checkpoints_[next]));
        const std::uint64_t xid = checkpoints_[next].xid;
        objectMap_ = APFSObjectMaps::newestIn(blocks_, older.objectMapOID, xid);
        if (objectMap_.empty())
            continue;
        superblock_ = older;
        xid_ = xid;
        notes_.emplace_back("Det nyeste checkpoint kan ikke bruges. Et ældre er læst i stedet.");
    }
}

/// Not counted against what may be read: there are no more than the descriptor area has blocks.
Bytes APFSCheckpoints::read(const Checkpoint& checkpoint) const
{
    return APFSBlockReader::readAvailable(blocks_.source(), checkpoint.offset, blocks_.blockSize());
}

std::vector<Bytes> APFSCheckpoints::olderSuperblocks(std::uint64_t volumeOID)
{
    if (!volumeVersions_)
        volumeVersions_ = versionsOfVolumes();
    std::vector<Bytes> found;
    Bytes block;
    for (const auto& version : *volumeVersions_) {
        if (version.oid != volumeOID || !blocks_.read(version.block, block)
            || !APFSParser::checksumOK(block))
            continue;
        const auto stored = *ByteView(block).load<VolumeSuperblock>(0);
        if (isVolumeSuperblock(stored) && stored.object.oid == volumeOID
            && stored.object.xid <= xid_)
            found.push_back(block);
        if (found.size() > maxOlderCheckpoints)
            break;
    }
    return found;
}

std::vector<ContainerSuperblock> APFSCheckpoints::states() const
{
    std::vector<ContainerSuperblock> found;
    std::size_t count = 0;
    for (const auto& checkpoint : checkpoints_) {
        if (checkpoint.xid > xid_ || count++ > maxOlderCheckpoints)
            continue;
        const auto older = APFSSuperblock::decode(read(checkpoint));
        if (older.uuid == superblock_.uuid) // else it is of an earlier container in the same place
            found.push_back(older);
    }
    return found;
}

std::vector<std::uint64_t> APFSCheckpoints::deletedVolumes() const
{
    std::vector<std::uint64_t> deleted;
    std::set<std::uint64_t> known(
        superblock_.fileSystemOIDs.begin(), superblock_.fileSystemOIDs.end());
    known.insert(0); // an empty slot
    for (const auto& older : states())
        for (const std::uint64_t oid : older.fileSystemOIDs)
            if (deleted.size() < maxVolumeSlots && known.insert(oid).second)
                deleted.push_back(oid);
    return deleted;
}

/// Where the volumes' superblocks lie that any checkpoint knows, newest first.
std::vector<APFSObjectVersion> APFSCheckpoints::versionsOfVolumes()
{
    std::vector<APFSObjectVersion> versions;
    APFSObjectMaps maps(blocks_);
    for (const auto& older : states())
        maps.forEachVersion(older.objectMapOID, older.object.xid,
            [&](const APFSObjectVersion& version) { versions.push_back(version); });
    std::ranges::stable_sort(versions, std::ranges::greater {}, &APFSObjectVersion::xid);
    return versions;
}
