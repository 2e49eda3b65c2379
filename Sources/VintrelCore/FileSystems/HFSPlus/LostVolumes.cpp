#include "VintrelCore/FileSystems/HFSPlus/LostVolumes.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/HFSPlus/Context.h"
#include "VintrelCore/FileSystems/HFSPlus/LooseCatalog.h"
#include "VintrelCore/FileSystems/HFSPlus/Node.h"
#include "VintrelCore/FileSystems/HFSPlus/Parser.h"
#include "VintrelCore/FileSystems/HFSPlus/VolumeHeader.h"
#include "VintrelCore/Foundation/RangeSet.h"
#include "VintrelCore/Model/DeepScanResult.h"
#include "VintrelCore/Model/LostVolumeSearch.h"

#include <algorithm>
#include <functional>
#include <set>

using namespace HFSPlusFormat;

namespace {

constexpr std::uint64_t sectorSize = 512;
constexpr std::uint64_t chunkSize = 1'048'576; ///< of the reading of sectors in a row

/// Made-up disks have headers and catalogs in every sector, and what each pair of them costs is the
/// reading of a catalog. Disks that were in use have a handful that lead to no volume.
constexpr int maxRefusals = 256;

std::uint64_t catalogOffset(const VolumeHeader& header)
{
    return std::uint64_t { header.catalogFile.extents.front().startBlock }
    * header.start.blockSize; // below 2^52
}

class Finder {
public:
    explicit Finder(LostVolumeSearch& search)
        : search_(search)
        , source_(search.source())
    {
        for (const auto* volume : search.volumes())
            if (const auto* known
                = dynamic_cast<const HFSPlusVolumeContext*>(volume->deepContext.get()))
                readCatalogs_.insert(volume->offset + catalogOffset(known->header));
    }

    void findByPrimaries();
    void findByAlternates();
    void findWithoutCatalogHeader();

private:
    using TryHeader = std::function<void(std::uint64_t at, const VolumeHeader& header)>;

    void forEachHeader(const TryHeader& tryHeader) const;
    bool load(std::uint64_t start, const VolumeHeader& header, const std::string& origin,
        const HFSPlusCatalog::Options& options = {});
    bool isConfirmed(std::uint64_t start, const VolumeHeader& header) const;
    bool isTree(std::uint64_t start, std::uint64_t offset) const;
    RangeSet catalogRanges() const;
    void findTrees(const RangeSet& ranges);
    bool hasVolumeIn(const HFSPlusVolumeHeader::Starts& starts) const;
    void tryAlternate(std::uint64_t at, const VolumeHeader& header);
    void tryWithoutCatalogHeader(std::uint64_t start, const VolumeHeader& header);
    bool leavesLieAt(std::uint64_t start, const VolumeHeader& header) const;

    LostVolumeSearch& search_;
    DiskSource& source_;
    std::set<std::uint64_t> readCatalogs_; // where the catalogs of the volumes begin
    std::set<std::uint64_t> trees_;        // where catalogs may begin that nothing has read
    int refusals_ = 0;
};

void Finder::forEachHeader(const TryHeader& tryHeader) const
{
    for (const auto start : search_.finds().hfsHeaders) {
        if (search_.isCancelled())
            return;
        const auto at = start + volumeHeaderOffset;
        const auto bytes = source_.read(at, sizeof(VolumeHeader), ReadMode::thorough);
        if (const auto header = HFSPlusVolumeHeader::decode(bytes))
            tryHeader(at, *header);
    }
}

/// A catalog that was read is not read again, whatever other headers lead to it.
bool Finder::load(std::uint64_t start, const VolumeHeader& header, const std::string& origin,
    const HFSPlusCatalog::Options& options)
{
    const auto catalog = start + catalogOffset(header);
    if (readCatalogs_.contains(catalog) || refusals_ >= maxRefusals)
        return false;
    search_.reportFound(FileSystemType::hfsplus, "-filsystem");
    if (!search_.keep(
            HFSContext(source_, start, header).build(origin, search_.progress(), options))) {
        ++refusals_;
        return false;
    }
    readCatalogs_.insert(catalog);
    return true;
}

/// Whether the catalog begins where a volume header says, if the volume begins there. Copies of
/// headers lie in many places, in the journal above all, and a catalog is long: this reads one
/// sector of it.
bool Finder::isConfirmed(std::uint64_t start, const VolumeHeader& header) const
{
    return header.catalogFile.extents.front().blockCount != 0
        && isTree(start, catalogOffset(header));
}

/// Whether a tree begins at a byte of the volume that begins at byte `start`.
bool Finder::isTree(std::uint64_t start, std::uint64_t offset) const
{
    return start < source_.size() && offset < source_.size() - start
        && HFSPlusNode::looksLikeHeader(
            source_.read(start + offset, sizeof(HeaderNode), ReadMode::thorough));
}

void Finder::findByPrimaries()
{
    forEachHeader([&](std::uint64_t at, const VolumeHeader& header) {
        const auto start = at - volumeHeaderOffset;
        if (!search_.hasVolume(FileSystemType::hfsplus, start) && isConfirmed(start, header))
            load(start, header, "Dyb scanning, volumeheader ved " + std::to_string(at));
    });
}

/// The places at which a catalog would begin, if one of the headers were an alternate one.
RangeSet Finder::catalogRanges() const
{
    RangeSet ranges;
    forEachHeader([&](std::uint64_t at, const VolumeHeader& header) {
        const auto starts = HFSPlusVolumeHeader::startsByAlternate(header, at);
        const auto catalog = catalogOffset(header);
        if (starts && catalog < source_.size()
            && header.catalogFile.extents.front().blockCount != 0)
            ranges.add(starts->lowest + catalog, starts->highest + catalog + sectorSize);
    });
    return ranges;
}

/// Reads each sector of the ranges once, and keeps the places at which trees begin.
void Finder::findTrees(const RangeSet& ranges)
{
    for (const auto& [rangeStart, rangeEnd] : ranges.ranges()) {
        const auto end = std::min(rangeEnd, source_.size());
        for (auto at = rangeStart; at < end && !search_.isCancelled(); at += chunkSize) {
            const auto chunk = source_.read(
                at, static_cast<std::int64_t>(std::min(chunkSize, end - at)), ReadMode::thorough);
            for (std::uint64_t in = 0; in < chunk.size(); in += sectorSize)
                if (HFSPlusNode::looksLikeHeader(
                        ByteView(chunk).sub(static_cast<std::int64_t>(in), sizeof(HeaderNode))))
                    trees_.insert(at + in);
        }
    }
}

void Finder::findByAlternates()
{
    findTrees(catalogRanges());
    for (const auto read : readCatalogs_)
        trees_.erase(read);
    forEachHeader([&](std::uint64_t at, const VolumeHeader& header) { tryAlternate(at, header); });
}

bool Finder::hasVolumeIn(const HFSPlusVolumeHeader::Starts& starts) const
{
    return std::ranges::any_of(search_.volumes(), [&](const Volume* volume) {
        return volume->type == FileSystemType::hfsplus && volume->offset >= starts.lowest
            && volume->offset <= starts.highest;
    });
}

/// The likeliest place comes first: that of a volume which is as long as its blocks.
void Finder::tryAlternate(std::uint64_t at, const VolumeHeader& header)
{
    const auto starts = HFSPlusVolumeHeader::startsByAlternate(header, at);
    const auto catalog = catalogOffset(header);
    if (!starts || trees_.empty() || catalog >= source_.size() || hasVolumeIn(*starts))
        return;
    auto place = trees_.upper_bound(starts->highest + catalog);
    while (place != trees_.begin() && refusals_ < maxRefusals) {
        --place;
        if (*place < starts->lowest + catalog)
            return;
        const bool isVolume
            = load(*place - catalog, header, "Dyb scanning, sikkerhedskopi af volumeheader");
        place = trees_.erase(place); // what was read or refused is not tried again
        if (isVolume)
            return;
    }
}

void Finder::findWithoutCatalogHeader()
{
    if (search_.finds().hfsLeaves.empty())
        return;
    forEachHeader([&](std::uint64_t at, const VolumeHeader& header) {
        tryWithoutCatalogHeader(at - volumeHeaderOffset, header);
    });
    forEachHeader([&](std::uint64_t at, const VolumeHeader& header) {
        if (const auto starts = HFSPlusVolumeHeader::startsByAlternate(header, at))
            tryWithoutCatalogHeader(starts->highest, header);
    });
}

void Finder::tryWithoutCatalogHeader(std::uint64_t start, const VolumeHeader& header)
{
    if (HFSPlusLooseCatalog::isInVolume(search_, start + catalogOffset(header))
        || !leavesLieAt(start, header))
        return;
    load(start, header, "Dyb scanning, volumeheader uden katalogets begyndelse",
        { .mayLackHeader = true });
}

/// Whether a leaf of a catalog lies where one would, if the volume of this header began there, and
/// the tree of the extents overflow file, too: copies of headers lie in many places.
bool Finder::leavesLieAt(std::uint64_t start, const VolumeHeader& header) const
{
    const std::uint64_t blockSize = header.start.blockSize;
    const auto& extent = header.catalogFile.extents.front();
    if (start >= source_.size() || catalogOffset(header) >= source_.size() - start)
        return false;
    const auto catalog = start + catalogOffset(header);
    const auto& leaves = search_.finds().hfsLeaves;
    const auto leaf = std::ranges::lower_bound(leaves, catalog);
    if (leaf == leaves.end() || *leaf >= catalog + extent.blockCount * blockSize)
        return false;
    const auto nodeSize = HFSPlusLooseCatalog::nodeSizeAt(source_, *leaf);
    const auto overflow = header.extentsFile.extents.front().startBlock * blockSize;
    return nodeSize != 0 && (*leaf - catalog) % nodeSize == 0 && isTree(start, overflow);
}

} // namespace

namespace HFSPlusLostVolumes {

void find(LostVolumeSearch& search)
{
    Finder finder(search);
    finder.findByPrimaries();
    finder.findByAlternates();
    finder.findWithoutCatalogHeader();
    HFSPlusLooseCatalog::findVolumes(search);
}

} // namespace HFSPlusLostVolumes
