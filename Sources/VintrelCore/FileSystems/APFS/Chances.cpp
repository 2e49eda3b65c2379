#include "VintrelCore/FileSystems/APFS/Chances.h"

#include <utility>
#include <variant>

bool APFSChances::judgeWaiting(const APFSFormat::ContainerSuperblock& superblock)
{
    if (waiting_.empty())
        return true;
    if (!std::exchange(hasAskedSpaceManager_, true))
        spaceManager_ = APFSSpaceManager::load(blocks_, superblock);
    inUse_.merge();
    for (auto* node : std::exchange(waiting_, {}))
        judge(*node, doubtsOf(useOf(std::get<ExtentList>(node->data)), appleReuse));
    return spaceManager_ != nullptr;
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
            use.isFirstForeign = findInUse({ blocks.first, blocks.first + 1 });
        use.checked += blocks.end - blocks.first;
        if (use.isFirstForeign || findInUse(blocks)) {
            use.foreign = 1;
            break;
        }
    }
    return use;
}

bool APFSChances::findInUse(APFSBlocks blocks)
{
    return inUse_.intersects(blocks) || (spaceManager_ && spaceManager_->findAllocated(blocks));
}
