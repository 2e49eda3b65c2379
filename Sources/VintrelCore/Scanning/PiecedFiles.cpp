#include "VintrelCore/Scanning/PiecedFiles.h"

#include "VintrelCore/Carving/Carver.h"
#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/Disk/PieceSource.h"
#include "VintrelCore/FileSystems/FileSystems.h"
#include "VintrelCore/Fragments/DeletedFiles.h"
#include "VintrelCore/Fragments/SecondLook.h"
#include "VintrelCore/Model/FileData.h"
#include "VintrelCore/Model/WorkProgress.h"

#include <algorithm>
#include <map>
#include <numeric>
#include <unordered_map>

namespace {

/// Where the clusters of a volume begin, by where its files do; none where nothing says.
std::optional<Fragments::Grid> gridOf(const Volume& volume, std::span<FileNode* const> files)
{
    if (volume.clusterSize < 512 || volume.type == FileSystemType::carved)
        return std::nullopt;
    std::map<std::uint64_t, std::uint64_t> phases; // how many pieces begin so far into a cluster
    for (const auto* file : files)
        if (const auto* extents = extentsOf(file->data))
            for (const auto& extent : *extents)
                if (extent.offset)
                    ++phases[(*extent.offset - std::min(*extent.offset, volume.offset))
                        % volume.clusterSize];
    const auto usual
        = std::ranges::max_element(phases, {}, [](const auto& row) { return row.second; });
    const auto phase = usual == phases.end() ? 0 : usual->first;
    return Fragments::Grid { { volume.offset + phase, volume.offset + volume.size },
        volume.clusterSize };
}

/// What the places of whole finds have in common where no volume tells the unit.
Fragments::Grid gridOf(const DiskSource& source, std::span<const CarvedFile> finds)
{
    constexpr std::size_t enough = 8; // so that chance hardly leads them all to the same unit
    constexpr std::uint64_t mostUnit = 65'536;
    constexpr std::uint64_t sector = 512;
    std::uint64_t common = 0;
    std::size_t count = 0;
    const CarvedFile* first = nullptr;
    for (const auto& find : finds) {
        if (!find.isProved)
            continue;
        if (first == nullptr)
            first = &find;
        common = std::gcd(common, find.offset - first->offset);
        ++count;
    }
    if (count < enough)
        return { { 0, source.size() }, sector };
    const auto unit = std::max(sector, std::gcd(common, mostUnit));
    return { { first->offset % unit, source.size() }, unit };
}

bool isAlive(const FileNode& file)
{
    return file.status == EntryStatus::existing && file.recoverability == Recoverability::good;
}

/// What a volume has in use: by its tables, and by its living files.
std::vector<ByteRange> usedRanges(
    DiskSource& source, const Volume& volume, std::span<FileNode* const> files)
{
    std::vector<ByteRange> ranges;
    const auto* const reader = readerFor(volume.type);
    if (reader != nullptr && reader->addUsedRanges != nullptr)
        reader->addUsedRanges(source, volume, ranges);
    for (const auto* file : files)
        if (const auto* extents = isAlive(*file) ? extentsOf(file->data) : nullptr)
            for (const auto& extent : *extents)
                if (extent.offset)
                    ranges.push_back({ *extent.offset, *extent.offset + extent.length });
    return ranges;
}

/// Whether this is just what a listed file holds that is as good as it is.
bool isHeldBy(const CarvedFile& find, const FileNode& file)
{
    const auto* const extents = extentsOf(file.data);
    if (extents == nullptr || file.size != find.size)
        return false;
    const std::vector whole { ByteRange { find.offset, find.offset + find.size } };
    const auto& pieces = find.pieces.empty() ? whole : find.pieces;
    std::vector<ByteRange> own;
    own.reserve(extents->size());
    for (const auto& [offset, length] : *extents)
        own.push_back({ offset.value_or(0), offset.value_or(0) + length });
    return Fragments::cutTo(std::move(own), file.size) == pieces;
}

/// Leaves out the finds that listed files hold, so that nothing is copied twice.
void leaveOutListed(
    std::vector<CarvedFile>& finds, std::span<const std::unique_ptr<Volume>> volumes)
{
    std::unordered_multimap<std::uint64_t, const FileNode*> byStart;
    for (const auto& volume : volumes)
        for (const auto* file : volume->root->allFiles()) {
            const auto* const extents = extentsOf(file->data);
            const bool isSound = file->recoverability == Recoverability::good;
            if (isSound && extents != nullptr && !extents->empty() && extents->front().offset)
                byStart.emplace(*extents->front().offset, file);
        }
    std::erase_if(finds, [&](const CarvedFile& find) {
        const auto [first, last] = byStart.equal_range(find.offset);
        return std::any_of(
            first, last, [&](const auto& row) { return isHeldBy(find, *row.second); });
    });
}

/// What kind of file it is, and when it was taken, shows only in the whole file.
void describe(DiskSource& source, CarvedFile& find)
{
    constexpr std::int64_t headSize = 4096;
    const auto file = sourceOfPieces(source, find.pieces);
    const auto known
        = Carver(*file, carvedCategories()).check(file->read(0, headSize, ReadMode::fast), 0);
    if (!known || known->size != find.size)
        return;
    find.ext = known->ext;
    find.date = known->date;
    find.captured = known->captured;
}

bool hasClusterChains(const Volume& volume)
{
    switch (volume.type) {
    case FileSystemType::fat12:
    case FileSystemType::fat16:
    case FileSystemType::fat32:
    case FileSystemType::exfat:
        return true;
    default:
        return false;
    }
}

} // namespace

void PiecedFiles::settleDeleted(DiskSource& source,
    std::span<const std::unique_ptr<Volume>> volumes, Fragments::Look look,
    const WorkProgress* progress)
{
    Fragments::BlockCache cache(source);
    for (const auto& volume : volumes) {
        if (!hasClusterChains(*volume) || isCancelled(progress))
            continue;
        const auto files = volume->root->allFiles();
        const auto grid = gridOf(*volume, files);
        if (!grid)
            continue;
        Fragments::Space space({ *grid }, { { 0, source.size() }, 512 });
        for (const auto& range : usedRanges(source, *volume, files))
            space.hold(range);
        Fragments::DeletedFiles(cache, space, *grid, progress).settle(files, look);
    }
}

void PiecedFiles::putTogether(DiskSource& source, std::span<const std::unique_ptr<Volume>> volumes,
    DeepScanResult& finds, const WorkProgress* progress)
{
    std::vector<Fragments::Grid> grids;
    std::vector<ByteRange> living;
    for (const auto& volume : volumes) {
        const auto files = volume->root->allFiles();
        if (const auto grid = gridOf(*volume, files))
            grids.push_back(*grid);
        std::ranges::move(usedRanges(source, *volume, files), std::back_inserter(living));
    }
    Fragments::Space space(std::move(grids), gridOf(source, finds.carved));
    for (const auto& range : living)
        space.hold(range);
    Fragments::SecondLook(source, std::move(space), progress).run(finds.carved, finds.brokenHeads);
    for (auto& find : finds.carved)
        if (!find.pieces.empty())
            describe(source, find);
    leaveOutListed(finds.carved, volumes);
}
