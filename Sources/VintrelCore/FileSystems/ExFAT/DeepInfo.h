#pragma once

#include "VintrelCore/FileSystems/Clusters/ClusterHeap.h"
#include "VintrelCore/FileSystems/ExFAT/Context.h"
#include "VintrelCore/Model/Volume.h"

#include <cstdint>
#include <memory>
#include <unordered_set>
#include <utility>

/// What the search for lost directory fragments needs to know of a volume that was walked.
class ExFATDeepInfo : public DeepContext {
public:
    ExFATDeepInfo(std::unique_ptr<ExFATContext> walkedContext, ClusterBits claimedClusters,
        ClusterBits liveFileClusters)
        : context(std::move(walkedContext))
        , claimed(std::move(claimedClusters))
        , liveClusters(std::move(liveFileClusters))
    {
    }

    std::unique_ptr<ExFATContext> context;
    ClusterBits claimed;      ///< clusters of directories that were read
    ClusterBits liveClusters; ///< clusters of existing files, and of the file system's own
    bool isRebuilt = false;   ///< put together from directory sectors: no more of them belong to it
};
