#pragma once

#include "VintrelCore/FileSystems/NTFS/Geometry.h"
#include "VintrelCore/FileSystems/NTFS/Runs.h"
#include "VintrelCore/Model/FileData.h"

#include <cstdint>
#include <span>

class DiskSource;

/// One NTFS volume on its source, which must outlive it. Used by one thread at a time.
class NTFSContext {
public:
    struct Located {
        ExtentList extents;     ///< neighbours merged
        bool isComplete = true; ///< false when some of the bytes have no place on the source
    };

    NTFSContext(DiskSource& source, const NTFSGeometry& geometry)
        : source_(source)
        , geometry_(geometry)
    {
    }

    DiskSource& source() const { return source_; }
    const NTFSGeometry& geometry() const { return geometry_; }
    /// The largest size, in bytes, that a file can have whose clusters all lie on the volume and on
    /// the source.
    std::uint64_t capacity() const;

    /// Where the first `size` bytes in these runs lie. From byte `initSize` on they are a hole.
    Located extents(std::span<const CompressedRuns::Run> runs, std::uint64_t size,
        std::uint64_t initSize) const;

private:
    DiskSource& source_;
    const NTFSGeometry geometry_;
};
