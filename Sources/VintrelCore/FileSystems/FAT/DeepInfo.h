#pragma once

#include "VintrelCore/FileSystems/Clusters/ClusterHeap.h"
#include "VintrelCore/FileSystems/FAT/Context.h"
#include "VintrelCore/Model/Volume.h"

#include <cstdint>
#include <memory>
#include <unordered_set>
#include <utility>

/// What the search for lost directory fragments needs to know of a volume that was walked.
class FATDeepInfo : public DeepContext {
public:
    FATDeepInfo(std::unique_ptr<FATContext> walkedContext,
        std::unordered_set<std::uint32_t> claimedClusters, ClusterBits liveFileClusters)
        : context(std::move(walkedContext))
        , claimed(std::move(claimedClusters))
        , liveClusters(std::move(liveFileClusters))
    {
    }

    std::unique_ptr<FATContext> context;
    std::unordered_set<std::uint32_t>
        claimed;              ///< clusters known to belong to directories that were read
    ClusterBits liveClusters; ///< clusters in the chains of existing files
    bool isRebuilt = false;   ///< put together from directory sectors: no more of them belong to it
};
