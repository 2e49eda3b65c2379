#include "VintrelCore/FileSystems/FAT/Walker.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Foundation/TimeConversion.h"
#include "VintrelCore/Foundation/Unicode/Unicode.h"
#include "VintrelCore/Model/FileData.h"
#include "VintrelCore/Model/FileNode.h"
#include "VintrelCore/Model/FileTypes.h"
#include "VintrelCore/Model/WorkProgress.h"

#include <algorithm>

using namespace FATEntries;

namespace {

/// Room for two million entries, more than any system lets a directory have.
constexpr std::uint64_t maxDirectorySize = 0x4000000;

/// The chain of a deleted directory is gone; this many of the clusters behind its first one are
/// worth a look.
constexpr int maxDeletedClusters = 16;

bool beginsDirectory(ByteView cluster)
{
    const auto entry = cluster.load<ShortEntry>(0);
    return entry && entry->name == dotName && (entry->attributes & directoryFlag) != 0;
}

} // namespace

FATWalker::FATWalker(FATContext& context, WorkProgress* progress)
    : liveClusters(std::uint64_t { context.geometry().heap.count } + 2)
    , context_(context)
    , geometry_(context.geometry())
    , heap_(context.geometry().heap)
    , progress_(progress)
    , walk_(context.source(), heap_, context.entryCount(), progress)
{
}

void FATWalker::walkRoot(FileNode& root)
{
    if (geometry_.type == FileSystemType::fat32) {
        queue_.add({ &root, geometry_.rootCluster, Origin::live, 0 });
    } else {
        Scan scan { .folder = root,
            .origin = Origin::live,
            .depth = 0,
            .isRoot = true,
            .pieces = {},
            .subfolders = {} };
        readRange(scan, geometry_.rootDirOffset, geometry_.rootDirSize);
        queueSubfolders(scan);
    }
    walkPending();
}

void FATWalker::walkFragment(std::uint32_t first, FileNode& folder, bool isRoot)
{
    Scan scan { .folder = folder,
        .origin = Origin::fragment,
        .depth = isRoot ? 0 : 1,
        .isRoot = isRoot,
        .pieces = {},
        .subfolders = {} };
    stillHasChain(first) ? readChain(scan, first) : readFragment(scan, first);
    queueSubfolders(scan);
    walkPending();
}

void FATWalker::walkLostRoot(std::uint64_t offset, std::uint64_t length, FileNode& root)
{
    Scan scan { .folder = root,
        .origin = Origin::fragment,
        .depth = 0,
        .isRoot = true,
        .pieces = {},
        .subfolders = {} };
    readRange(scan, offset, length);
    queueSubfolders(scan);
    walkPending();
}

void FATWalker::walkPending()
{
    while (!isCancelled(progress_)) {
        const auto next = queue_.take();
        if (!next)
            return;
        readDirectory(*next);
    }
}

void FATWalker::queueSubfolders(const Scan& scan)
{
    queue_.add(scan.subfolders, scan.origin != Origin::live,
        [](const Pending& subfolder) { return subfolder.origin != Origin::live; });
}

void FATWalker::readDirectory(const Pending& pending)
{
    if (!walk_.enter(pending.cluster, pending.depth))
        return;
    Scan scan { .folder = *pending.folder,
        .origin = pending.origin,
        .depth = pending.depth,
        .isRoot = pending.depth == 0,
        .pieces = {},
        .subfolders = {} };
    if (pending.origin == Origin::live
        || (pending.origin == Origin::fragment && stillHasChain(pending.cluster)))
        readChain(scan, pending.cluster);
    else if (pending.origin == Origin::fragment && beginsIn(pending.cluster))
        readFragment(scan, pending.cluster);
    else
        readDeleted(scan, pending.cluster);
    queueSubfolders(scan);
}

/// Whether a folder that only a fragment leads to was never deleted itself.
bool FATWalker::stillHasChain(std::uint32_t start)
{
    return !context_.fatUnavailable() && heap_.contains(start) && !liveClusters.contains(start)
        && beginsIn(start) && limitedChain(start, maxDirectoryClusters()).isComplete;
}

bool FATWalker::beginsIn(std::uint32_t cluster)
{
    return beginsDirectory(
        context_.source().read(heap_.offsetOf(cluster), entrySize, ReadMode::thorough));
}

std::uint64_t FATWalker::maxDirectoryClusters() const
{
    return std::max<std::uint64_t>(1, maxDirectorySize / heap_.clusterSize);
}

void FATWalker::readChain(Scan& scan, std::uint32_t start)
{
    const auto chain = limitedChain(start, maxDirectoryClusters());
    claimed.insert(chain.clusters.begin(), chain.clusters.end());
    for (const auto& extent :
        heap_.extents(chain.clusters, chain.clusters.size() * heap_.clusterSize))
        if (!readRange(scan, *extent.offset, extent.length))
            return;
}

void FATWalker::readDeleted(Scan& scan, std::uint32_t start)
{
    std::uint32_t cluster = start;
    for (int count = 0; count < maxDeletedClusters && heap_.contains(cluster); ++count, ++cluster) {
        const std::uint64_t offset = heap_.offsetOf(cluster);
        const bool begins
            = beginsDirectory(context_.source().read(offset, entrySize, ReadMode::thorough));
        if (count == 0 && !begins) {
            scan.folder.note = "Mappens indhold er overskrevet";
            return;
        }
        // What follows belongs to others when it is in use, or is another deleted directory.
        if (count > 0 && (begins || !context_.areFree(cluster, 1)))
            return;
        claimed.insert(cluster);
        if (!readRange(scan, offset, heap_.clusterSize))
            return;
    }
}

/// Follows a directory without a chain from cluster to cluster, by what it holds. No cluster is
/// taken twice.
void FATWalker::readFragment(Scan& scan, std::uint32_t start)
{
    for (std::optional<std::uint32_t> cluster = start; cluster;
         cluster = whereItGoesOn(scan, *cluster)) {
        claimed.insert(*cluster);
        walk_.visited.insert(*cluster);
        if (!readRange(scan, heap_.offsetOf(*cluster), heap_.clusterSize))
            return;
    }
}

std::optional<std::uint32_t> FATWalker::whereItGoesOn(const Scan& scan, std::uint32_t cluster)
{
    if (!scan.pieces.empty()
        && !scan.pieces.back().isDeleted()) { // the rest of the name says where
        const Head wanted { scan.pieces.back().sequence() - 1, scan.pieces.back().checksum,
            cluster };
        for (auto head = heads.lower_bound(wanted); head != heads.end()
             && head->sequence == wanted.sequence && head->checksum == wanted.checksum;) {
            const auto next = head->cluster;
            head = heads.erase(head); // claimed by somebody, or now
            if (canGoOnIn(next))
                return next;
        }
        return std::nullopt;
    }
    return looseEnds.next(
        cluster, scan.behindLast, [&](std::uint32_t next) { return canGoOnIn(next); });
}

bool FATWalker::canGoOnIn(std::uint32_t cluster)
{
    if (!heap_.contains(cluster) || claimed.contains(cluster) || liveClusters.contains(cluster))
        return false;
    const auto sector = context_.source().read(heap_.offsetOf(cluster), 512, ReadMode::thorough);
    return !beginsDirectory(sector) && goesOn(sector);
}

bool FATWalker::readRange(Scan& scan, std::uint64_t offset, std::uint64_t length)
{
    return walk_.read(offset, length, [&](ByteView bytes) { return parseEntries(scan, bytes); });
}

bool FATWalker::parseEntries(Scan& scan, ByteView bytes)
{
    for (std::int64_t at = 0; const auto entry = bytes.load<ShortEntry>(at); at += entrySize) {
        if (entry->name[0] == endOfDirectory)
            return false;
        const auto kind = entry->attributes & 0x3F;
        if (kind == longNameAttributes)
            addPiece(scan, *bytes.load<LongNamePiece>(at));
        else
            addEntry(scan, *entry);
    }
    return true;
}

void FATWalker::addPiece(Scan& scan, const LongNamePiece& piece)
{
    auto& pieces = scan.pieces;
    if (piece.isLast() || (!pieces.empty() && pieces.back().isDeleted() != piece.isDeleted()))
        pieces.clear();
    if (pieces.size() <= maxPieces) // one too many tells that there were too many
        pieces.push_back(piece);
}

void FATWalker::addEntry(Scan& scan, const ShortEntry& entry)
{
    const auto pieces = std::exchange(scan.pieces, {});
    const bool isMarkedDeleted = entry.name[0] == deletedMark;
    if ((entry.attributes & (volumeLabelFlag | directoryFlag)) == volumeLabelFlag) {
        if (scan.isRoot && !isMarkedDeleted && !label_)
            label_ = Unicode::trimmed(ByteView(entry.name).ascii(0, sizeof entry.name));
        return;
    }

    auto shown = formatShortName(entry.name, entry.caseFlags, isMarkedDeleted);
    if (shown == "." || shown == ".." || !isPlausible(entry.name, isMarkedDeleted))
        return;
    if (auto longName = assembleLongName(pieces, entry.name, isMarkedDeleted))
        shown = std::move(*longName);

    const bool isDeleted = isMarkedDeleted || scan.origin != Origin::live;
    const bool isFolder = (entry.attributes & directoryFlag) != 0;
    const std::uint32_t cluster = geometry_.type == FileSystemType::fat32
        ? firstCluster(entry)
        : std::uint32_t { entry.firstClusterLow };
    const auto status = isDeleted ? EntryStatus::deleted : EntryStatus::existing;
    auto& node
        = scan.folder.add(isFolder ? FileNode::makeFolder(std::move(shown), status)
                                   : FileNode::makeFile(std::move(shown), entry.size, status));
    node.modified = TimeConversion::fromDOS(entry.modificationDate, entry.modificationTime);
    node.created = TimeConversion::fromDOS(entry.creationDate, entry.creationTime);
    node.fsID = cluster;
    if (!isMarkedDeleted && cluster != 0)
        scan.behindLast = cluster + std::max<std::uint64_t>(1, heap_.clustersFor(node.size));
    if (!isFolder)
        fillFileData(node, cluster, scan.origin, isMarkedDeleted);
    else if (cluster != 0)
        scan.subfolders.push_back(
            { &node, cluster, isMarkedDeleted ? Origin::deleted : scan.origin, scan.depth + 1 });
}

void FATWalker::fillFileData(
    FileNode& node, std::uint32_t start, Origin origin, bool isMarkedDeleted)
{
    if (node.size == 0) {
        node.data = ExtentList {};
        node.recoverability = Recoverability::good;
    } else if (!heap_.contains(start)) {
        node.recoverability = Recoverability::poor;
        node.note = "Ugyldig startklynge";
    } else if (node.status == EntryStatus::existing) {
        const bool isWhole = fillFromChain(node, start);
        node.recoverability = isWhole ? Recoverability::good : Recoverability::partial;
        if (!isWhole)
            node.note = "Klyngekæden er afbrudt";
    } else {
        // The folder of a fragment may be lost while its files were never deleted: their chains
        // still stand in the FAT.
        if (origin == Origin::fragment && !isMarkedDeleted && !context_.fatUnavailable()
            && !liveClusters.contains(start) && fillFromChain(node, start)) {
            node.recoverability = Recoverability::good;
            return;
        }
        fillContiguous(node, start);
    }
}

/// Gives the node what its chain holds. True when that is all of it.
bool FATWalker::fillFromChain(FileNode& node, std::uint32_t start)
{
    const std::uint64_t needed = heap_.clustersFor(node.size);
    const auto chain = limitedChain(start, needed);
    node.data = heap_.extents(chain.clusters, node.size);
    if (node.status == EntryStatus::existing)
        for (const auto cluster : chain.clusters)
            liveClusters.insert(cluster);
    return chain.clusters.size() >= needed;
}

/// A deleted file's chain is gone. Most files lie in one piece, so this one is taken to.
void FATWalker::fillContiguous(FileNode& node, std::uint32_t start)
{
    const std::uint64_t needed = heap_.clustersFor(node.size);
    const std::uint64_t clusters = std::min<std::uint64_t>(heap_.clustersFrom(start), needed);
    node.data = ExtentList { { heap_.offsetOf(start),
        std::min(clusters * heap_.clusterSize, node.size) } };
    if (clusters == needed
        && context_.areFree(start, std::min(clusters, DirectoryWalk::maxFreeChecks))) {
        node.recoverability = Recoverability::good;
    } else if (!context_.areFree(start, 1)) {
        node.recoverability = Recoverability::poor;
        node.note = "Startklyngen er genbrugt af en anden fil";
    } else {
        node.recoverability = Recoverability::partial;
        node.note = "Dele af filen kan være overskrevet";
    }
}

ClusterChain FATWalker::limitedChain(std::uint32_t start, std::uint64_t maxClusters)
{
    return walk_.chain(
        maxClusters, [&](std::uint64_t limit) { return context_.chain(start, limit); });
}
