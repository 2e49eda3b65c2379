#pragma once

#include "VintrelCore/FileSystems/Ext/Geometry.h"
#include "VintrelCore/Foundation/Binary.h"

#include <cstdint>
#include <map>
#include <utility>

class DiskSource;

/// Where the newest state of a block lies that is not yet at its own place.
struct ExtBlockCopy {
    std::uint64_t offset = 0; ///< in bytes on the source
    bool isEscaped = false;   ///< its first four bytes are the journal's magic, kept as zeros
};

/// Reads the blocks of a volume as they are when its journal has been replayed. Bytes that cannot
/// be read are zeros. Used by one thread at a time.
class ExtBlocks {
public:
    using Overlay = std::map<std::uint64_t, ExtBlockCopy>;

    /// The source must outlive it.
    ExtBlocks(DiskSource& source, const ExtGeometry& geometry)
        : source_(source)
        , geometry_(geometry)
    {
    }

    DiskSource& source() const { return source_; }
    const ExtGeometry& geometry() const { return geometry_; }

    /// Goes on with another state of the superblock, of the same block size.
    void use(const ExtGeometry& geometry) { geometry_ = geometry; }

    /// Puts copies in the place of blocks from now on; those set before stay where the new ones
    /// say nothing.
    void lay(const Overlay& overlay);
    bool isLaid(std::uint64_t block) const { return overlay_.contains(block); }

    /// Puts these bytes in the place of a block from now on.
    void patch(std::uint64_t block, Bytes bytes)
    {
        patches_.insert_or_assign(block, std::move(bytes));
    }

    /// Blocks in a row, whose number the caller has bounded.
    Bytes read(std::uint64_t first, std::uint64_t count = 1) const;
    /// A copy of a block, wherever it lies.
    Bytes readCopy(const ExtBlockCopy& copy) const;

private:
    DiskSource& source_;
    ExtGeometry geometry_;
    Overlay overlay_;
    std::map<std::uint64_t, Bytes> patches_;
};
