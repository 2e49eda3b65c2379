#include "VintrelCore/FileSystems/NTFS/Shadow/Relocation.h"

#include "VintrelCore/Foundation/Rounding.h"

#include <algorithm>

namespace NTFSShadow {

namespace {

using Run = CompressedRuns::Run;

/// No volume has more clusters, and their places in bytes do not overflow.
constexpr std::uint64_t maxCluster = std::uint64_t { 1 } << 40;

bool isPossible(const Run& run) { return *run.lcn < maxCluster && run.clusters < maxCluster; }

std::vector<Mapping::Piece> locate(
    const Mapping& mapping, const CompressedRuns& data, const Run& run)
{
    return mapping.locate(
        data.volumeOffset + *run.lcn * data.clusterSize, run.clusters * data.clusterSize);
}

ExtentList relocated(const Mapping& mapping, const ExtentList& extents)
{
    ExtentList moved;
    const auto add = [&](std::optional<std::uint64_t> offset, std::uint64_t length) {
        const bool isNext = offset && !moved.empty() && moved.back().offset
            && *moved.back().offset + moved.back().length == *offset;
        if (isNext)
            moved.back().length += length;
        else
            moved.push_back({ offset, length });
    };
    for (const auto& extent : extents) {
        if (!extent.offset) {
            add(std::nullopt, extent.length);
            continue;
        }
        for (const auto& piece : mapping.locate(*extent.offset, extent.length))
            add(piece.offset, piece.length);
    }
    return moved;
}

/// In sectors: what was copied of a cluster can be less than all of it.
CompressedRuns relocated(const Mapping& mapping, const CompressedRuns& data)
{
    const std::uint64_t sectors = data.clusterSize / sectorSize;
    CompressedRuns moved = data;
    moved.runs.clear();
    moved.clusterSize = sectorSize;
    moved.unitClusters = data.unitClusters * sectors;
    for (const auto& run : data.runs) {
        if (!run.lcn || !isPossible(run)) {
            moved.runs.push_back({ std::nullopt, saturatingMultiply(run.clusters, sectors) });
            continue;
        }
        for (const auto& piece : locate(mapping, data, run))
            moved.runs.push_back(
                { (piece.offset - data.volumeOffset) / sectorSize, piece.length / sectorSize });
    }
    return moved;
}

bool isMoved(const Mapping& mapping, const CompressedRuns& data)
{
    return std::ranges::any_of(data.runs, [&](const Run& run) {
        if (!run.lcn || !isPossible(run))
            return false;
        const auto pieces = locate(mapping, data, run);
        return pieces.size() != 1
            || pieces.front().offset != data.volumeOffset + *run.lcn * data.clusterSize;
    });
}

} // namespace

std::vector<Mapping::Piece> locate(const Mapping& mapping, const FileData& data)
{
    std::vector<Mapping::Piece> pieces;
    if (const auto* extents = extentsOf(data)) {
        for (const auto& extent : *extents)
            if (extent.offset)
                std::ranges::move(
                    mapping.locate(*extent.offset, extent.length), std::back_inserter(pieces));
    } else if (const auto* compressed = contentAs<CompressedRuns>(data)) {
        for (const auto& run : compressed->runs)
            if (run.lcn && isPossible(run))
                std::ranges::move(locate(mapping, *compressed, run), std::back_inserter(pieces));
    }
    return pieces;
}

FileData relocated(const Mapping& mapping, FileData data)
{
    if (const auto* extents = std::get_if<ExtentList>(&data))
        return relocated(mapping, *extents);
    if (auto* const packed = contentAs<WOFContent>(data))
        packed->extents = relocated(mapping, packed->extents);
    const auto* const compressed = contentAs<CompressedRuns>(data);
    if (compressed != nullptr && compressed->clusterSize % sectorSize == 0
        && isMoved(mapping, *compressed))
        return relocated(mapping, *compressed);
    return data;
}

ClusterUse useOf(
    std::span<const Mapping::Piece> pieces, const AllocationMap& map, const NTFSGeometry& geometry)
{
    ClusterUse use;
    for (const auto& piece : pieces) {
        ClusterUse part { .checked = unitsFor(piece.length, geometry.clusterSize) };
        if (piece.store == Mapping::volumeItself)
            part = map.useOf(ExtentList { { piece.offset, piece.length } }, geometry);
        else if (piece.store > 0) // a newer copy has what another file wrote there
            part.foreign = part.checked;
        if (use.checked == 0)
            use.isFirstForeign
                = piece.store == Mapping::volumeItself ? part.isFirstForeign : part.foreign > 0;
        use.checked += part.checked;
        use.foreign += part.foreign;
        use.isUnknown = use.isUnknown || part.isUnknown;
    }
    return use;
}

} // namespace NTFSShadow
