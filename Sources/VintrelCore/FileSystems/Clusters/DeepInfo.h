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

/// The sectors (ascending) that lie in a range of the source.
inline std::span<const std::uint64_t> sectorsWithin(
    std::span<const std::uint64_t> sectors, std::uint64_t offset, std::uint64_t size)
{
    const auto first = std::ranges::lower_bound(sectors, offset);
    const auto end = std::ranges::lower_bound(sectors, size, {},
        [&](std::uint64_t sector) { return sector < offset ? 0 : sector - offset; });
    return { first, std::max(first, end) };
}

/// The sectors (ascending) that lie neither in the directories nor in the existing files of these
/// volumes. Each volume is asked for those alone that lie in it. `isInRoot(info, offset)` tells of
/// a byte outside the clusters whether the root directory is there.
template <class DeepInfo, class IsInRoot>
std::vector<std::uint64_t> sectorsOutside(
    std::span<const std::uint64_t> sectors, const VolumeList& volumes, IsInRoot isInRoot)
{
    std::vector<bool> isInside(sectors.size());
    for (const auto& volume : volumes) {
        const auto* info = dynamic_cast<const DeepInfo*>(volume->deepContext.get());
        if (info == nullptr)
            continue;
        const auto& heap = info->context->geometry().heap;
        const auto start = std::min(volume->offset, heap.offset);
        const auto own = sectorsWithin(sectors, start, heap.offset - start + heap.size());
        for (const auto& offset : own)
            if (heap.holds(offset) ? info->claims.contains(heap.clusterAt(offset))
                                   : isInRoot(*info, offset))
                isInside[static_cast<std::size_t>(&offset - sectors.data())] = true;
    }
    std::vector<std::uint64_t> outside;
    for (std::size_t i = 0; i < sectors.size(); ++i)
        if (!isInside[i])
            outside.push_back(sectors[i]);
    return outside;
}

/// Those of the sectors (ascending) that lie in the clusters of a volume.
template <class DeepInfo>
std::span<const std::uint64_t> sectorsOf(
    const Volume& volume, std::span<const std::uint64_t> sectors)
{
    const auto* info = dynamic_cast<const DeepInfo*>(volume.deepContext.get());
    if (info == nullptr)
        return {};
    const auto& heap = info->context->geometry().heap;
    return sectorsWithin(sectors, heap.offset, heap.size());
}
