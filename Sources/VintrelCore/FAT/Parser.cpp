// FATParser: the face of the FAT reader.

#include "VintrelCore/DiskSource.h"
#include "VintrelCore/FAT.h"
#include "VintrelCore/FAT/Walker.h"
#include "VintrelCore/FSProbe.h"

#include <algorithm>
#include <string_view>

namespace FATParser {

using namespace FATEntries;

namespace {

constexpr std::int64_t sectorSize = 512;
constexpr std::uint32_t maxFragmentClusters = 64;

/// Whether bytes of a directory can be this short entry. Less is forbidden here than in a name that is listed: this
/// test meets sectors of every kind and must not lose a true one.
bool looksLikeShortEntry(const ShortEntry& entry)
{
    constexpr std::string_view forbidden = "\"*/:<>?\\|";
    const auto first = entry.name[0];
    const bool startsWell
        = first == escapedE5 || first == deletedMark || first == '.' || (first >= 0x21 && first <= 0x7E);
    return startsWell && entry.attributes <= 63 && entry.creationTicks <= 199
        && std::ranges::all_of(std::span(entry.name).subspan(1), [&](std::uint8_t byte) {
               return byte >= 0x20 && forbidden.find(static_cast<char>(byte)) == std::string_view::npos;
           });
}

/// The volume's clusters in which candidate sectors lie and which nobody has claimed, ascending.
std::vector<std::uint32_t> unclaimedClusters(const FATDeepInfo& info, std::span<const std::uint64_t> sectors)
{
    const auto& heap = info.context->geometry().heap;
    std::vector<std::uint32_t> clusters;
    for (const auto offset : sectors) {
        if (offset < heap.offset)
            continue;
        const std::uint64_t number = (offset - heap.offset) / heap.clusterSize;
        if (number >= heap.count)
            continue;
        const auto cluster = static_cast<std::uint32_t>(number + 2);
        if (!info.claimed.contains(cluster) && !info.liveClusters.contains(cluster))
            clusters.push_back(cluster);
    }
    std::ranges::sort(clusters);
    clusters.erase(std::unique(clusters.begin(), clusters.end()), clusters.end());
    return clusters;
}

} // namespace

std::unique_ptr<Volume> parse(DiskSource& source, std::uint64_t offset, const std::string& origin,
    WorkProgress* progress, std::optional<ByteView> boot)
{
    const auto sector = FSProbe::bootSector(source, offset, boot);
    const auto type = FSProbe::detectBootSector(sector);
    if (type != FileSystemType::fat12 && type != FileSystemType::fat16 && type != FileSystemType::fat32)
        return nullptr;
    const auto geometry = FATGeometry::from(sector, *type, offset);
    if (!geometry)
        return nullptr;

    auto context = std::make_unique<FATContext>(source, *geometry);
    auto volume = std::make_unique<Volume>(
        *type, geometry->label, offset, geometry->volumeSize, FileNode::makeFolder("", EntryStatus::existing), origin);
    volume->clusterSize = geometry->heap.clusterSize;
    FATWalker walker(*context, progress);
    walker.walkRoot(*volume->root);
    if (walker.label() && !walker.label()->empty())
        volume->label = *walker.label();
    if (context->fatUnavailable())
        volume->notes.emplace_back("FAT-tabellen kunne ikke læses – filer antages at ligge sammenhængende.");
    volume->deepContext
        = std::make_unique<FATDeepInfo>(std::move(context), std::move(walker.claimed), std::move(walker.liveClusters));
    volume->root->sortChildren();
    return volume;
}

bool isConfirmed(DiskSource& source, std::uint64_t offset, ByteView boot)
{
    const auto type = FSProbe::detectBootSector(boot);
    const auto geometry = type ? FATGeometry::from(boot, *type, offset) : std::nullopt;
    if (!geometry)
        return false;
    constexpr std::int64_t mediaByte = 21;
    constexpr std::uint64_t maxCopies = 4;
    for (std::uint64_t copy = 0; copy < std::min<std::uint64_t>(geometry->fatCount, maxCopies); ++copy) {
        // The first entry repeats the medium's kind, all its other bits being set; the second one's low bits are set.
        const auto start = source.read(geometry->fatOffset + copy * geometry->fatSize, 4, ReadMode::thorough);
        const bool isFAT12 = geometry->type == FileSystemType::fat12;
        if (start[0] == boot.u8(mediaByte) && start[0] >= 0xF0 && start[1] == 0xFF && (isFAT12 || start[2] == 0xFF))
            return true;
    }
    std::uint64_t root = geometry->rootDirOffset;
    if (geometry->rootDirSize == 0) {
        if (!geometry->heap.contains(geometry->rootCluster))
            return false;
        root = geometry->heap.offsetOf(geometry->rootCluster);
    }
    return looksLikeDirectorySector(source.read(root, sectorSize, ReadMode::thorough));
}

bool looksLikeDirectorySector(ByteView bytes, std::int64_t at)
{
    const auto sector = bytes.sub(at, sectorSize);
    int shortEntries = 0;
    for (std::int64_t position = 0; position < sectorSize; position += entrySize) {
        const auto entry = sector.load<ShortEntry>(position);
        if (!entry)
            return false;
        if (entry->name[0] == endOfDirectory)
            return position >= 3 * std::int64_t { entrySize } && shortEntries > 0
                && sector.isAllZero(position, sectorSize);
        if (entry->attributes == longNameAttributes) {
            const auto piece = *sector.load<LongNamePiece>(position);
            if (piece.type != 0 || piece.firstCluster != 0)
                return false;
        } else if (looksLikeShortEntry(*entry)) {
            ++shortEntries;
        } else {
            return false;
        }
    }
    return shortEntries > 0;
}

std::unique_ptr<FileNode> lostEntries(Volume& volume, std::span<const std::uint64_t> sectors, WorkProgress* progress)
{
    auto* info = dynamic_cast<FATDeepInfo*>(volume.deepContext.get());
    if (info == nullptr)
        return nullptr;
    const auto clusters = unclaimedClusters(*info, sectors);
    if (clusters.empty())
        return nullptr;

    auto folder = FileNode::makeFolder("$Tabte mappefragmenter", EntryStatus::orphaned);
    FATWalker walker(*info->context, progress);
    walker.skip(info->claimed); // folders that the volume lists already are not listed again
    walker.claimed = std::move(info->claimed);
    walker.liveClusters = std::move(info->liveClusters);
    for (std::size_t first = 0; first < clusters.size() && !isCancelled(progress);) {
        // Asked anew for each run: the folders that an earlier one leads to may have claimed its clusters.
        if (!walker.claimed.insert(clusters[first]).second) {
            ++first;
            continue;
        }
        std::uint32_t count = 1;
        while (count < maxFragmentClusters && first + count < clusters.size()
            && clusters[first + count] == clusters[first] + count
            && walker.claimed.insert(clusters[first + count]).second)
            ++count;
        walker.walkFragment(clusters[first], count, *folder);
        first += count;
    }
    info->claimed = std::move(walker.claimed);
    info->liveClusters = std::move(walker.liveClusters);
    if (folder->children().empty())
        return nullptr;
    folder->sortChildren();
    return folder;
}

} // namespace FATParser
