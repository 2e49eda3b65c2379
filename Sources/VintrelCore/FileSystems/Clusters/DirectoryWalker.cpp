#include "VintrelCore/FileSystems/Clusters/DirectoryWalker.h"

#include <algorithm>
#include <span>
#include <utility>

namespace {

/// Directories nest no deeper than this; the root is level 0.
constexpr int maxDepth = 63;

constexpr int reportInterval = 50; // directories

/// On a sound volume every cluster belongs to one chain. On a damaged one chains may share
/// clusters, but a volume whose chains together are so many times longer than its FAT is made up.
constexpr std::uint64_t chainBudgetFactor = 4;

constexpr std::uint64_t readPiece = 65'536; // whole entries

constexpr std::uint64_t sectorSize = 512; // damage is looked for in pieces of this size

} // namespace

DirectoryWalker::DirectoryWalker(DiskSource& source, const ClusterHeap& heap,
    std::uint64_t chainedClusters, const WorkProgress* progress)
    : claims(heap, source.size())
    , source_(source)
    , heap_(heap)
    , progress_(progress)
    , visited_(claims.claimed)
    , chainBudget_(chainBudgetFactor * chainedClusters)
    , directoryBudget_(source.size())
{
}

void DirectoryWalker::walkFragment(std::uint32_t first, FileNode& folder, bool isRoot)
{
    walk({ .folder = &folder,
        .cluster = first,
        .state = DirectoryState::fragment,
        .depth = isRoot ? 0 : 1,
        .isSurveyed = true });
}

void DirectoryWalker::walk(const QueuedDirectory& directory)
{
    queue_.add(directory);
    walkQueue();
}

void DirectoryWalker::walkFixedRoot(
    const QueuedDirectory& directory, std::uint64_t offset, std::uint64_t length)
{
    Scan scan { .directory = directory };
    if (const auto end = readRange(scan, offset, length))
        noteRest(directory, { { offset, length } }, *end);
    queue_.add(scan.subfolders, directory.state);
    walkQueue();
}

void DirectoryWalker::walkRest(const DirectoryRest& rest, FileNode& folder)
{
    const QueuedDirectory directory {
        .folder = &folder, .cluster = 0, .state = DirectoryState::fragment, .depth = rest.depth
    };
    Scan scan { .directory = directory };
    readRest(scan, rest);
    queue_.add(scan.subfolders, directory.state);
    walkQueue();
}

void DirectoryWalker::walkOn(const OpenDirectory& open)
{
    const QueuedDirectory directory { .folder = open.folder,
        .cluster = open.firstCluster,
        .state = DirectoryState::deleted,
        .depth = open.depth };
    Scan scan { .directory = directory };
    scan.endOfContent = open.endOfContent;
    resumeEntries(open.lastCluster);
    const auto next = [&](std::uint32_t cluster) {
        return isInsideEntries() ? restOfEntries(cluster)
                                 : deletedContinuations.next(cluster, scan.endOfContent,
                                     [&](std::uint32_t after) { return canContinueIn(after); });
    };
    auto last = open.lastCluster;
    bool hasEnd = false;
    while (!hasEnd) {
        const auto cluster = next(last);
        if (!cluster)
            break;
        claims.directories.insert(*cluster);
        visited_.insert(*cluster);
        hasEnd = !readCluster(scan, *cluster);
        last = *cluster;
    }
    endEntries(scan);
    if (hasEnd && open.folder->note == openFolder)
        open.folder->note.reset();
    open.folder->sortChildren();
    queue_.add(scan.subfolders, directory.state);
    walkQueue();
}

void DirectoryWalker::noteOpen(const Scan& scan, std::uint32_t lastCluster)
{
    const auto& directory = scan.directory;
    directory.folder->addNote(openFolder);
    claims.openDirectories.push_back({ .folder = directory.folder,
        .depth = directory.depth,
        .firstCluster = directory.cluster,
        .lastCluster = lastCluster,
        .endOfContent = scan.endOfContent });
}

void DirectoryWalker::walkQueue()
{
    while (!isCancelled(progress_)) {
        const auto directory = queue_.take();
        if (!directory)
            return;
        if (!enter(*directory))
            continue;
        Scan scan { .directory = *directory };
        readDirectory(scan);
        queue_.add(scan.subfolders, directory->state);
    }
}

/// Whether a directory is to be read. What was found by its content is, even where an entry has led
/// to it in vain.
bool DirectoryWalker::enter(const QueuedDirectory& directory)
{
    const auto cluster = directory.cluster;
    if (directory.depth > maxDepth || !heap_.contains(cluster)
        || (visited_.contains(cluster) && !directory.isSurveyed))
        return false;
    visited_.insert(cluster);
    if (++directoriesRead_ % reportInterval == 0)
        report(progress_, 0, "Læser mapper … (" + std::to_string(directoriesRead_) + ")");
    return true;
}

/// False when no more bytes of directories may be read.
bool DirectoryWalker::spend(std::uint64_t length)
{
    if (length > directoryBudget_)
        return false;
    directoryBudget_ -= length;
    return true;
}

std::optional<std::uint64_t> DirectoryWalker::readRange(
    Scan& scan, std::uint64_t offset, std::uint64_t length)
{
    while (length > 0) {
        buffer_.resize(static_cast<std::size_t>(std::min(length, readPiece)));
        if (!spend(buffer_.size()))
            return offset;
        unreadableBytes_ += source_.readReporting(offset, std::span(buffer_), ReadMode::thorough);
        if (const auto end = parse(scan, buffer_))
            return offset + static_cast<std::uint64_t>(*end);
        offset += buffer_.size();
        length -= buffer_.size();
    }
    return std::nullopt;
}

std::optional<std::uint64_t> DirectoryWalker::readExtents(Scan& scan, const ExtentList& extents)
{
    for (const auto& extent : extents)
        if (const auto end = readRange(scan, *extent.offset, extent.length))
            return end;
    return std::nullopt;
}

DirectoryRest DirectoryWalker::restBehind(
    const QueuedDirectory& directory, const ExtentList& extents, std::uint64_t end)
{
    DirectoryRest rest {
        .folder = directory.folder, .depth = directory.depth, .isBroken = false, .sectors = {}
    };
    bool isBehind = false;
    bool isGap = true;
    for (const auto& extent : extents) {
        std::uint64_t offset = *extent.offset;
        const std::uint64_t extentEnd = offset + extent.length;
        if (!isBehind && (end < offset || end >= extentEnd))
            continue;
        if (!std::exchange(isBehind, true)) {
            offset = end - (end - offset) % sectorSize;
            const auto sector = source_.read(offset, sectorSize, ReadMode::thorough);
            rest.isBroken = end == offset && ByteView(sector).isAllZero();
            offset += sectorSize;
        }
        for (; offset < extentEnd; offset += buffer_.size()) {
            buffer_.resize(static_cast<std::size_t>(std::min(extentEnd - offset, readPiece)));
            if (!spend(buffer_.size()))
                return rest;
            source_.readReporting(offset, std::span(buffer_), ReadMode::thorough);
            addSectors(rest, offset, isGap);
        }
    }
    return rest;
}

/// Adds those sectors of the buffer, which was read from `offset`, that hold entries. `isGap`:
/// whether the sector before the next one does not.
void DirectoryWalker::addSectors(DirectoryRest& rest, std::uint64_t offset, bool& isGap)
{
    for (std::uint64_t at = 0; at < buffer_.size(); at += sectorSize) {
        const auto sector = ByteView(buffer_).sub(static_cast<std::int64_t>(at), sectorSize);
        const bool isHolding = sector.u8(0) != 0 && holdsEntries(sector);
        if (isHolding)
            rest.sectors.push_back({ .offset = offset + at, .isBehindGap = isGap });
        isGap = !isHolding;
    }
}

void DirectoryWalker::noteRest(
    const QueuedDirectory& directory, const ExtentList& extents, std::uint64_t end)
{
    if (auto rest = restBehind(directory, extents, end); !rest.sectors.empty())
        claims.rests.push_back(std::move(rest));
}

/// Entries that are cut by a missing sector are not joined across it.
void DirectoryWalker::readRest(Scan& scan, const DirectoryRest& rest)
{
    for (const auto& [offset, isBehindGap] : rest.sectors) {
        if (isBehindGap)
            endEntries(scan);
        readRange(scan, offset, sectorSize);
    }
    endEntries(scan);
}

bool DirectoryWalker::readCluster(Scan& scan, std::uint32_t cluster)
{
    claims.claimed.insert(cluster);
    if (scan.directory.state
        == DirectoryState::fragment) // each of its clusters may pass for another
        visited_.insert(cluster);
    return !readRange(scan, heap_.offsetOf(cluster), heap_.clusterSize);
}

void DirectoryWalker::readByContent(Scan& scan)
{
    for (std::optional cluster = scan.directory.cluster; cluster;
         cluster = continuation(scan, *cluster)) {
        claims.directories.insert(*cluster);
        if (!readCluster(scan, *cluster))
            return;
    }
}

std::optional<std::uint32_t> DirectoryWalker::continuation(const Scan& scan, std::uint32_t cluster)
{
    if (isInsideEntries())
        return restOfEntries(cluster);
    return continuations.next(
        cluster, scan.endOfContent, [&](std::uint32_t next) { return canContinueIn(next); });
}

EntryStatus DirectoryWalker::statusIn(DirectoryState state) const
{
    switch (state) {
    case DirectoryState::live:
        return EntryStatus::existing;
    case DirectoryState::deleted:
        return EntryStatus::deleted;
    case DirectoryState::fragment:
        break;
    }
    return lostStatus;
}

bool DirectoryWalker::canContinueIn(std::uint32_t cluster)
{
    return heap_.contains(cluster) && !claims.contains(cluster) && holdsMoreEntries(cluster);
}

ClusterChain DirectoryWalker::limitedChain(std::uint32_t start, std::uint64_t maxClusters)
{
    auto found = chain(start, std::min(maxClusters, chainBudget_));
    chainBudget_ -= std::min<std::uint64_t>(chainBudget_, found.clusters.size());
    return found;
}
