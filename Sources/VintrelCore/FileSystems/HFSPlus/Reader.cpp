#include "VintrelCore/FileSystems/HFSPlus/Reader.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/HFSPlus/Parser.h"
#include "VintrelCore/Model/DeepScanResult.h"
#include "VintrelCore/Model/LostVolumeSearch.h"

namespace {

constexpr FileSystemType types[] = { FileSystemType::hfsplus };

constexpr std::uint64_t headerOffset = 1024; // of the volume header in the volume
constexpr std::int64_t headerSize = 512;

VolumeList load(const LoadRequest& request)
{
    return oneOrNone(
        HFSPlusParser::parse(request.source, request.offset, request.origin, request.progress));
}

/// `start`: where the volume begins if the header that was found is the primary one.
void tryPrimary(LostVolumeSearch& search, std::uint64_t start, ByteView header)
{
    if (search.hasVolume(FileSystemType::hfsplus, start)
        || !HFSPlusParser::isConfirmed(search.source(), start, header))
        return;
    search.reportFound(FileSystemType::hfsplus, "-filsystem");
    search.keep(HFSPlusParser::parse(search.source(), start,
        "Dyb scanning, volumeheader ved " + std::to_string(start + headerOffset),
        search.progress()));
}

void tryAlternate(LostVolumeSearch& search, std::uint64_t headerAt, ByteView header)
{
    for (const auto start : HFSPlusParser::startsByAlternate(header, headerAt)) {
        if (search.hasVolume(FileSystemType::hfsplus, start))
            return;
        if (!HFSPlusParser::isConfirmed(search.source(), start, header))
            continue;
        search.reportFound(FileSystemType::hfsplus, "-filsystem");
        if (search.keep(HFSPlusParser::parse(search.source(), start,
                "Dyb scanning, sikkerhedskopi af volumeheader", search.progress(), header)))
            return;
    }
}

/// First the headers that lie at their own place: a copy is asked only where there is none.
void findVolumes(LostVolumeSearch& search)
{
    const auto forEachHeader = [&](auto tryHeader) {
        for (const auto start : search.finds().hfsHeaders) {
            if (search.isCancelled())
                return;
            const auto header
                = search.source().read(start + headerOffset, headerSize, ReadMode::thorough);
            tryHeader(start, ByteView(header));
        }
    };
    forEachHeader([&](std::uint64_t start, ByteView header) { tryPrimary(search, start, header); });
    forEachHeader([&](std::uint64_t start, ByteView header) {
        tryAlternate(search, start + headerOffset, header);
    });
}

} // namespace

const FileSystemReader hfsPlusReader {
    .types = types,
    .probe = HFSPlusParser::probe,
    .load = load,
    .quickScanNote = {},
    .startByBackup = nullptr,
    .isConfirmed = nullptr,
    .confirmsBackups = false,
    .findVolumes = findVolumes,
    .rebuildVolumes = nullptr,
    .findLostFolders = nullptr,
    .addUsedRanges = HFSPlusParser::addUsedRanges,
};
