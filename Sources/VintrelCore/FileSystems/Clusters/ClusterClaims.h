#pragma once

#include "VintrelCore/FileSystems/Clusters/ClusterHeap.h"
#include "VintrelCore/FileSystems/Clusters/DirectoryQueue.h"
#include "VintrelCore/Foundation/TimeConversion.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

class FileNode;

/// A file that does not exist any more, in the tree of a volume or of its lost directories.
struct FormerFile {
    FileNode* node;
    std::optional<Date> written; ///< when it was written, at the earliest
    bool isLost;                 ///< it bears no mark of deletion: its directory is lost
    bool isCertain;              ///< it is known where all of it lay, not only its first cluster
    bool isLevelFixed = false;   ///< its chance stays as it is, and a doubt is only noted
};

/// Entries that lie in a directory's clusters behind the place where it seems to end.
struct DirectoryRest {
    FileNode* folder;
    int depth;     ///< levels below the root
    bool isBroken; ///< it seems to end in a sector that is wholly zero, as lost ones read
    struct Sector {
        std::uint64_t offset; ///< on the source
        bool isBehindGap;     ///< the directory's sector before it is not one of these
    };
    std::vector<Sector> sectors; ///< that hold entries, in the directory's order
};

/// A deleted directory that has no end in the clusters in which it was found.
struct OpenDirectory {
    FileNode* folder;
    int depth;                               ///< levels below the root
    std::uint32_t firstCluster, lastCluster; ///< of those that were found
    std::uint64_t endOfContent;              ///< the cluster behind what its last entry names
};

/// What the clusters of a volume are known to hold.
struct ClusterClaims {
    ClusterClaims() = default;
    /// Clusters that lie beyond the source's end are never claimed: a made-up volume may say that
    /// it has any number of them.
    ClusterClaims(const ClusterHeap& heap, std::uint64_t sourceSize)
        : claimed(heap.clustersWithin(sourceSize) + 2)
        , directories(claimed)
        , liveClusters(claimed)
    {
    }

    bool contains(std::uint32_t cluster) const
    {
        return claimed.contains(cluster) || liveClusters.contains(cluster);
    }
    bool containsAny(std::uint32_t first, std::uint64_t count) const
    {
        return claimed.containsAny(first, count) || liveClusters.containsAny(first, count);
    }

    /// How many of the directories seem to end in a lost sector.
    std::size_t brokenDirectories() const
    {
        return static_cast<std::size_t>(std::ranges::count_if(rests, &DirectoryRest::isBroken));
    }

    /// Whether any of the clusters belongs to a file that exists, or holds entries of a directory.
    bool isInUse(std::uint32_t first, std::uint64_t count) const
    {
        return directories.containsAny(first, count) || liveClusters.containsAny(first, count);
    }

    ClusterBits claimed;      ///< directories that were read
    ClusterBits directories;  ///< those of them that are known to hold entries
    ClusterBits liveClusters; ///< existing files, and what the file system keeps for itself
    std::vector<FormerFile> formerFiles;
    std::vector<DirectoryRest> rests;       ///< of directories that were read, still to be listed
    std::vector<QueuedDirectory> misplaced; ///< deleted ones that are not where their entry says
    std::vector<OpenDirectory> openDirectories; ///< of which more is still to be found
};
