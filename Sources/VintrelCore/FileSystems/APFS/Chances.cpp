#include "VintrelCore/FileSystems/APFS/Chances.h"

#include "VintrelCore/Disk/DiskSource.h"

#include <algorithm>
#include <utility>
#include <variant>

void APFSChances::loadSpaceManager(const APFSFormat::ContainerSuperblock& superblock)
{
    if (!std::exchange(hasAskedSpaceManager_, true))
        spaceManager_ = APFSSpaceManager::load(blocks_, superblock);
}

std::optional<std::string> APFSChances::judgeWaiting(
    const APFSFormat::ContainerSuperblock& superblock)
{
    if (waiting_.empty() && standIns_.empty()) {
        claims_.forgetFiles();
        return std::nullopt;
    }
    loadSpaceManager(superblock);
    inUse_.merge();
    for (auto* node : std::exchange(waiting_, {}))
        judge(*node, doubtsOf(*node));
    judgeStandIns();
    judgeByClaims();
    if (!spaceManager_)
        return "Oversigten over ledig plads kunne ikke læses.";
    if (const auto lost = spaceManager_->lostBitmaps(); lost > 0)
        return "Dele af oversigten over ledig plads kunne ikke læses ("
            + std::to_string(lost * blocks_.blockSize()) + " bytes).";
    return std::nullopt;
}

/// What has been in use since the older record was written is in use now, and by no other file.
void APFSChances::judgeStandIns()
{
    for (const auto& [file, blocks] : std::exchange(standIns_, {})) {
        const auto use = spaceManager_ ? spaceManager_->useOf(blocks) : APFSSpaceManager::Use {};
        const bool isFree = spaceManager_ && !use.isAllocated && !use.isUnknown;
        if (isFree || inUse_.intersects(blocks))
            judgeFurther(*file, Doubt::partlyReused);
    }
}

/// Files that are judged later are held against those of now too, whose nodes may be gone then.
void APFSChances::judgeByClaims()
{
    claims_.forEachDoubted([](FileNode& file, Doubts doubts) {
        if (file.recoverability != Recoverability::poor)
            judgeFurther(file, doubts);
    });
    claims_.forgetFiles();
}

bool APFSChances::addUsedRanges(
    const APFSFormat::ContainerSuperblock& superblock, std::vector<ByteRange>& ranges)
{
    loadSpaceManager(superblock);
    std::vector<APFSBlocks> allocated;
    if (!spaceManager_ || !spaceManager_->addAllocated(allocated))
        return false;
    for (const auto& blocks : allocated) {
        const auto start = blocks_.offsetOf(blocks.first);
        if (!start)
            break; // they ascend: all others lie beyond the source's end too
        const std::uint64_t onSource = blocks_.source().size() - *start;
        const std::uint64_t count
            = std::min(blocks.end - blocks.first, onSource / blocks_.blockSize() + 1);
        ranges.push_back({ *start, *start + std::min(onSource, count * blocks_.blockSize()) });
    }
    return true;
}

Doubts APFSChances::doubtsOf(const FileNode& node)
{
    const auto* extents = extentsOf(node.data);
    const auto use = extents != nullptr ? useOf(*extents) : ClusterUse {};
    const auto doubts = ::doubtsOf(use, appleReuse);
    if (!doubts.has(Doubt::unknownAllocation))
        return doubts;
    Doubts unknown = Doubt::unknownReuse;
    if (use.foreign > 0)
        unknown.add(Doubt::partlyReused);
    return unknown;
}

/// What is used of a file's blocks, as far as it matters for the chance: the first one, and whether
/// there is any other.
ClusterUse APFSChances::useOf(const ExtentList& extents)
{
    ClusterUse use;
    for (const auto& extent : extents) {
        if (!extent.offset)
            continue;
        const auto blocks = blocks_.blocksAt(*extent.offset, extent.length);
        if (use.checked == 0)
            use.isFirstForeign = useOf({ blocks.first, blocks.first + 1 }).isAllocated;
        use.checked += blocks.end - blocks.first;
        const auto used = useOf(blocks);
        use.isUnknown = use.isUnknown || used.isUnknown;
        if (use.isFirstForeign || used.isAllocated) {
            use.foreign = 1;
            break;
        }
    }
    return use;
}

/// The trees that were read say what is in use, but not what is free.
APFSSpaceManager::Use APFSChances::useOf(APFSBlocks blocks)
{
    if (inUse_.intersects(blocks))
        return { .isAllocated = true };
    return spaceManager_ ? spaceManager_->useOf(blocks)
                         : APFSSpaceManager::Use { .isUnknown = true };
}
