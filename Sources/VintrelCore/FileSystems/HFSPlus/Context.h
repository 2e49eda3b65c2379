#pragma once

#include "VintrelCore/FileSystems/HFSPlus/Catalog.h"
#include "VintrelCore/FileSystems/HFSPlus/Structures.h"
#include "VintrelCore/Model/Volume.h"
#include "VintrelCore/Model/WorkProgress.h"

#include <cstdint>
#include <memory>
#include <string>

class DiskSource;

/// What is kept of a volume for the question which of its blocks are in use.
struct HFSPlusVolumeContext : DeepContext {
    HFSPlusVolumeContext(const HFSPlusFormat::VolumeHeader& found, bool isCapped)
        : header(found)
        , isCatalogCapped(isCapped)
    {
    }

    const HFSPlusFormat::VolumeHeader header;
    const bool isCatalogCapped; ///< the catalog goes on behind what was read of it
};

/// Reads one HFS+ volume. Used by one thread at a time.
class HFSContext {
public:
    /// `base`: where the volume begins, in bytes on the source, which must outlive the context.
    HFSContext(DiskSource& source, std::uint64_t base, const HFSPlusFormat::VolumeHeader& header);

    /// None when there is no usable catalog, or nothing in it. `progress` may be none.
    std::unique_ptr<Volume> build(const std::string& origin, WorkProgress* progress,
        const HFSPlusCatalog::Options& options = {}) const;

private:
    DiskSource& source_;
    const std::uint64_t base_;
    const HFSPlusFormat::VolumeHeader header_;
};
