// FAT volumes without a boot sector: put together from the directory sectors that a sweep found.

#include "VintrelCore/Carving/Carver.h"
#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/FAT/Parser.h"
#include "VintrelCore/FileSystems/FAT/Walker.h"
#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Model/FileNode.h"
#include "VintrelCore/Model/FileTypes.h"
#include "VintrelCore/Model/Volume.h"
#include "VintrelCore/Model/WorkProgress.h"

#include <algorithm>
#include <limits>
#include <unordered_map>

namespace FATParser {

using namespace FATEntries;

namespace {

constexpr std::int64_t sectorSize = 512;
constexpr int minClusterShift = 9;  // 512 bytes
constexpr int maxClusterShift = 20; // 1 MiB
constexpr std::uint64_t usualRootSize
    = 16'384; // of FAT12 and FAT16: 512 entries, before the first cluster

constexpr std::size_t maxVoters = 65'536; // directories asked at a time, and files
constexpr std::size_t maxTwins = 16;      // more finds of one size say nothing of where a file is
constexpr std::size_t maxPlaces = 64;     // volumes, those that are known among them

constexpr std::size_t nobody = std::numeric_limits<std::size_t>::max();

/// A candidate sector.
struct Candidate {
    std::uint64_t offset;
    std::optional<std::uint32_t>
        own; ///< the cluster that it says it lies in; none where no directory begins
    std::uint32_t above = 0;    ///< of the directory above it; 0: the root
    std::size_t owner = nobody; ///< index of its place
};

/// Where a volume's clusters lie.
struct Place {
    std::uint64_t offset; ///< of cluster 2
    std::uint64_t clusterSize;
    bool isKnown = false;                         ///< a volume has it already
    std::optional<std::uint64_t> rootSector = {}; ///< a sector of the root directory

    std::uint64_t offsetOf(std::uint32_t cluster) const
    {
        return offset + (cluster - 2) * clusterSize;
    }
    bool explains(const Candidate& candidate) const
    {
        return candidate.own && *candidate.own >= 2 && candidate.offset == offsetOf(*candidate.own);
    }
};

/// A file that was found by its content, of the size that an entry gives for the content that
/// begins at its cluster.
struct Witness {
    std::uint64_t found;
    std::uint32_t cluster;
    std::size_t candidate; ///< index of the sector with the entry
};

class Rebuilder {
public:
    Rebuilder(DiskSource& source, const DirectoryHints& hints, WorkProgress* progress)
        : source_(source)
        , hints_(hints)
        , progress_(progress)
    {
    }

    VolumeList rebuild(std::span<const std::uint64_t> sectors)
    {
        for (const auto& heap : hints_.heaps)
            if (places_.size() < maxPlaces)
                places_.push_back(
                    { .offset = heap.offset, .clusterSize = heap.clusterSize, .isKnown = true });
        survey(sectors);
        for (std::size_t index = 0; index < places_.size(); ++index)
            assign(index);
        while (places_.size() < maxPlaces && !isCancelled(progress_)) {
            const auto place = likeliestPlace();
            if (!place)
                break;
            places_.push_back(*place);
            assign(places_.size() - 1);
        }
        settle();
        VolumeList volumes;
        for (std::size_t index = 0; index < places_.size() && !isCancelled(progress_); ++index)
            if (!places_[index].isKnown)
                if (auto volume = build(index))
                    volumes.push_back(std::move(volume));
        return volumes;
    }

private:
    template <class Visit> void forEachEntry(std::uint64_t offset, Visit visit)
    {
        const auto bytes = source_.read(offset, sectorSize, ReadMode::thorough);
        for (std::int64_t at = 0; const auto entry = ByteView(bytes).load<ShortEntry>(at);
             at += entrySize) {
            if (entry->name[0] == endOfDirectory)
                return;
            if (entry->attributes != longNameAttributes)
                visit(*entry);
        }
    }

    void survey(std::span<const std::uint64_t> sectors)
    {
        std::unordered_map<std::uint64_t, std::vector<std::uint64_t>> finds; // by size
        for (const auto& file : hints_.carved)
            if (auto& twins = finds[file.size]; file.exact && twins.size() <= maxTwins)
                twins.push_back(file.offset);
        for (const auto offset : sectors) {
            if (isCancelled(progress_))
                return;
            Candidate candidate { .offset = offset, .own = {} };
            const auto start = source_.read(offset, 2 * entrySize, ReadMode::thorough);
            candidate.own = ownCluster(start);
            if (candidate.own)
                candidate.above = firstCluster(*ByteView(start).load<ShortEntry>(entrySize));
            forEachEntry(offset, [&](const ShortEntry& entry) {
                const auto twins = finds.find(entry.size);
                if (twins == finds.end() || twins->second.size() > maxTwins
                    || (entry.attributes & directoryFlag) != 0 || firstCluster(entry) < 2)
                    return;
                for (const auto found : twins->second)
                    if (witnesses_.size() < maxVoters)
                        witnesses_.push_back({ found, firstCluster(entry), candidates_.size() });
            });
            candidates_.push_back(candidate);
        }
    }

    /// The place that most directories and files agree on which no other one explains.
    std::optional<Place> likeliestPlace() const
    {
        HeapVotes votes(minClusterShift, maxClusterShift);
        std::size_t voters = 0;
        for (const auto& candidate : candidates_)
            if (candidate.owner == nobody && candidate.own && ++voters <= maxVoters)
                votes.add(candidate.offset, *candidate.own);
        for (const auto& witness : witnesses_)
            if (candidates_[witness.candidate].owner == nobody)
                votes.add(witness.found, witness.cluster);
        const auto heap = votes.winner();
        return heap
            ? std::optional(Place { .offset = heap->offset, .clusterSize = heap->clusterSize })
            : std::nullopt;
    }

    /// Gives a place the directories that it explains, and what follows them.
    void assign(std::size_t index)
    {
        const auto& place = places_[index];
        for (const auto& witness : witnesses_)
            if (auto& candidate = candidates_[witness.candidate]; candidate.owner == nobody
                && !candidate.own && witness.cluster >= 2
                && place.offsetOf(witness.cluster) == witness.found)
                candidate.owner = index;
        bool follows = false;
        for (auto& candidate : candidates_) {
            if (candidate.own && candidate.owner == nobody && place.explains(candidate))
                candidate.owner = index;
            if (candidate.own)
                follows = candidate.owner == index;
            else if (follows && candidate.owner == nobody)
                candidate.owner = index;
        }
    }

    /// How well a sector in which no directory begins fits a place: by the folders that it names.
    struct Support {
        std::size_t folders = 0;
        std::size_t topFolders = 0; ///< of the root
    };

    std::vector<Support> supportOf(std::uint64_t offset)
    {
        std::vector<Support> support(places_.size());
        forEachEntry(offset, [&](const ShortEntry& entry) {
            if (!isSubfolder(entry) || firstCluster(entry) < 2)
                return;
            for (std::size_t index = 0; index < places_.size(); ++index)
                if (const auto* folder = directoryAt(places_[index].offsetOf(firstCluster(entry)));
                    folder != nullptr && folder->owner == index) {
                    ++support[index].folders;
                    support[index].topFolders += folder->above == 0;
                }
        });
        return support;
    }

    /// Sectors in which no directory begins belong where the folders are that they name.
    void settle()
    {
        // A root directory with few entries is no candidate. It has a place of its own, or nearly
        // always the first cluster.
        for (std::size_t index = 0; index < places_.size(); ++index) {
            auto& place = places_[index];
            for (const auto offset :
                { place.offset - std::min(place.offset, usualRootSize), place.offset }) {
                const auto sector = source_.read(offset, sectorSize, ReadMode::thorough);
                if (!ownCluster(sector) && goesOn(sector)
                    && supportOf(offset)[index].topFolders > 0)
                    place.rootSector = offset;
            }
        }
        for (auto& candidate : candidates_) {
            if (candidate.own || isCancelled(progress_))
                continue;
            const auto support = supportOf(candidate.offset);
            const auto best = std::ranges::max_element(support, {}, &Support::folders);
            if (best == support.end() || best->folders == 0)
                continue;
            candidate.owner = static_cast<std::size_t>(best - support.begin());
            auto& root = places_[candidate.owner].rootSector;
            if (best->topFolders > 0 && !root)
                root = candidate.offset;
        }
        // What lies before all directories belongs to the first one.
        std::size_t owner = nobody;
        for (auto candidate = candidates_.rbegin(); candidate != candidates_.rend(); ++candidate) {
            if (candidate->owner != nobody)
                owner = candidate->owner;
            else if (!candidate->own)
                candidate->owner = owner;
        }
    }

    /// The candidate in which a directory begins at a place on the source; none when none does.
    const Candidate* directoryAt(std::uint64_t offset) const
    {
        const auto found = std::ranges::lower_bound(candidates_, offset, {}, &Candidate::offset);
        return found != candidates_.end() && found->offset == offset && found->own ? &*found
                                                                                   : nullptr;
    }

    std::unique_ptr<Volume> build(std::size_t index)
    {
        const auto& place = places_[index];
        std::vector<std::uint64_t> sectors;
        for (const auto& candidate : candidates_)
            if (candidate.owner == index)
                sectors.push_back(candidate.offset);
        if (sectors.empty() || sectors.back() < place.offset)
            return nullptr;

        const std::uint64_t end = hints_.endBehind(sectors.back(), source_.size());
        const std::uint64_t count
            = std::min((end - place.offset) / place.clusterSize, FATGeometry::maxClusters);
        const bool hasFixedRoot = place.rootSector && *place.rootSector < place.offset;
        auto type = FATGeometry::typeFor(count);
        if (hasFixedRoot && type == FileSystemType::fat32)
            type = FileSystemType::fat16;
        FATGeometry geometry;
        geometry.type = type;
        geometry.bytesPerSector = sectorSize;
        geometry.heap = { place.offset, place.clusterSize, static_cast<std::uint32_t>(count) };
        geometry.volumeSize = count * place.clusterSize;
        auto context = std::make_unique<FATContext>(source_, geometry);
        auto volume = std::make_unique<Volume>(type, "", place.offset, geometry.volumeSize,
            FileNode::makeFolder("", EntryStatus::existing), "Dyb scanning, mappesektorer");
        volume->clusterSize = place.clusterSize;

        auto info = std::make_unique<FATDeepInfo>(
            std::move(context), std::unordered_set<std::uint32_t> {}, ClusterBits(count + 2));
        LostRoot root { .folder = *volume->root, .offset = place.rootSector.value_or(0) };
        if (hasFixedRoot) // from the first of its sectors that is left
            root.offset = std::min(root.offset,
                *std::ranges::lower_bound(
                    sectors, place.offset - std::min(place.offset, usualRootSize)));
        if (auto folder
            = lostEntries(*info, sectors, progress_, place.rootSector ? &root : nullptr))
            volume->root->add(std::move(folder));
        info->isRebuilt = true;
        volume->label = root.label;
        volume->deepContext = std::move(info);
        return finishRebuilt(std::move(volume), "FAT", sectors.size());
    }

    DiskSource& source_;
    const DirectoryHints& hints_;
    WorkProgress* progress_;
    std::vector<Candidate> candidates_; // ascending
    std::vector<Witness> witnesses_;
    std::vector<Place> places_;
};

} // namespace

VolumeList rebuild(DiskSource& source, std::span<const std::uint64_t> sectors,
    const DirectoryHints& hints, WorkProgress* progress)
{
    return Rebuilder(source, hints, progress).rebuild(sectors);
}

std::vector<std::uint64_t> looseSectors(
    std::span<const std::uint64_t> sectors, const VolumeList& volumes)
{
    return sectorsOutside<FATDeepInfo>(
        sectors, volumes, [](const FATDeepInfo& info, std::uint64_t offset) {
            const auto& geometry = info.context->geometry();
            return offset >= geometry.rootDirOffset
                && offset - geometry.rootDirOffset < geometry.rootDirSize;
        });
}

} // namespace FATParser
