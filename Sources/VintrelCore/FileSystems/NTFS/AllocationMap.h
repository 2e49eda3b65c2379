#pragma once

#include "VintrelCore/FileSystems/NTFS/Context.h"
#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Model/Chance.h"
#include "VintrelCore/Model/FileData.h"

#include <cstdint>
#include <vector>

/// Which clusters of a volume are in use, as $Bitmap says.
class AllocationMap {
public:
    /// Reads the bitmap; no cluster is known when it cannot be had.
    static AllocationMap load(const NTFSContext& context, const FileData& bitmap);

    /// What became of the clusters that hold `data`; of a large file only the first ones count.
    ClusterUse useOf(const FileData& data, const NTFSGeometry& geometry) const;

private:
    struct Gap {
        std::uint64_t start, end; ///< bytes of the bitmap
    };

    void append(DiskSource& source, const Extent& extent);
    void addGap(std::uint64_t start, std::uint64_t length);
    /// Adds what is known of `count` clusters from `first` on.
    void addUse(ClusterUse& use, std::uint64_t first, std::uint64_t count) const;
    bool isKnown(std::uint64_t first, std::uint64_t count) const;

    Bytes bits_;
    std::vector<Gap> gaps_; ///< that could not be read, ascending
};
