#include "VintrelCore/FileSystems/HFSPlus/PlaceSearch.h"

#include "VintrelCore/Carving/Carver.h"
#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/HFSPlus/Catalog.h"
#include "VintrelCore/FileSystems/HFSPlus/Forks.h"
#include "VintrelCore/Foundation/Rounding.h"
#include "VintrelCore/Model/DeepScanResult.h"
#include "VintrelCore/Model/FileTypes.h"
#include "VintrelCore/Model/LostVolumeSearch.h"

#include <algorithm>
#include <array>
#include <limits>
#include <map>
#include <string>
#include <vector>

using namespace HFSPlusFormat;

namespace HFSPlusPlace {

namespace {

constexpr std::size_t maxWitnesses = 400;
constexpr std::size_t maxPairs = 1'000; // finds that a witness may be
constexpr std::size_t minSupport = 2;   // one find can lie anywhere by chance
constexpr std::int64_t headSize = 64;   // of a file; it tells the kind

/// Files whose blocks are looked up in a map, and how many blocks of each extent.
constexpr std::size_t maxForks = 400;
constexpr std::uint64_t maxBlockChecks = 4'096;
/// Of a map, in bytes, that is searched for blocks that are free.
constexpr std::uint64_t searchedMap = 1'048'576;

/// The usual ones first: of places that are equally well supported the first one counts.
constexpr std::array<std::uint64_t, 8> blockSizes { 4096, 8192, 16'384, 32'768, 65'536, 2048, 1024,
    512 };

/// A file of the catalog whose content can be told by its kind.
struct Witness {
    std::uint64_t block = 0; ///< its first one
    std::string ext;         ///< as carved files are called
    std::uint64_t size = 0;  ///< in bytes
};

/// Where the content of a file lies that exists.
struct LiveFork {
    HFSPlusExtents extents;
    std::uint64_t blocks = 0; ///< in all of its extents
    std::uint64_t size = 0;   ///< in bytes
};

std::string carvedExtension(std::string_view name)
{
    auto ext = fileExtension(name);
    return ext == "jpeg" ? "jpg" : ext == "tiff" ? "tif" : ext;
}

class Search {
public:
    Search(LostVolumeSearch& search, const CatalogPlace& catalog)
        : search_(search)
        , source_(search.source())
        , catalog_(catalog)
        , recogniser_(source_, carvedCategories())
    {
    }

    std::optional<Placement> best()
    {
        gatherWitnesses();
        std::optional<Placement> best;
        std::size_t bestSupport = minSupport - 1;
        for (const auto blockSize : blockSizes)
            for (const auto base : candidates(blockSize)) {
                const auto support = supportOf({ base, blockSize });
                if (support <= bestSupport)
                    continue;
                bestSupport = support;
                best = { .geometry = { base, blockSize },
                    .isCertain = 2 * support >= witnesses_.size() };
            }
        return best ? best : bestByMap();
    }

private:
    void gatherWitnesses();
    std::vector<std::uint64_t> candidates(std::uint64_t blockSize) const;
    std::size_t supportOf(const Geometry& geometry);
    std::optional<Placement> bestByMap() const;
    bool isMapped(const Geometry& geometry) const;
    bool isUsed(std::uint64_t map, std::uint64_t block, std::uint64_t count) const;

    LostVolumeSearch& search_;
    DiskSource& source_;
    const CatalogPlace catalog_;
    Carver recogniser_;
    std::vector<Witness> witnesses_;
    std::vector<LiveFork> forks_;
};

/// Reads the catalog as that of a volume which begins with it: what it says of files does not
/// depend on the place.
void Search::gatherWitnesses()
{
    constexpr Geometry anywhere { 0, minNodeSize };
    VolumeHeader header {};
    header.start.blockSize = minNodeSize;
    header.catalogFile = anywhere.forkAt(0, catalog_.size);
    const HFSPlusForks forks(source_, catalog_.offset, header);
    const auto catalog = HFSPlusCatalog::load(forks, header, { .mayLackHeader = true });
    if (!catalog)
        return;
    for (const auto& entry : catalog->entries()) {
        const auto fork = catalog->fileOf(entry).dataFork;
        if (entry.isFolder || !entry.isLive() || fork.extents.front().blockCount == 0)
            continue;
        if (forks_.size() < maxForks)
            forks_.push_back(
                { HFSPlusForks::inlineExtents(fork), fork.totalBlocks, fork.logicalSize });
        const auto name = catalog->nameOf(entry);
        if (witnesses_.size() < maxWitnesses && categoryOf(name) != FileCategory::other)
            witnesses_.push_back(
                { fork.extents.front().startBlock, carvedExtension(name), fork.logicalSize });
    }
}

/// Where the volume begins if files that were found by their content are those of the catalog, the
/// place first for which most speak; then the places where volumes usually begin.
std::vector<std::uint64_t> Search::candidates(std::uint64_t blockSize) const
{
    constexpr std::size_t maxVoted = 4;
    std::map<std::uint64_t, std::size_t> votes;
    for (const auto& witness : witnesses_) {
        std::size_t pairs = 0;
        for (const auto& file : search_.finds().carved)
            if (file.ext == witness.ext && witness.block <= file.offset / blockSize
                && ++pairs <= maxPairs)
                votes[file.offset - witness.block * blockSize]
                    += file.exact && file.size == witness.size ? 2 : 1;
    }
    std::vector<std::pair<std::size_t, std::uint64_t>> order;
    order.reserve(votes.size());
    for (const auto& [base, count] : votes)
        order.emplace_back(std::numeric_limits<std::size_t>::max() - count, base);
    std::ranges::sort(order);
    std::vector<std::uint64_t> bases;
    for (std::size_t i = 0; i < std::min(order.size(), maxVoted); ++i)
        bases.push_back(order[i].second);
    for (const auto start : search_.likelyStarts())
        bases.push_back(start);
    std::erase_if(bases, [&](std::uint64_t base) {
        return base >= catalog_.offset || (catalog_.offset - base) % blockSize != 0;
    });
    return bases;
}

std::size_t Search::supportOf(const Geometry& geometry)
{
    return static_cast<std::size_t>(std::ranges::count_if(witnesses_, [&](const Witness& witness) {
        const auto offset = geometry.base + witness.block * geometry.blockSize;
        if (offset >= source_.size())
            return false;
        const auto found
            = recogniser_.check(source_.read(offset, headSize, ReadMode::thorough), offset);
        return found && found->ext == witness.ext;
    }));
}

std::optional<Placement> Search::bestByMap() const
{
    for (const auto blockSize : blockSizes)
        for (const auto base : search_.likelyStarts())
            if (base < catalog_.offset && (catalog_.offset - base) % blockSize == 0
                && isMapped({ base, blockSize }))
                return Placement { .geometry = { base, blockSize }, .isByMap = true };
    return std::nullopt;
}

/// Whether a map of used blocks lies where systems put it when they make a volume, right behind the
/// header, and knows the catalog and nearly all of its files. A few may have changed before the
/// disk was hurt.
bool Search::isMapped(const Geometry& geometry) const
{
    const auto& [base, blockSize] = geometry;
    const auto map
        = base + unitsFor(volumeHeaderOffset + sizeof(VolumeHeader), blockSize) * blockSize;
    if (!isUsed(map, 0, 1)
        || !isUsed(map, (catalog_.offset - base) / blockSize, unitsFor(catalog_.size, blockSize)))
        return false;
    std::size_t known = 0;
    std::size_t exact = 0; // as many blocks as the size needs, and no more
    for (const auto& fork : forks_) {
        const bool isMarked = std::ranges::all_of(fork.extents, [&](const HFSPlusExtent& extent) {
            return isUsed(map, extent.startBlock, extent.blockCount);
        });
        known += isMarked && fork.blocks * blockSize >= fork.size ? 1 : 0;
        exact += fork.blocks == unitsFor(fork.size, blockSize) ? 1 : 0;
    }
    if (known < minSupport || 16 * known < 15 * forks_.size() || 2 * exact < forks_.size())
        return false;
    // What is filled with ones is no map.
    const auto length = std::min((source_.size() - base) / blockSize / 8, searchedMap);
    const auto bytes = source_.read(map, static_cast<std::int64_t>(length), ReadMode::thorough);
    return std::ranges::any_of(bytes, [](std::uint8_t byte) { return byte != 0xFF; });
}

/// Whether the map that begins at byte `map` calls the first ones of these blocks used.
bool Search::isUsed(std::uint64_t map, std::uint64_t block, std::uint64_t count) const
{
    count = std::min(count, maxBlockChecks);
    const auto bytes = source_.read(map + block / 8,
        static_cast<std::int64_t>((block % 8 + count + 7) / 8), ReadMode::thorough);
    for (std::uint64_t bit = block % 8; bit < block % 8 + count; ++bit)
        if ((ByteView(bytes).u8(static_cast<std::int64_t>(bit / 8)) & 0x80 >> bit % 8) == 0)
            return false;
    return true;
}

} // namespace

ForkData Geometry::forkAt(std::uint64_t offset, std::uint64_t size) const
{
    ForkData fork {};
    const auto blocks = std::min<std::uint64_t>(
        unitsFor(size, blockSize), std::numeric_limits<std::uint32_t>::max());
    fork.logicalSize = blocks * blockSize;
    fork.extents.front().startBlock = static_cast<std::uint32_t>((offset - base) / blockSize);
    fork.extents.front().blockCount = static_cast<std::uint32_t>(blocks);
    return fork;
}

std::optional<Placement> find(LostVolumeSearch& search, const CatalogPlace& catalog)
{
    return Search(search, catalog).best();
}

} // namespace HFSPlusPlace
