#include "VintrelCore/FileSystems/ExFAT/Walker.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Model/Chance.h"
#include "VintrelCore/Model/FileData.h"
#include "VintrelCore/Model/FileNode.h"
#include "VintrelCore/Model/WorkProgress.h"

#include <algorithm>
#include <bit>
#include <span>
#include <string>

using namespace ExFATEntries;

namespace {

/// The format's own limit for a directory.
constexpr std::uint64_t maxDirectorySize = 0x10000000;

/// On a sound volume every cluster is claimed once.
constexpr std::uint64_t claimBudgetFactor = 4;

} // namespace

ExFATWalker::ExFATWalker(ExFATContext& context, WorkProgress* progress)
    : DirectoryWalker(context.source(), context.geometry().heap, context.entryCount(), progress)
    , cutSets(heap_)
    , context_(context)
    , claimBudget_(claimBudgetFactor * heap_.clustersWithin(source_.size()))
{
}

QueuedDirectory ExFATWalker::rootDirectory(FileNode* root) const
{
    return { .folder = root,
        .cluster = context_.geometry().rootCluster,
        .state = DirectoryState::live,
        .depth = 0 };
}

void ExFATWalker::walkRoot(FileNode& root)
{
    findBitmap();
    walk(rootDirectory(&root));
}

/// The bitmap's entry stands in the root directory, and the chances of what is listed before it
/// depend on it too.
void ExFATWalker::findBitmap()
{
    for (const auto& extent : extentsOf(rootDirectory(nullptr))) {
        for (std::uint64_t at = 0; at < extent.length; at += entrySize) {
            RawEntry entry {};
            source_.readReporting(*extent.offset + at, std::span(entry), ReadMode::thorough);
            if (entry[0] == endOfDirectory)
                return;
            const auto bitmap = std::bit_cast<BitmapEntry>(entry);
            if (bitmap.type == bitmapType && (bitmap.flags & 1) == context_.geometry().activeFAT)
                return context_.loadBitmap(bitmap.firstCluster, bitmap.size);
        }
    }
}

ClusterChain ExFATWalker::chain(std::uint32_t start, std::uint64_t maxClusters)
{
    return context_.chain(start, maxClusters);
}

void ExFATWalker::readDirectory(Scan& scan)
{
    const auto& directory = scan.directory;
    switch (directory.state) {
    case DirectoryState::live:
        readLive(scan);
        break;
    case DirectoryState::deleted:
        readRemains(scan, extentsOf(directory));
        break;
    case DirectoryState::fragment:
        readFragment(scan);
        break;
    }
    endEntries(scan);
}

void ExFATWalker::endEntries(Scan& scan)
{
    auto last = sets_.finish();
    if (!last)
        return;
    // The name may lie in a cluster that nobody has found; the content is known all the same.
    if (scan.directory.state == DirectoryState::fragment && last->file && last->name.empty())
        last->name = "Uden navn (klynge " + std::to_string(last->stream.firstCluster) + ")";
    addSet(scan, *last);
}

bool ExFATWalker::holdsEntries(ByteView sector) { return ExFATEntries::holdsEntries(sector); }

void ExFATWalker::readLive(Scan& scan)
{
    const auto& directory = scan.directory;
    const auto extents = extentsOf(directory);
    if (context_.fatUnavailable() && !directory.isContiguous)
        return readGuessed(scan, extents);
    claim(extents, claims.claimed);
    claim(extents, claims.directories);
    const auto end = readExtents(scan, extents);
    if (!end)
        return;
    // A lost sector reads as zeros, and a zero seems to end the directory.
    const auto rest = restBehind(directory, extents, *end);
    if (!rest.isBroken || rest.sectors.empty())
        return;
    ++directoriesWithGaps_;
    readRest(scan, rest);
}

/// Reads a live directory without a chain as far as its clusters hold entries.
void ExFATWalker::readGuessed(Scan& scan, const ExtentList& extents)
{
    for (const auto& extent : extents)
        for (std::uint64_t done = 0; done < extent.length; done += heap_.clusterSize) {
            const auto cluster = heap_.clusterAt(*extent.offset + done);
            const bool isFirst = cluster == scan.directory.cluster;
            if (!isFirst
                && !continuesDirectory(
                    source_.read(heap_.offsetOf(cluster), 2 * entrySize, ReadMode::thorough)))
                return;
            claims.directories.insert(cluster);
            if (!readCluster(scan, cluster))
                return;
        }
}

/// Reads a directory that no live one leads to: where the set that names it says that it lies, or
/// by what its clusters hold.
void ExFATWalker::readFragment(Scan& scan)
{
    const auto& directory = scan.directory;
    const auto extents = fragmentExtents(directory);
    if (!extents.empty())
        readRemains(scan, extents);
    else if (directory.isSurveyed || isStillIn(directory.cluster, directory))
        readByContent(scan);
    else
        directory.folder->addNote(overwrittenFolder);
}

/// Reads a directory that is not live as far as its clusters still hold it.
void ExFATWalker::readRemains(Scan& scan, const ExtentList& extents)
{
    const auto& directory = scan.directory;
    auto last = directory.cluster;
    for (const auto& extent : extents)
        for (std::uint64_t done = 0; done < extent.length; done += heap_.clusterSize) {
            const auto cluster = heap_.clusterAt(*extent.offset + done);
            if (!isStillIn(cluster, directory)) {
                if (cluster == directory.cluster)
                    directory.folder->addNote(overwrittenFolder);
                else if (directory.state == DirectoryState::deleted)
                    noteOpen(scan, last);
                return;
            }
            last = cluster;
            claims.directories.insert(cluster);
            if (!readCluster(scan, cluster))
                return;
        }
}

/// Whether one of its clusters still holds a directory that is not live. Where the directory above
/// is lost as well, the bitmap may never have been told.
bool ExFATWalker::isStillIn(std::uint32_t cluster, const QueuedDirectory& directory)
{
    const bool isTaken = directory.state == DirectoryState::fragment
        ? claims.contains(cluster)
        : !context_.bitmapUnavailable() && !context_.areFree(cluster, 1);
    if (isTaken)
        return false;
    const auto start = source_.read(heap_.offsetOf(cluster), 2 * entrySize, ReadMode::thorough);
    return cluster == directory.cluster ? beginsDirectory(start) : continuesDirectory(start);
}

/// Where a fragment's own entry has it; empty when it has none, or the chain is gone.
ExtentList ExFATWalker::fragmentExtents(const QueuedDirectory& directory)
{
    const std::uint64_t size
        = heap_.clustersFor(std::min(directory.size, maxDirectorySize)) * heap_.clusterSize;
    if (directory.depth == 0 && !context_.fatUnavailable()) {
        const auto found = limitedChain(directory.cluster, heap_.clustersFor(maxDirectorySize));
        return found.isComplete ? heap_.extents(found.clusters, maxDirectorySize) : ExtentList {};
    }
    if (size == 0)
        return {};
    if (directory.isContiguous)
        return { heap_.contiguous(directory.cluster, size) };
    return context_.fatUnavailable() ? ExtentList {} : standingChain(directory.cluster, size);
}

/// The set at the end of the cluster.
void ExFATWalker::resumeEntries(std::uint32_t cluster)
{
    const auto tail = tailOf(cluster);
    for (std::int64_t at = 0; const auto entry = ByteView(tail).load<RawEntry>(at); at += entrySize)
        sets_.take(*entry);
}

/// The last bytes of a cluster: as many as a set has at most.
Bytes ExFATWalker::tailOf(std::uint32_t cluster)
{
    const auto length = std::min<std::uint64_t>(heap_.clusterSize, maxFileSetSize);
    return source_.read(heap_.offsetOf(cluster) + heap_.clusterSize - length,
        static_cast<std::int64_t>(length), ReadMode::thorough);
}

/// The whole clusters in which a live or deleted directory lies.
ExtentList ExFATWalker::extentsOf(const QueuedDirectory& directory)
{
    const std::uint64_t size
        = directory.size != 0 ? std::min(directory.size, maxDirectorySize) : maxDirectorySize;
    const std::uint64_t wholeSize = heap_.clustersFor(size) * heap_.clusterSize;
    if (!heap_.contains(directory.cluster))
        return {};
    if (!directory.isContiguous && !context_.fatUnavailable()) {
        if (directory.state == DirectoryState::live)
            return heap_.extents(
                limitedChain(directory.cluster, heap_.clustersFor(size)).clusters, wholeSize);
        if (auto extents = standingChain(directory.cluster, wholeSize); !extents.empty())
            return extents;
    }
    return { heap_.contiguous(directory.cluster, wholeSize) };
}

std::optional<std::uint32_t> ExFATWalker::restOfEntries(std::uint32_t cluster)
{
    return cutSets.takeRest(sets_, cluster, claims);
}

bool ExFATWalker::holdsMoreEntries(std::uint32_t cluster)
{
    const auto bytes = source_.read(heap_.offsetOf(cluster), soundSetsSize, ReadMode::thorough);
    return !soundSets(bytes, 0).empty();
}

/// Adds clusters to a set of them.
void ExFATWalker::claim(const ExtentList& extents, ClusterBits& clusters)
{
    for (const auto& extent : extents) {
        const auto count = std::min(heap_.clustersFor(extent.length), claimBudget_);
        claimBudget_ -= count;
        const auto first = heap_.clusterAt(*extent.offset);
        for (std::uint64_t i = 0; i < count; ++i)
            clusters.insert(first + static_cast<std::uint32_t>(i));
    }
}

std::optional<std::int64_t> ExFATWalker::parse(Scan& scan, ByteView entries)
{
    for (std::int64_t at = 0; const auto entry = entries.load<RawEntry>(at); at += entrySize) {
        if ((*entry)[0] == endOfDirectory)
            return at;
        if (const auto set = sets_.take(*entry))
            addSet(scan, *set);
        if (scan.directory.depth == 0)
            addRootEntry(*entry);
    }
    return std::nullopt;
}

/// Takes note of the label, the bitmap and the up-case table, which only root directories have.
void ExFATWalker::addRootEntry(const RawEntry& entry)
{
    if (entry[0] == labelType && !label_) {
        const auto label = std::bit_cast<LabelEntry>(entry);
        label_ = ByteView(label.units).utf16le(0, label.length);
    } else if (entry[0] == bitmapType || entry[0] == upcaseType) {
        const auto own = std::bit_cast<BitmapEntry>(entry);
        if (heap_.contains(own.firstCluster))
            claim({ heap_.contiguous(own.firstCluster, own.size) }, claims.liveClusters);
    }
}
