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
    readRange(scan, offset, length);
    queue_.add(scan.subfolders, directory.state);
    walkQueue();
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

bool DirectoryWalker::readRange(Scan& scan, std::uint64_t offset, std::uint64_t length)
{
    while (length > 0) {
        buffer_.resize(static_cast<std::size_t>(std::min(length, readPiece)));
        if (buffer_.size() > directoryBudget_)
            return false;
        directoryBudget_ -= buffer_.size();
        unreadableBytes_ += source_.readReporting(offset, std::span(buffer_), ReadMode::thorough);
        if (!parse(scan, buffer_))
            return false;
        offset += buffer_.size();
        length -= buffer_.size();
    }
    return true;
}

void DirectoryWalker::readExtents(Scan& scan, const ExtentList& extents)
{
    for (const auto& extent : extents)
        if (!readRange(scan, *extent.offset, extent.length))
            return;
}

bool DirectoryWalker::readCluster(Scan& scan, std::uint32_t cluster)
{
    claims.claimed.insert(cluster);
    if (scan.directory.state
        == DirectoryState::fragment) // each of its clusters may pass for another
        visited_.insert(cluster);
    return readRange(scan, heap_.offsetOf(cluster), heap_.clusterSize);
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
