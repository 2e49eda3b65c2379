#include "VintrelCore/FileSystems/NTFS/Context.h"

#include "VintrelCore/Disk/DiskSource.h"

#include <algorithm>

std::uint64_t NTFSContext::capacity() const
{
    const std::uint64_t base = geometry_.hasPlace ? geometry_.base : 0;
    const std::uint64_t onSource = source_.size() > base ? source_.size() - base : 0;
    return geometry_.volumeSize == 0 ? onSource : std::min(onSource, geometry_.volumeSize);
}

NTFSContext::Located NTFSContext::extents(
    std::span<const CompressedRuns::Run> runs, std::uint64_t size, std::uint64_t initSize) const
{
    Located located;
    const auto append = [&](std::optional<std::uint64_t> offset, std::uint64_t length) {
        if (length == 0)
            return;
        auto& extents = located.extents;
        const bool continues = !extents.empty()
            && (offset ? extents.back().offset
                        && *extents.back().offset + extents.back().length == *offset
                       : !extents.back().offset);
        if (continues)
            extents.back().length += length;
        else
            extents.push_back({ offset, length });
    };

    std::uint64_t written = std::min(size, initSize); // bytes that are not known to be zeros
    for (const auto& run : runs) {
        if (size == 0)
            break;
        const std::uint64_t length = run.clusters > size / geometry_.clusterSize
            ? size
            : run.clusters * geometry_.clusterSize;
        auto offset = run.lcn ? geometry_.offsetOf(*run.lcn) : std::nullopt;
        if (run.lcn
            && (!offset || *offset >= source_.size() || length > source_.size() - *offset)) {
            located.isComplete = false;
            if (offset && *offset >= source_.size())
                offset.reset();
        }
        const std::uint64_t withContent = std::min(length, written);
        append(offset, withContent);
        append(std::nullopt, length - withContent);
        written -= withContent;
        size -= length;
    }
    located.isComplete = located.isComplete && size == 0;
    return located;
}
