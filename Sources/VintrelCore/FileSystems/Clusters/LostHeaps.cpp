#include "VintrelCore/FileSystems/Clusters/LostHeaps.h"

#include "VintrelCore/FileSystems/Clusters/HeapVotes.h"
#include "VintrelCore/Model/CarvedFile.h"
#include "VintrelCore/Model/FileNode.h"

#include <algorithm>
#include <string>
#include <unordered_map>

namespace {

constexpr int minClusterShift = 9; // 512 bytes

constexpr std::size_t maxVoters = 65'536;    // directories in a round, and files and folders in all
constexpr std::size_t maxPairs = 65'536;     // of folders and places where they may begin, a round
constexpr std::size_t maxBeginnings = 1'024; // of directories that one folder is tried with
constexpr std::size_t maxHeaps = 64;         // those that are known among them

/// Where files were found by content, by their size.
class FileFinds {
public:
    explicit FileFinds(const std::vector<CarvedFile>& carved)
    {
        for (const auto& file : carved)
            if (auto& places = bySize_[file.size]; file.exact && places.size() <= maxOfOneSize)
                places.push_back(file.offset);
    }

    /// Empty where there are so many that they say nothing of where a file is.
    std::span<const std::uint64_t> ofSize(std::uint64_t size) const
    {
        const auto found = bySize_.find(size);
        if (found == bySize_.end() || found->second.size() > maxOfOneSize)
            return {};
        return found->second;
    }

private:
    static constexpr std::size_t maxOfOneSize = 16;

    std::unordered_map<std::uint64_t, std::vector<std::uint64_t>> bySize_;
};

} // namespace

VolumeList LostHeaps::rebuild(std::span<const std::uint64_t> sectors)
{
    survey(sectors);
    for (const auto& heap : hints_.heaps)
        if (heaps_.size() < maxHeaps)
            assign({ .heap = heap, .isKnown = true });
    while (heaps_.size() < maxHeaps && !isCancelled(progress_)) {
        const auto heap = likeliestHeap();
        if (!heap || !assign({ .heap = *heap }))
            break;
    }
    findUsualRoots();
    assignByFolders();
    assignByNeighbours();
    findMarkedRoots();
    VolumeList volumes;
    for (std::size_t index = 0; index < heaps_.size() && !isCancelled(progress_); ++index)
        if (auto volume = volumeAt(index))
            volumes.push_back(std::move(volume));
    return volumes;
}

void LostHeaps::survey(std::span<const std::uint64_t> sectors)
{
    const FileFinds finds(hints_.carved);
    const auto add = [&](const Named& named) {
        if (named_.size() < maxVoters)
            named_.push_back(named);
    };
    for (const auto offset : sectors) {
        if (isCancelled(progress_))
            return;
        const auto clues = cluesOf(offset);
        const auto index = sectors_.size();
        sectors_.push_back({ .offset = offset,
            .ownCluster = clues.ownCluster,
            .isBelowRoot = clues.isBelowRoot,
            .mayBegin = clues.mayBegin,
            .isRoot = clues.isRoot });
        if (limits_.foldersVote)
            for (const auto cluster : clues.folders)
                add({ .cluster = cluster, .sector = index });
        for (const auto& file : clues.files)
            for (const auto found : finds.ofSize(file.size))
                add({ .cluster = file.cluster, .sector = index, .found = found });
    }
}

/// Where the clusters lie by most of what no other heap explains: directories that say where they
/// lie, folders that begin where a directory does, and files that begin where one of their size was
/// found.
std::optional<ClusterHeap> LostHeaps::likeliestHeap()
{
    HeapVotes votes(minClusterShift, limits_.maxClusterShift);
    std::vector<std::uint64_t> beginnings;
    std::size_t voters = 0;
    for (const auto& sector : sectors_) {
        if (sector.owner)
            continue;
        if (sector.ownCluster && ++voters <= maxVoters)
            votes.add(sector.offset, *sector.ownCluster);
        if (sector.mayBegin && beginnings.size() < maxBeginnings)
            beginnings.push_back(sector.offset);
    }
    std::size_t pairs = 0;
    for (const auto& named : named_) {
        if (sectors_[named.sector].owner)
            continue;
        if (named.found)
            votes.add(*named.found, named.cluster);
        else
            for (std::size_t i = 0; i < beginnings.size() && pairs < maxPairs; ++i, ++pairs)
                votes.add(beginnings[i], named.cluster);
    }
    const auto winners = votes.winners();
    const auto confirmed = std::find_if(winners.rbegin(), winners.rend(),
        [&](const ClusterHeap& heap) { return isConfirmedByRoot(heap); });
    if (confirmed != winners.rend())
        return *confirmed;
    return winners.empty() ? std::nullopt : std::optional(winners.back());
}

/// Whether a root directory that nobody has yet names something that lies where the heap has it.
bool LostHeaps::isConfirmedByRoot(const ClusterHeap& heap)
{
    constexpr int maxRoots = 16;
    int asked = 0;
    for (const auto& sector : sectors_)
        if (sector.isRoot && !sector.owner && asked++ < maxRoots
            && confirmsHeap(sector.offset, heap))
            return true;
    return false;
}

/// Gives a heap the sectors that it explains. False when there are none: the same votes would elect
/// it again.
bool LostHeaps::assign(const LostHeap& lost)
{
    heaps_.push_back(lost);
    const auto index = heaps_.size() - 1;
    const bool explainsNamed = assignNamed(index);
    return assignSelfPlaced(index) || explainsNamed;
}

/// Those that name something which is where the heap would have it. What a sector says of itself
/// counts more.
bool LostHeaps::assignNamed(std::size_t index)
{
    const auto isOpen
        = [&](const Sector& sector) { return !sector.owner || sector.owner == index; };
    bool explains = false;
    for (const auto& named : named_) {
        auto& sector = sectors_[named.sector];
        if (sector.ownCluster || !isOpen(sector))
            continue;
        const auto place = heaps_[index].heap.offsetOf(named.cluster);
        auto* const folder = named.found ? nullptr : beginningAt(place);
        const bool isFolderThere = folder != nullptr && isOpen(*folder);
        if (!isFolderThere && named.found != place)
            continue;
        sector.owner = index;
        if (isFolderThere)
            folder->owner = index;
        explains = true;
    }
    return explains;
}

/// Those that lie where they say, and what follows them.
bool LostHeaps::assignSelfPlaced(std::size_t index)
{
    const auto& heap = heaps_[index].heap;
    bool explains = false;
    bool follows = false;
    for (auto& sector : sectors_) {
        const auto own = sector.ownCluster.value_or(0);
        if (!sector.owner && own >= 2 && sector.offset == heap.offsetOf(own)) {
            sector.owner = index;
            explains = true;
        }
        if (sector.ownCluster)
            follows = sector.owner == index;
        else if (follows && !sector.owner)
            sector.owner = index;
    }
    return explains;
}

/// Whether a directory belongs to a heap, or to none so far although it could. One that says where
/// it lies has had its chance.
bool LostHeaps::mayBelongTo(const Sector& sector, std::size_t index)
{
    return sector.owner == index || (!sector.owner && !sector.ownCluster);
}

std::vector<LostHeaps::Support> LostHeaps::supportOf(const Clues& clues)
{
    std::vector<Support> support(heaps_.size());
    for (const auto cluster : clues.folders)
        for (std::size_t index = 0; index < heaps_.size(); ++index) {
            const auto* const folder = beginningAt(heaps_[index].heap.offsetOf(cluster));
            if (folder == nullptr || !mayBelongTo(*folder, index))
                continue;
            ++support[index].folders;
            support[index].foldersOfRoot += folder->isBelowRoot ? 1 : 0;
        }
    return support;
}

/// A root directory with few entries is no sector that the sweep keeps.
void LostHeaps::findUsualRoots()
{
    for (std::size_t index = 0; index < heaps_.size(); ++index)
        for (const auto offset : usualRoots(heaps_[index].heap))
            if (supportOf(cluesOf(offset))[index].foldersOfRoot > 0)
                heaps_[index].rootSector = offset;
}

/// Sectors that do not say where they lie belong where most of the folders are that they name, and
/// so do these folders.
void LostHeaps::assignByFolders()
{
    for (auto& sector : sectors_) {
        if (sector.ownCluster || isCancelled(progress_))
            continue;
        const auto clues = cluesOf(sector.offset);
        const auto support = supportOf(clues);
        const auto best = std::ranges::max_element(support, {}, &Support::folders);
        if (best == support.end() || best->folders == 0)
            continue;
        sector.owner = static_cast<std::size_t>(best - support.begin());
        auto& lost = heaps_[*sector.owner];
        if (best->foldersOfRoot > 0 && !lost.rootSector)
            lost.rootSector = sector.offset;
        for (const auto cluster : clues.folders)
            if (auto* const folder = beginningAt(lost.heap.offsetOf(cluster));
                folder != nullptr && !folder->ownCluster)
                folder->owner = sector.owner;
    }
}

/// Sectors that tell nothing belong with what lies before them, or else behind them. A directory
/// that says where it lies, and fits nowhere, keeps what follows it from the one before.
void LostHeaps::assignByNeighbours()
{
    std::optional<std::size_t> owner;
    for (auto& sector : sectors_) {
        if (sector.owner || sector.ownCluster)
            owner = sector.owner;
        else
            sector.owner = owner;
    }
    owner.reset();
    for (auto sector = sectors_.rbegin(); sector != sectors_.rend(); ++sector) {
        if (sector->owner)
            owner = sector->owner;
        else if (!sector->ownCluster)
            sector->owner = owner;
    }
}

void LostHeaps::findMarkedRoots()
{
    for (const auto& sector : sectors_) {
        if (!sector.isRoot || !sector.owner)
            continue;
        auto& lost = heaps_[*sector.owner];
        if (!lost.rootSector && sector.offset >= lost.heap.offset)
            lost.rootSector = sector.offset;
    }
}

std::unique_ptr<Volume> LostHeaps::volumeAt(std::size_t index)
{
    auto lost = heaps_[index];
    auto& heap = lost.heap;
    std::vector<std::uint64_t> sectors;
    for (const auto& sector : sectors_)
        if (sector.owner == index && sector.offset + limits_.rootSpace >= heap.offset)
            sectors.push_back(sector.offset);
    if (lost.isKnown || sectors.empty() || sectors.back() < heap.offset)
        return nullptr;
    const std::uint64_t end = hints_.endBehind(sectors.back(), source_.size());
    heap.count = static_cast<std::uint32_t>(
        std::min((end - heap.offset) / heap.clusterSize, limits_.maxClusters));
    if (lost.rootSector && *lost.rootSector >= heap.offset && !heap.holds(*lost.rootSector))
        lost.rootSector.reset();
    return build(lost, sectors);
}

/// The sector at a byte of the source, when a directory may begin in it; none otherwise.
LostHeaps::Sector* LostHeaps::beginningAt(std::uint64_t offset)
{
    const auto found = std::ranges::lower_bound(sectors_, offset, {}, &Sector::offset);
    const bool isThere = found != sectors_.end() && found->offset == offset && found->mayBegin;
    return isThere ? &*found : nullptr;
}

std::unique_ptr<Volume> LostHeaps::emptyVolume(FileSystemType type, const ClusterHeap& heap)
{
    auto volume = std::make_unique<Volume>(type, "", heap.offset, heap.size(),
        FileNode::makeFolder("", EntryStatus::existing), "Dyb scanning, mappesektorer");
    volume->clusterSize = heap.clusterSize;
    return volume;
}

std::unique_ptr<Volume> LostHeaps::finished(
    std::unique_ptr<Volume> volume, std::string_view kind, std::size_t sectors, bool hasFAT)
{
    if (volume->root->children().empty())
        return nullptr;
    volume->root->sortChildren();
    volume->notes = { "Genopbygget ud fra " + std::to_string(sectors) + " " + std::string(kind)
        + "-mappesektorer fundet ved dyb scanning." };
    if (!hasFAT)
        volume->notes.emplace_back(
            "FAT-tabellen kunne ikke læses – filer antages at ligge sammenhængende.");
    return volume;
}
