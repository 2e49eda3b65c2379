#include "VintrelCore/Model/SourceEnd.h"

#include "VintrelCore/Foundation/Rounding.h"
#include "VintrelCore/Model/Chance.h"
#include "VintrelCore/Model/Volume.h"

#include <algorithm>
#include <limits>

namespace {

constexpr auto maxLength = std::numeric_limits<std::uint64_t>::max();

/// Content that macOS packs lies in blocks of 64 KiB, each of which takes 8 bytes or more.
constexpr std::uint64_t maxPackingRatio = Decmpfs::blockSize / 8;

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
    if (const auto* compressed = contentAs<CompressedRuns>(data)) {
        if (compressed->clusterSize == 0 || compressed->volumeOffset >= sourceSize)
            return false;
        const auto clusters = (sourceSize - compressed->volumeOffset) / compressed->clusterSize;
        return std::ranges::any_of(compressed->runs, [&](const CompressedRuns::Run& run) {
            return run.lcn && isBeyond(*run.lcn, run.clusters, clusters);
        });
    }
    return false;
}

/// The most that the place of a file's content lets it be long, whatever its size says.
std::uint64_t lengthOfRuns(const FileData& data, std::uint64_t sourceSize, bool knowsHoles)
{
    std::uint64_t length = 0;
    if (const auto* packed = contentAs<DecmpfsContent>(data))
        length = saturatingMultiply(packed->packedSize(), maxPackingRatio);
    else if (const auto* packedByWindows = contentAs<WOFContent>(data))
        length = saturatingMultiply(
            packedByWindows->packedSize(), WOF::chunkSize(packedByWindows->method));
    else if (const auto* bytes = std::get_if<Bytes>(&data))
        length = bytes->size();
    else if (const auto* extents = std::get_if<ExtentList>(&data))
        for (const auto& extent : *extents)
            if (knowsHoles && (!extent.offset || *extent.offset < sourceSize))
                length += std::min(extent.length, maxLength - length);
    return length;
}

/// The levels that the program gives itself fall; where they are fixed a file gets the note alone.
void doubt(FileNode& node, FileSystemType type, Doubt doubt)
{
    if (isFAT(type) || type == FileSystemType::hfsplus)
        noteDoubts(node, doubt);
    else
        judgeFurther(node, doubt);
}

} // namespace

void limitSizes(Volume& volume, std::uint64_t sourceSize)
{
    if (volume.type == FileSystemType::ntfs) // its reader knows the volume's size and compression
        return;
    const bool knowsHoles
        = volume.type == FileSystemType::apfs || volume.type == FileSystemType::ext;
    volume.root->forEachUnordered([&](FileNode& node) {
        if (std::holds_alternative<NoData>(node.data) || node.size <= sourceSize
            || node.size <= lengthOfRuns(node.data, sourceSize, knowsHoles))
            return;
        node.size = sourceSize;
        doubt(node, volume.type, Doubt::missingRuns);
    });
}

void noteSourceEnd(Volume& volume, std::uint64_t sourceSize)
{
    if (volume.offset >= sourceSize || volume.size <= sourceSize - volume.offset)
        return;
    const auto missing = volume.size - (sourceSize - volume.offset);
    volume.notes.push_back("Kilden slutter før filsystemet: de sidste " + std::to_string(missing)
        + " bytes af det mangler.");
    volume.root->forEachUnordered([&](FileNode& node) {
        if (reachesBeyond(node.data, sourceSize))
            doubt(node, volume.type, Doubt::beyondSource);
    });
}
