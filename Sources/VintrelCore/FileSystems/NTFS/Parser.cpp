#include "VintrelCore/FileSystems/NTFS/Parser.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/NTFS/BootSector.h"
#include "VintrelCore/FileSystems/NTFS/CheckedGeometry.h"
#include "VintrelCore/FileSystems/NTFS/MFT.h"
#include "VintrelCore/FileSystems/NTFS/Tree.h"
#include "VintrelCore/Foundation/RangeSet.h"

#include <algorithm>
#include <iterator>
#include <vector>

namespace NTFSParser {

namespace {

constexpr std::int64_t bootSectorSize = 512;

/// Whether more than half of this MFT belongs to the MFTs of these volumes. So all MFTs together
/// are not larger than two sources, whatever tables and boot sectors name.
bool isReadAlready(const MappedStream& mft, std::span<const Volume* const> volumes)
{
    RangeSet places;
    for (const auto& extent : mft.extents())
        if (extent.offset)
            places.add(*extent.offset, *extent.offset + extent.length);
    const auto size = places.total();
    for (const auto* volume : volumes)
        if (const auto* info = dynamic_cast<const NTFSDeepInfo*>(volume->deepContext.get()))
            for (const auto& extent : info->mft.extents())
                if (extent.offset)
                    places.remove(*extent.offset, *extent.offset + extent.length);
    return places.total() < size - places.total();
}

} // namespace

std::optional<FileSystemType> probe(ByteView head)
{
    return NTFSBootSector::from(head) ? std::optional(FileSystemType::ntfs) : std::nullopt;
}

std::optional<std::uint64_t> startByBackup(ByteView sector, std::uint64_t offset)
{
    const auto boot = NTFSBootSector::from(sector);
    if (!boot)
        return std::nullopt;
    const std::uint64_t end = offset + boot->bytesPerSector;
    if (boot->totalSectors >= end / boot->bytesPerSector)
        return std::nullopt;
    return end - (boot->totalSectors + 1) * boot->bytesPerSector;
}

std::unique_ptr<Volume> parse(DiskSource& source, std::uint64_t offset, const std::string& origin,
    WorkProgress* progress, std::optional<ByteView> boot, std::uint64_t partitionSize,
    std::span<const Volume* const> volumes)
{
    std::vector<std::string> notes;
    Bytes own;
    if (!boot)
        own = source.read(offset, bootSectorSize, ReadMode::thorough);
    const auto geometry
        = checkedGeometry(source, boot.value_or(ByteView(own)), offset, partitionSize, notes);
    if (!geometry)
        return nullptr;
    const NTFSContext context(source, *geometry);
    const auto mft = locateMFT(context, notes);
    if (!mft || isReadAlready(*mft, volumes))
        return nullptr;
    auto records = readAllRecords(context, *mft, progress);
    if (records.count() == 0)
        return nullptr;
    auto volume = buildVolume(context, std::move(records), *mft, origin);
    std::ranges::move(notes, std::back_inserter(volume->notes));
    const auto& info = static_cast<const NTFSDeepInfo&>(*volume->deepContext);
    if (std::holds_alternative<NoData>(info.bitmap))
        volume->notes.emplace_back("$Bitmap blev ikke fundet. Det vides ikke, om slettede filers "
                                   "plads er genbrugt.");
    return volume;
}

} // namespace NTFSParser
