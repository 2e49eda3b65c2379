#include "VintrelCore/Model/SourceEnd.h"

#include "VintrelCore/Model/Chance.h"
#include "VintrelCore/Model/Volume.h"

#include <algorithm>

namespace {

bool isBeyond(std::uint64_t offset, std::uint64_t length, std::uint64_t sourceSize)
{
    return length > 0 && (offset >= sourceSize || length > sourceSize - offset);
}

bool reachesBeyond(const FileData& data, std::uint64_t sourceSize)
{
    if (const auto* extents = extentsOf(data))
        return std::ranges::any_of(*extents, [&](const Extent& extent) {
            return extent.offset && isBeyond(*extent.offset, extent.length, sourceSize);
        });
    if (const auto* compressed = std::get_if<CompressedRuns>(&data)) {
        if (compressed->clusterSize == 0 || compressed->volumeOffset >= sourceSize)
            return false;
        const auto clusters = (sourceSize - compressed->volumeOffset) / compressed->clusterSize;
        return std::ranges::any_of(compressed->runs, [&](const CompressedRuns::Run& run) {
            return run.lcn && isBeyond(*run.lcn, run.clusters, clusters);
        });
    }
    return false;
}

} // namespace

void noteSourceEnd(Volume& volume, std::uint64_t sourceSize)
{
    if (volume.offset >= sourceSize || volume.size <= sourceSize - volume.offset)
        return;
    const auto missing = volume.size - (sourceSize - volume.offset);
    volume.notes.push_back("Kilden slutter før filsystemet: de sidste " + std::to_string(missing)
        + " bytes af det mangler.");
    const bool isLevelFixed = isFAT(volume.type) || volume.type == FileSystemType::hfsplus;
    volume.root->forEachDescendant([&](FileNode& node, std::size_t) {
        if (!reachesBeyond(node.data, sourceSize))
            return;
        if (isLevelFixed)
            noteDoubts(node, Doubt::beyondSource);
        else
            judgeFurther(node, Doubt::beyondSource);
    });
}
