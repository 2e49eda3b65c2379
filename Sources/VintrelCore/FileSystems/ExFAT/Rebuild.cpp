// exFAT volumes without a boot sector: put together from the directory sectors that a sweep found.

#include "VintrelCore/Carving/Carver.h"
#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/ExFAT/Parser.h"
#include "VintrelCore/FileSystems/ExFAT/Walker.h"
#include "VintrelCore/Model/FileNode.h"
#include "VintrelCore/Model/FileTypes.h"
#include "VintrelCore/Model/Volume.h"
#include "VintrelCore/Model/WorkProgress.h"

#include <algorithm>
#include <limits>
#include <unordered_map>

namespace ExFATParser {

using namespace ExFATEntries;

namespace {

constexpr std::int64_t looked
    = 512 + maxFileSetSize; // a sector, and the rest of the set that begins at its end
constexpr int minClusterShift = 9;

constexpr std::size_t maxPairs = 65'536;     // of folders and places where they may begin, a round
constexpr std::size_t maxBeginnings = 1'024; // of directories that one folder is tried with
constexpr std::size_t maxWitnesses = 65'536;
constexpr std::size_t maxTwins = 16;  // more finds of one size say nothing of where a file is
constexpr std::size_t maxPlaces = 64; // volumes, those that are known among them

constexpr std::size_t nobody = std::numeric_limits<std::size_t>::max();

/// A candidate sector.
struct Candidate {
    std::uint64_t offset;
    bool mayBegin = false; ///< a directory: it does not begin in the middle of a set
    bool isRoot = false;   ///< it holds what only root directories do
    std::size_t owner = nobody;
};

/// A folder's first cluster, or, with a place, that of a file that was found by its content.
struct Witness {
    std::uint32_t cluster;
    std::size_t candidate; ///< index of the sector with the set
    std::optional<std::uint64_t> found = {};
};

struct Place {
    ClusterHeap heap;
    bool isKnown = false;
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
        survey(sectors);
        for (const auto& heap : hints_.heaps)
            if (places_.size() < maxPlaces)
                assignTo({ .heap = heap, .isKnown = true });
        while (places_.size() < maxPlaces && !isCancelled(progress_)) {
            const auto heap = likeliestHeap();
            if (!heap || !assignTo({ .heap = *heap }))
                break;
        }
        // What says nothing itself belongs with what lies before it, or else behind it.
        std::size_t owner = nobody;
        const auto join = [&](Candidate& candidate) {
            candidate.owner == nobody ? candidate.owner = owner : owner = candidate.owner;
        };
        std::for_each(candidates_.begin(), candidates_.end(), join);
        std::for_each(candidates_.rbegin(), candidates_.rend(), join);
        VolumeList volumes;
        for (std::size_t index = 0; index < places_.size() && !isCancelled(progress_); ++index)
            if (!places_[index].isKnown)
                if (auto volume = build(index))
                    volumes.push_back(std::move(volume));
        return volumes;
    }

private:
    void survey(std::span<const std::uint64_t> sectors)
    {
        std::unordered_map<std::uint64_t, std::vector<std::uint64_t>> finds; // by size
        for (const auto& file : hints_.carved)
            if (auto& twins = finds[file.size]; file.exact && twins.size() <= maxTwins)
                twins.push_back(file.offset);
        for (const auto offset : sectors) {
            if (isCancelled(progress_))
                return;
            const auto bytes = source_.read(offset, looked, ReadMode::thorough);
            candidates_.push_back({ .offset = offset,
                .mayBegin = (bytes[0] & secondary) == 0,
                .isRoot = bytes[0] == bitmapType || bytes[entrySize] == bitmapType
                    || bytes[2 * entrySize] == bitmapType });
            for (const auto& set : soundSets(bytes, 0)) {
                const std::uint32_t cluster = set.stream.firstCluster;
                if (cluster < 2 || witnesses_.size() >= maxWitnesses)
                    continue;
                if (set.file->isDirectory()) {
                    witnesses_.push_back({ cluster, candidates_.size() - 1 });
                } else if (const auto twins = finds.find(set.stream.size);
                           twins != finds.end() && twins->second.size() <= maxTwins) {
                    for (const auto found : twins->second)
                        witnesses_.push_back({ cluster, candidates_.size() - 1, found });
                }
            }
        }
    }

    /// Where the clusters lie by most of what no other place explains: folders that begin where a
    /// directory does, files that begin where one of their size was found.
    std::optional<ClusterHeap> likeliestHeap() const
    {
        std::vector<std::uint64_t> beginnings;
        for (const auto& candidate : candidates_)
            if (candidate.mayBegin && candidate.owner == nobody
                && beginnings.size() < maxBeginnings)
                beginnings.push_back(candidate.offset);
        HeapVotes votes(minClusterShift, ExFATGeometry::maxClusterShift);
        std::size_t pairs = 0;
        for (const auto& witness : witnesses_) {
            if (candidates_[witness.candidate].owner != nobody)
                continue;
            if (witness.found)
                votes.add(*witness.found, witness.cluster);
            else
                for (std::size_t i = 0; i < beginnings.size() && pairs < maxPairs; ++i, ++pairs)
                    votes.add(beginnings[i], witness.cluster);
        }
        return votes.winner();
    }

    /// Gives a place the sectors that it explains. False when there are none.
    bool assignTo(const Place& place)
    {
        const auto index = places_.size();
        places_.push_back(place);
        bool explains = false;
        for (const auto& witness : witnesses_) {
            auto& candidate = candidates_[witness.candidate];
            const auto offset = place.heap.offsetOf(witness.cluster);
            const auto folder = witness.found
                ? candidates_.end()
                : std::ranges::lower_bound(candidates_, offset, {}, &Candidate::offset);
            const bool isFolder = folder != candidates_.end() && folder->offset == offset
                && folder->mayBegin && (folder->owner == nobody || folder->owner == index);
            if ((!isFolder && witness.found != offset)
                || (candidate.owner != nobody && candidate.owner != index))
                continue;
            candidate.owner = index;
            if (isFolder)
                folder->owner = index;
            explains = true;
        }
        return explains;
    }

    std::unique_ptr<Volume> build(std::size_t index)
    {
        auto heap = places_[index].heap;
        std::vector<std::uint64_t> sectors;
        std::optional<std::uint64_t> rootSector;
        for (const auto& candidate : candidates_)
            if (candidate.owner == index && candidate.offset >= heap.offset) {
                sectors.push_back(candidate.offset);
                if (candidate.isRoot && !rootSector)
                    rootSector = candidate.offset;
            }
        if (sectors.empty())
            return nullptr;
        const std::uint64_t end = hints_.endBehind(sectors.back(), source_.size());
        heap.count = static_cast<std::uint32_t>(
            std::min((end - heap.offset) / heap.clusterSize, ExFATGeometry::maxClusters));

        ExFATGeometry geometry;
        geometry.heap = heap;
        geometry.volumeSize = heap.size();
        auto context = std::make_unique<ExFATContext>(source_, geometry);
        auto volume
            = std::make_unique<Volume>(FileSystemType::exfat, "", heap.offset, geometry.volumeSize,
                FileNode::makeFolder("", EntryStatus::existing), "Dyb scanning, mappesektorer");
        volume->clusterSize = heap.clusterSize;
        const ClusterBits none(
            std::min<std::uint64_t>(heap.count, source_.size() / heap.clusterSize) + 2);
        auto info = std::make_unique<ExFATDeepInfo>(std::move(context), none, none);
        const bool hasRoot = rootSector && heap.contains(heap.clusterAt(*rootSector));
        LostRoot root { .folder = *volume->root,
            .cluster = hasRoot ? heap.clusterAt(*rootSector) : 0 };
        if (auto folder = lostEntries(*info, sectors, progress_, hasRoot ? &root : nullptr))
            volume->root->add(std::move(folder));
        info->isRebuilt = true;
        volume->label = root.label;
        volume->deepContext = std::move(info);
        volume->notes.emplace_back("Allokeringsbitmappen kunne ikke læses.");
        return finishRebuilt(std::move(volume), "exFAT", sectors.size());
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
    return sectorsOutside<ExFATDeepInfo>(sectors, volumes,
        [](const ExFATDeepInfo& /*info*/, std::uint64_t /*offset*/) { return false; });
}

} // namespace ExFATParser
