#include "VintrelCore/FileSystems/APFS/Container.h"

#include "VintrelCore/FileSystems/APFS/Nodes.h"
#include "VintrelCore/FileSystems/APFS/Structures.h"
#include "VintrelCore/FileSystems/APFS/Superblock.h"
#include "VintrelCore/FileSystems/APFS/VolumeReader.h"
#include "VintrelCore/FileSystems/APFS/VolumeSuperblock.h"

#include <algorithm>

using namespace APFSFormat;

std::optional<APFSContainer> APFSContainer::open(DiskSource& source, std::uint64_t base)
{
    return open(source, base, base);
}

std::optional<APFSContainer> APFSContainer::open(
    DiskSource& source, std::uint64_t base, std::uint64_t superblockOffset)
{
    const auto first = APFSSuperblock::read(source, superblockOffset);
    if (!first)
        return std::nullopt;
    return APFSContainer(
        std::make_shared<APFSContainerState>(source, base, *first, superblockOffset));
}

VolumeList APFSContainer::volumes(const std::string& origin, WorkProgress* progress)
{
    VolumeList volumes;
    const auto& superblock = state_->checkpoints().superblock();
    const auto slots
        = std::min<std::size_t>(superblock.maxFileSystems, superblock.fileSystemOIDs.size());
    for (std::size_t slot = 0; slot < slots; ++slot) {
        if (isCancelled(progress))
            break;
        if (auto found = volume(superblock.fileSystemOIDs[slot], origin, progress))
            volumes.push_back(std::move(found));
    }
    for (const auto& deleted : APFSVolumeSuperblock::findDeleted(state_->checkpoints()))
        if (!isCancelled(progress))
            volumes.push_back(APFSVolumeReader::read(
                state_, deleted, origin + ", slettet APFS-volumen", progress));
    if (const auto note = state_->chances().judgeWaiting(superblock))
        for (const auto& volume : volumes)
            volume->notes.push_back(*note);
    return volumes;
}

/// The volume with this oid; none when nothing tells of one.
std::unique_ptr<Volume> APFSContainer::volume(
    std::uint64_t oid, const std::string& origin, WorkProgress* progress)
{
    const auto superblock
        = APFSVolumeSuperblock::find(state_->blocks(), state_->checkpoints(), oid);
    return superblock ? APFSVolumeReader::read(state_, *superblock, origin, progress) : nullptr;
}

APFSObjectMaps::BlockByOID APFSContainer::loadOMap(std::uint64_t oid, std::uint64_t maxXID)
{
    return APFSObjectMaps::newestIn(state_->blocks(), oid, maxXID);
}

std::optional<APFSContainer::Node> APFSContainer::parseNode(
    ByteView bytes, int fixedKey, int fixedValue) const
{
    Node node;
    const auto level = APFSNodes::forEachRecord(bytes, state_->blocks().blockSize(),
        { fixedKey, fixedValue }, [&](ByteView key, std::optional<ByteView> value) {
            if (value)
                node.records.push_back({ key, *value });
        });
    if (!level)
        return std::nullopt;
    node.level = *level;
    return node;
}
