#pragma once

#include "VintrelCore/FileSystems/Clusters/ClusterClaims.h"
#include "VintrelCore/Model/Volume.h"

#include <algorithm>
#include <cstdint>
#include <memory>
#include <span>
#include <utility>
#include <vector>

/// What the search for lost directory fragments needs to know of a volume that was walked.
template <class Context> class ClusterDeepInfo : public DeepContext {
public:
    ClusterDeepInfo(std::unique_ptr<Context> walkedContext, ClusterClaims walkedClaims)
        : context(std::move(walkedContext))
        , claims(std::move(walkedClaims))
    {
    }

    std::unique_ptr<Context> context; ///< never none
    ClusterClaims claims;
    bool isRebuilt = false; ///< put together from directory sectors: no more of them belong to it
};

/// The sectors that lie neither in the directories nor in the existing files of these volumes.
/// `isInRoot(info, offset)` tells of a byte outside the clusters whether the root directory is
/// there.
template <class DeepInfo, class IsInRoot>
std::vector<std::uint64_t> sectorsOutside(
    std::span<const std::uint64_t> sectors, const VolumeList& volumes, IsInRoot isInRoot)
{
    std::vector<std::uint64_t> outside(sectors.begin(), sectors.end());
    for (const auto& volume : volumes) {
        const auto* info = dynamic_cast<const DeepInfo*>(volume->deepContext.get());
        if (info == nullptr)
            continue;
        const auto& heap = info->context->geometry().heap;
        std::erase_if(outside, [&](std::uint64_t offset) {
            return heap.holds(offset) ? info->claims.contains(heap.clusterAt(offset))
                                      : isInRoot(*info, offset);
        });
    }
    return outside;
}
