#include "VintrelCore/FileSystems/ExFAT/Walker.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Foundation/TimeConversion.h"
#include "VintrelCore/Model/FileData.h"
#include "VintrelCore/Model/FileNode.h"
#include "VintrelCore/Model/WorkProgress.h"

#include <algorithm>
#include <bit>

using namespace ExFATEntries;

namespace {

/// The format's own limit for a directory.
constexpr std::uint64_t maxDirectorySize = 0x10000000;

/// Clusters that begin in the middle of a set are tried against one that breaks off, so many of
/// them.
constexpr int maxHeadsTried = 64;

/// A made-up volume may claim far more clusters.
std::uint64_t clustersOnSource(const ExFATContext& context)
{
    const auto& heap = context.geometry().heap;
    return std::min<std::uint64_t>(heap.count, context.source().size() / heap.clusterSize);
}

} // namespace

ExFATWalker::ExFATWalker(ExFATContext& context, WorkProgress* progress)
    : claimed(clustersOnSource(context) + 2)
    , liveClusters(clustersOnSource(context) + 2)
    , context_(context)
    , heap_(context.geometry().heap)
    , progress_(progress)
    , walk_(context.source(), heap_, context.entryCount(), progress)
    , claimBudget_(4 * clustersOnSource(context))
{
}

ExFATWalker::Pending ExFATWalker::rootDirectory(FileNode* root) const
{
    return { .folder = root,
        .cluster = context_.geometry().rootCluster,
        .size = 0,
        .isContiguous = false,
        .origin = Origin::live,
        .depth = 0 };
}

void ExFATWalker::walkRoot(FileNode& root)
{
    findBitmap();
    queue_.add(rootDirectory(&root));
    walkPending();
}

void ExFATWalker::walkFragment(std::uint32_t first, FileNode& folder, bool isRoot)
{
    queue_.add({ .folder = &folder,
        .cluster = first,
        .size = 0,
        .isContiguous = false,
        .origin = Origin::fragment,
        .depth = isRoot ? 0 : 1 });
    walkPending();
}

void ExFATWalker::walkPending()
{
    while (!isCancelled(progress_)) {
        const auto next = queue_.take();
        if (!next)
            return;
        readDirectory(*next);
    }
}

/// The bitmap's entry stands in the root directory, and the chances of what is listed before it
/// depend on it too.
void ExFATWalker::findBitmap()
{
    for (const auto& extent : extentsOf(rootDirectory(nullptr))) {
        for (std::uint64_t at = 0; at < extent.length; at += entrySize) {
            RawEntry entry {};
            context_.source().readReporting(
                *extent.offset + at, std::span(entry), ReadMode::thorough);
            if (entry[0] == endOfDirectory)
                return;
            const auto bitmap = std::bit_cast<BitmapEntry>(entry);
            if (bitmap.type == bitmapType && (bitmap.flags & 1) == context_.geometry().activeFAT)
                return context_.loadBitmap(bitmap.firstCluster, bitmap.size);
        }
    }
}

void ExFATWalker::readDirectory(const Pending& directory)
{
    if (!walk_.enter(directory.cluster, directory.depth))
        return;
    Scan scan { .directory = directory, .collector = {}, .subfolders = {} };
    switch (directory.origin) {
    case Origin::live:
        readLive(scan);
        break;
    case Origin::deleted:
        readDeleted(scan);
        break;
    case Origin::fragment:
        readFragment(scan);
        break;
    }
    if (const auto last = scan.collector.finish())
        addSet(scan, *last);
    queue_.add(scan.subfolders, directory.origin != Origin::live,
        [](const Pending& subfolder) { return subfolder.origin != Origin::live; });
}

void ExFATWalker::readLive(Scan& scan)
{
    const auto extents = extentsOf(scan.directory);
    claim(extents, claimed);
    for (const auto& extent : extents)
        if (!readRange(scan, *extent.offset, extent.length))
            return;
}

void ExFATWalker::readDeleted(Scan& scan)
{
    bool isFirst = true;
    for (const auto& extent : extentsOf(scan.directory)) {
        for (std::uint64_t done = 0; done < extent.length; done += heap_.clusterSize) {
            const std::uint64_t offset = *extent.offset + done;
            const auto start = context_.source().read(offset, 2 * entrySize, ReadMode::thorough);
            const bool isReused
                = !context_.bitmapUnavailable() && !context_.areFree(heap_.clusterAt(offset), 1);
            if (isReused || !(isFirst ? beginsDirectory(start) : continuesDirectory(start))) {
                if (isFirst)
                    scan.directory.folder->addNote("Mappens indhold er overskrevet");
                return;
            }
            isFirst = false;
            claimed.insert(heap_.clusterAt(offset));
            if (!readRange(scan, offset, heap_.clusterSize))
                return;
        }
    }
}

/// Reads a directory cluster by cluster: where its set says that it lies, or, without a chain, by
/// what the clusters hold.
void ExFATWalker::readFragment(Scan& scan)
{
    const auto& directory = scan.directory;
    const std::uint64_t length
        = heap_.clustersFor(std::min(directory.size, maxDirectorySize)) * heap_.clusterSize;
    ExtentList extents; // told by the set of the directory above
    if (directory.isContiguous)
        extents = { heap_.contiguous(directory.cluster, length) };
    else if (length != 0 && !context_.fatUnavailable())
        extents = standingChain(directory.cluster, length);
    auto extent = extents.begin();
    std::uint64_t done = 0; // of the extent
    bool isFirst = true;
    for (std::optional<std::uint32_t> cluster = directory.cluster; cluster; isFirst = false) {
        const std::uint64_t offset = heap_.offsetOf(*cluster);
        const bool isSeen = directory.size == 0; // by the caller, or by whereItGoesOn
        const auto start = context_.source().read(offset, 2 * entrySize, ReadMode::thorough);
        if (isTaken(*cluster)
            || (!isSeen && !(isFirst ? beginsDirectory(start) : continuesDirectory(start)))) {
            if (isFirst)
                directory.folder->addNote("Mappens indhold er overskrevet");
            return;
        }
        claimed.insert(*cluster);
        walk_.visited.insert(*cluster);
        if (!readRange(scan, offset, heap_.clusterSize))
            return;
        if (extents.empty()) {
            cluster = whereItGoesOn(scan, *cluster);
            continue;
        }
        done += heap_.clusterSize;
        if (done >= extent->length) {
            ++extent;
            done = 0;
        }
        if (extent == extents.end())
            return;
        cluster = heap_.clusterAt(*extent->offset + done);
    }
}

std::optional<std::uint32_t> ExFATWalker::whereItGoesOn(const Scan& scan, std::uint32_t cluster)
{
    if (scan.collector.isInside()) { // the checksum of the set says where
        int tried = 0;
        for (auto head = heads.upper_bound(cluster); head != heads.end() && tried < maxHeadsTried;
             ++tried) {
            const auto next = *head;
            if (isTaken(next)) {
                head = heads.erase(head);
            } else if (completes(scan.collector, next)) {
                heads.erase(head);
                return next;
            } else {
                ++head;
            }
        }
        return std::nullopt;
    }
    return looseEnds.next(cluster, scan.behindLast, [&](std::uint32_t next) {
        return heap_.contains(next) && !isTaken(next)
            && !soundSets(context_.source().read(
                              heap_.offsetOf(next), 512 + maxFileSetSize, ReadMode::thorough),
                0)
                    .empty();
    });
}

/// Whether the entries at the beginning of a cluster make a set sound that has begun elsewhere.
bool ExFATWalker::completes(SetCollector begun, std::uint32_t cluster)
{
    const auto bytes
        = context_.source().read(heap_.offsetOf(cluster), maxFileSetSize, ReadMode::thorough);
    for (std::int64_t at = 0; const auto entry = ByteView(bytes).load<RawEntry>(at);
         at += entrySize) {
        if (const auto set = begun.take(*entry))
            return set->isSound;
        if (!begun.isInside())
            return false;
    }
    return false;
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

/// The whole clusters in which a directory lies.
ExtentList ExFATWalker::extentsOf(const Pending& directory)
{
    const std::uint64_t size
        = directory.size != 0 ? std::min(directory.size, maxDirectorySize) : maxDirectorySize;
    const std::uint64_t wholeSize = heap_.clustersFor(size) * heap_.clusterSize;
    if (!heap_.contains(directory.cluster))
        return {};
    if (!directory.isContiguous && !context_.fatUnavailable()) {
        if (directory.origin == Origin::live)
            return heap_.extents(
                limitedChain(directory.cluster, heap_.clustersFor(size)).clusters, wholeSize);
        if (auto extents = standingChain(directory.cluster, wholeSize); !extents.empty())
            return extents;
    }
    return { heap_.contiguous(directory.cluster, wholeSize) };
}

bool ExFATWalker::readRange(Scan& scan, std::uint64_t offset, std::uint64_t length)
{
    return walk_.read(offset, length, [&](ByteView bytes) { return parseEntries(scan, bytes); });
}

bool ExFATWalker::parseEntries(Scan& scan, ByteView bytes)
{
    for (std::int64_t at = 0; const auto entry = bytes.load<RawEntry>(at); at += entrySize) {
        if ((*entry)[0] == endOfDirectory)
            return false;
        if (const auto set = scan.collector.take(*entry))
            addSet(scan, *set);
        if ((*entry)[0] == labelType && scan.directory.depth == 0 && !label_) {
            const auto label = std::bit_cast<LabelEntry>(*entry);
            label_ = ByteView(label.units).utf16le(0, label.length);
        }
        if (((*entry)[0] == bitmapType || (*entry)[0] == upcaseType) && scan.directory.depth == 0) {
            const auto own = std::bit_cast<BitmapEntry>(*entry);
            if (heap_.contains(own.firstCluster))
                claim({ heap_.contiguous(own.firstCluster, own.size) }, liveClusters);
        }
    }
    return true;
}

void ExFATWalker::addSet(Scan& scan, const EntrySet& set)
{
    if (!set.isSound && !isPlausible(set))
        return;
    const auto origin = set.isDeleted ? Origin::deleted : scan.directory.origin;
    const bool isDeleted = origin != Origin::live;
    const bool isFolder = set.file && set.file->isDirectory();
    const auto status = isDeleted ? EntryStatus::deleted : EntryStatus::existing;
    auto& node = scan.directory.folder->add(isFolder
            ? FileNode::makeFolder(set.name, status)
            : FileNode::makeFile(set.name, set.stream.size, status));
    node.fsID = set.stream.firstCluster;
    if (set.file) {
        node.created = TimeConversion::fromExFAT(set.file->created, set.file->createdOffset);
        node.modified = TimeConversion::fromExFAT(set.file->modified, set.file->modifiedOffset);
    }
    if (!set.isSound)
        node.addNote("Mappeposten er beskadiget");
    if (!set.isDeleted && set.stream.firstCluster != 0)
        scan.behindLast = set.stream.firstCluster + heap_.clustersFor(set.stream.size);
    if (!isFolder)
        fillFileData(node, set, origin == Origin::fragment);
    else if (set.stream.firstCluster != 0)
        scan.subfolders.push_back({ .folder = &node,
            .cluster = set.stream.firstCluster,
            .size = set.stream.size,
            .isContiguous = set.stream.isContiguous(),
            .origin = origin,
            .depth = scan.directory.depth + 1 });
}

/// `isLost`: by an entry that is in use, in a directory that nobody leads to.
void ExFATWalker::fillFileData(FileNode& node, const EntrySet& set, bool isLost)
{
    if (node.size == 0) {
        node.data = ExtentList {};
        node.recoverability = Recoverability::good;
    } else if (node.size > heap_.size()) {
        node.recoverability = Recoverability::poor;
        node.addNote("Filens størrelse er større end diskens");
    } else if (!heap_.contains(set.stream.firstCluster)) {
        node.recoverability = Recoverability::poor;
        node.addNote("Ugyldig startklynge");
    } else {
        placeFile(node, set.stream, isLost);
    }
    if (!set.isSound)
        node.recoverability = std::min(node.recoverability, Recoverability::partial);
}

void ExFATWalker::placeFile(FileNode& node, const StreamEntry& stream, bool isLost)
{
    const bool isDeleted = node.status != EntryStatus::existing;
    const bool hasChain = !stream.isContiguous() && !context_.fatUnavailable();
    ExtentList extents;
    if (hasChain)
        extents = isDeleted
            ? standingChain(stream.firstCluster, node.size)
            : heap_.extents(
                limitedChain(stream.firstCluster, heap_.clustersFor(node.size)).clusters,
                node.size);
    const bool isCertain
        = stream.isContiguous() || !extents.empty() || heap_.clustersFor(node.size) == 1;
    // Without a chain most files lie in one piece.
    if (extents.empty() && (isDeleted || !hasChain))
        extents = { heap_.contiguous(stream.firstCluster, node.size) };

    std::uint64_t placed = 0;
    for (const auto& extent : extents)
        placed += extent.length;
    if (isDeleted) {
        estimateDeleted(node, extents, isCertain, isLost);
    } else {
        claim(extents, liveClusters);
        node.recoverability = placed == node.size ? Recoverability::good : Recoverability::partial;
        if (placed < node.size)
            node.addNote("Klyngekæden er afbrudt");
    }

    // Beyond the size that was ever written the format promises zeros.
    std::uint64_t valid = std::min<std::uint64_t>(stream.validSize, node.size);
    const std::uint64_t promised = node.size - valid;
    for (auto& extent : extents) {
        extent.length = std::min(extent.length, valid);
        valid -= extent.length;
    }
    std::erase_if(extents, [](const Extent& extent) { return extent.length == 0; });
    if (promised > 0 && valid == 0)
        extents.push_back({ std::nullopt, promised });
    node.data = std::move(extents);
}

void ExFATWalker::estimateDeleted(
    FileNode& node, const ExtentList& extents, bool isCertain, bool isLost)
{
    std::uint64_t placed = 0;
    std::uint64_t checked = 0;
    bool areFree = true;
    for (const auto& extent : extents) {
        const std::uint64_t count
            = std::min(heap_.clustersFor(extent.length), DirectoryWalk::maxFreeChecks - checked);
        areFree = areFree && this->areFree(heap_.clusterAt(*extent.offset), count, isLost);
        checked += count;
        placed += extent.length;
    }
    if (context_.bitmapUnavailable() || (context_.fatUnavailable() && !isCertain)) {
        node.recoverability = Recoverability::unknown;
    } else if (!this->areFree(heap_.clusterAt(*extents.front().offset), 1, isLost)) {
        node.recoverability = Recoverability::poor;
        node.addNote("Startklyngen er genbrugt af en anden fil");
    } else if (!areFree || placed < node.size) {
        node.recoverability = Recoverability::partial;
        node.addNote("Dele af filen kan være overskrevet");
    } else if (!isCertain) {
        node.recoverability = Recoverability::partial;
        node.addNote("Klyngekæden er afbrudt");
    } else {
        node.recoverability = Recoverability::good;
    }
}

/// Whether clusters belong to nobody else. Those of a lost file may still be marked as used: by
/// itself.
bool ExFATWalker::areFree(std::uint32_t first, std::uint64_t count, bool isLost) const
{
    return isLost ? !liveClusters.containsAny(first, count) && !claimed.containsAny(first, count)
                  : context_.areFree(first, count);
}

/// Where something deleted lay, when the FAT still holds all of its chain, with the end where the
/// size wants it: the FAT keeps it until somebody else writes there. Empty when it does not.
ExtentList ExFATWalker::standingChain(std::uint32_t start, std::uint64_t size)
{
    const std::uint64_t needed = heap_.clustersFor(size);
    const auto chain = limitedChain(start, needed);
    const bool stands = !chain.clusters.empty() && chain.clusters.size() == needed
        && ExFATContext::isEndMark(context_.entry(chain.clusters.back()));
    return stands ? heap_.extents(chain.clusters, size) : ExtentList {};
}

ClusterChain ExFATWalker::limitedChain(std::uint32_t start, std::uint64_t maxClusters)
{
    return walk_.chain(
        maxClusters, [&](std::uint64_t limit) { return context_.chain(start, limit); });
}
