#include "VintrelCore/FileSystems/FAT/Walker.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Foundation/TimeConversion.h"
#include "VintrelCore/Foundation/Unicode/Unicode.h"
#include "VintrelCore/Model/Chance.h"
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

/// Of numbers on FAT32, which are stored in two halves, the worth of the upper one.
constexpr std::uint32_t upperHalf = 0x10000;

bool beginsDirectory(ByteView cluster)
{
    const auto entry = cluster.load<ShortEntry>(0);
    return entry && entry->name == dotName && (entry->attributes & directoryFlag) != 0;
}

} // namespace

FATWalker::FATWalker(FATContext& context, WorkProgress* progress)
    : DirectoryWalker(context.source(), context.geometry().heap, context.entryCount(), progress)
    , context_(context)
    , geometry_(context.geometry())
{
}

void FATWalker::walkRoot(FileNode& root)
{
    isLevelFixed_ = true;
    const QueuedDirectory directory {
        .folder = &root, .cluster = geometry_.rootCluster, .state = DirectoryState::live, .depth = 0
    };
    if (geometry_.type == FileSystemType::fat32)
        walk(directory);
    else
        walkFixedRoot(directory, geometry_.rootDirOffset, geometry_.rootDirSize);
}

void FATWalker::walkLostRoot(std::uint64_t offset, std::uint64_t length, FileNode& root)
{
    walkFixedRoot({ .folder = &root, .cluster = 0, .state = DirectoryState::fragment, .depth = 0 },
        offset, length);
}

void FATWalker::readDirectory(Scan& scan)
{
    const auto& directory = scan.directory;
    const bool isFragment = directory.state == DirectoryState::fragment;
    pieces_.clear();
    if (directory.state == DirectoryState::live || (isFragment && hasChain(directory)))
        readChain(scan);
    else if (isFragment && (directory.isSurveyed || beginsIn(directory.cluster)))
        readByContent(scan);
    else
        readDeleted(scan);
}

/// Whether a directory that no live one leads to was never deleted itself.
bool FATWalker::hasChain(const QueuedDirectory& directory)
{
    const auto start = directory.cluster;
    const bool isRoot = directory.depth == 0; // says nothing at its beginning
    return !context_.fatUnavailable() && !claims.liveClusters.contains(start)
        && (isRoot || beginsIn(start)) && limitedChain(start, maxDirectoryClusters()).isComplete;
}

bool FATWalker::beginsIn(std::uint32_t cluster)
{
    return beginsDirectory(source_.read(heap_.offsetOf(cluster), entrySize, ReadMode::thorough));
}

std::uint64_t FATWalker::maxDirectoryClusters() const
{
    return std::max<std::uint64_t>(1, maxDirectorySize / heap_.clusterSize);
}

ClusterChain FATWalker::chain(std::uint32_t start, std::uint64_t maxClusters)
{
    return context_.chain(start, maxClusters);
}

void FATWalker::readChain(Scan& scan)
{
    const auto found = limitedChain(scan.directory.cluster, maxDirectoryClusters());
    for (const auto cluster : found.clusters) {
        claims.claimed.insert(cluster);
        claims.directories.insert(cluster);
    }
    const auto extents = heap_.extents(found.clusters, found.clusters.size() * heap_.clusterSize);
    const auto end = readExtents(scan, extents);
    if (end && !context_.fatUnavailable()) // where it is, the rest may be anybody's
        noteRest(scan.directory, extents, *end);
}

void FATWalker::readDeleted(Scan& scan)
{
    std::uint32_t cluster = scan.directory.cluster;
    for (int count = 0; count < maxDeletedClusters && heap_.contains(cluster); ++count, ++cluster) {
        const bool begins = beginsIn(cluster);
        if (count == 0 && !begins) {
            scan.directory.folder->addNote(overwrittenFolder);
            if (mayLackUpperHalf(cluster))
                claims.misplaced.push_back(scan.directory);
            return;
        }
        // What follows belongs to others when it is in use, is another deleted directory, or holds
        // anything else than entries: a file's content reads as files of any name and size.
        if (count > 0 && (!context_.areFree(cluster, 1) || !holdsMoreEntries(cluster)))
            break;
        claims.directories.insert(cluster);
        if (!readCluster(scan, cluster))
            return;
    }
    noteOpen(scan, cluster - 1);
}

/// Whether a number in a deleted entry may be the lower half of a larger one.
bool FATWalker::mayLackUpperHalf(std::uint32_t cluster) const
{
    return geometry_.type == FileSystemType::fat32 && cluster < upperHalf
        && heap_.count > upperHalf;
}

void FATWalker::walkMisplaced()
{
    while (!claims.misplaced.empty())
        for (auto& directory : std::exchange(claims.misplaced, {})) {
            const auto place = truePlaceOf(directory);
            if (!place)
                continue;
            if (directory.folder->note == overwrittenFolder)
                directory.folder->note.reset();
            directory.cluster = *place;
            walk(directory);
            directory.folder->sortChildren();
        }
}

/// The one place that a larger number names where the directory may lie; none where there are more.
std::optional<std::uint32_t> FATWalker::truePlaceOf(const QueuedDirectory& directory)
{
    std::optional<std::uint32_t> place;
    for (std::uint64_t cluster = std::uint64_t { directory.cluster } + upperHalf;
         cluster < std::uint64_t { heap_.count } + 2 && placeBudget_ > 0; cluster += upperHalf) {
        --placeBudget_;
        if (!isDeletedDirectoryAt(static_cast<std::uint32_t>(cluster), directory.parent))
            continue;
        if (place)
            return std::nullopt;
        place = static_cast<std::uint32_t>(cluster);
    }
    return place;
}

bool FATWalker::isDeletedDirectoryAt(std::uint32_t cluster, std::uint32_t parent)
{
    if (claims.contains(cluster) || !context_.areFree(cluster, 1))
        return false;
    const auto head = source_.read(heap_.offsetOf(cluster), 2 * entrySize, ReadMode::thorough);
    const auto own = ownCluster(head);
    return own && geometry_.clusterNumber(*own) == cluster
        && geometry_.clusterNumber(firstCluster(*ByteView(head).load<ShortEntry>(entrySize)))
        == parent;
}

/// The pieces of a name at the end of the cluster.
void FATWalker::resumeEntries(std::uint32_t cluster)
{
    constexpr std::uint64_t maxSize = maxPieces * entrySize;
    const auto size = std::min(heap_.clusterSize, maxSize);
    const auto tail = source_.read(heap_.offsetOf(cluster) + heap_.clusterSize - size,
        static_cast<std::int64_t>(size), ReadMode::thorough);
    pieces_.clear();
    for (std::int64_t at = 0; const auto entry = ByteView(tail).load<ShortEntry>(at);
         at += entrySize)
        if ((entry->attributes & 0x3F) == longNameAttributes)
            addPiece(*ByteView(tail).load<LongNamePiece>(at));
        else
            pieces_.clear();
}

bool FATWalker::isInsideEntries() const { return !pieces_.empty() && !pieces_.back().isDeleted(); }

std::optional<std::uint32_t> FATWalker::restOfEntries(std::uint32_t cluster)
{
    const auto& last = pieces_.back();
    const NameRest wanted { last.sequence() - 1, last.checksum, cluster };
    for (auto rest = nameRests.lower_bound(wanted); rest != nameRests.end()
         && rest->sequence == wanted.sequence && rest->checksum == wanted.checksum;) {
        const auto next = rest->cluster;
        rest = nameRests.erase(rest); // whoever it belongs to has it by now, or gets it
        if (canContinueIn(next))
            return next;
    }
    return std::nullopt;
}

bool FATWalker::holdsMoreEntries(std::uint32_t cluster)
{
    const auto sector
        = source_.read(heap_.offsetOf(cluster), directorySectorSize, ReadMode::thorough);
    return !beginsDirectory(sector) && holdsEntries(sector);
}

bool FATWalker::holdsEntries(ByteView sector)
{
    return continuesDirectory(sector) || holdsNamePieces(sector);
}

void FATWalker::endEntries(Scan& /*scan*/) { pieces_.clear(); }

std::optional<std::int64_t> FATWalker::parse(Scan& scan, ByteView entries)
{
    for (std::int64_t at = 0; const auto entry = entries.load<ShortEntry>(at); at += entrySize) {
        if (entry->name[0] == endOfDirectory)
            return at;
        const auto kind = entry->attributes & 0x3F;
        if (kind == longNameAttributes)
            addPiece(*entries.load<LongNamePiece>(at));
        else
            addEntry(scan, *entry);
    }
    return std::nullopt;
}

void FATWalker::addPiece(const LongNamePiece& piece)
{
    const auto begins = [&] {
        const auto& previous = pieces_.back();
        return previous.isDeleted() != piece.isDeleted() && previous.checksum != piece.checksum;
    };
    // One row with mixed marks is no name, but what is left of another row is not part of this one.
    if (piece.isLast() || (!pieces_.empty() && begins()))
        pieces_.clear();
    if (pieces_.size() <= maxPieces) // one too many tells that there were too many
        pieces_.push_back(piece);
}

void FATWalker::addEntry(Scan& scan, const ShortEntry& entry)
{
    const auto pieces = std::exchange(pieces_, {});
    const auto& directory = scan.directory;
    const bool isMarkedDeleted = entry.name[0] == deletedMark;
    if ((entry.attributes & (volumeLabelFlag | directoryFlag)) == volumeLabelFlag)
        return takeLabel(scan, entry);

    auto shown = formatShortName(entry.name, entry.caseFlags, isMarkedDeleted);
    if (shown == "." || shown == ".." || !isPlausible(entry.name, isMarkedDeleted))
        return;
    if (auto longName = assembleLongName(pieces, entry.name, isMarkedDeleted))
        shown = std::move(*longName);

    const auto state = isMarkedDeleted ? DirectoryState::deleted : directory.state;
    const auto status = statusIn(state);
    const bool isFolder = (entry.attributes & directoryFlag) != 0;
    const std::uint32_t cluster = geometry_.clusterNumber(firstCluster(entry));
    auto& node = directory.folder->add(isFolder
            ? FileNode::makeFolder(std::move(shown), status)
            : FileNode::makeFile(std::move(shown), entry.size, status));
    node.modified = TimeConversion::fromDOS(entry.modificationDate, entry.modificationTime);
    node.created = TimeConversion::fromDOS(entry.creationDate, entry.creationTime);
    node.fsID = cluster;
    const bool isOfItsTime = !isMarkedDeleted || directory.state == DirectoryState::deleted;
    if (isOfItsTime && cluster != 0)
        scan.endOfContent = cluster + std::max<std::uint64_t>(1, heap_.clustersFor(node.size));
    if (!isFolder)
        judgeFile(node, cluster, state, isMarkedDeleted);
    else if (cluster != 0 || (isMarkedDeleted && mayLackUpperHalf(cluster)))
        addSubfolder(scan, node, cluster, state);
}

void FATWalker::addSubfolder(
    Scan& scan, FileNode& folder, std::uint32_t cluster, DirectoryState state)
{
    const auto& directory = scan.directory;
    const QueuedDirectory subfolder { .folder = &folder,
        .cluster = cluster,
        .state = state,
        .depth = directory.depth + 1,
        .parent = directory.depth == 0 ? 0 : directory.cluster };
    if (cluster != 0)
        scan.subfolders.push_back(subfolder);
    else
        claims.misplaced.push_back(subfolder);
}

void FATWalker::takeLabel(const Scan& scan, const ShortEntry& entry)
{
    const bool isRoot = scan.directory.depth == 0;
    if (isRoot && entry.name[0] != deletedMark && !label_)
        label_ = Unicode::trimmed(ByteView(entry.name).ascii(0, sizeof entry.name));
}

/// Gives a file its place and its chance. That of a former file is judged again when all
/// directories have been read.
void FATWalker::judgeFile(
    FileNode& node, std::uint32_t start, DirectoryState state, bool isMarkedDeleted)
{
    const auto placed = placeFile(node, start, state);
    judge(node, placed.doubts);
    if (node.size == 0 || !heap_.contains(start))
        return;
    const bool isOneCluster = node.size <= heap_.clusterSize;
    if (isMarkedDeleted && mayLackUpperHalf(start))
        noteDoubts(node, Doubt::halfStartCluster);
    if (context_.fatUnavailable() && !isOneCluster) {
        if (isLevelFixed_)
            noteDoubts(node, Doubt::guessedClusters);
        else
            judgeFurther(node, Doubt::guessedClusters);
    }
    if (node.status != EntryStatus::existing)
        claims.formerFiles.push_back({ .node = &node,
            .written = std::max(node.created, node.modified),
            .isLost = state == DirectoryState::fragment && !isMarkedDeleted,
            .isCertain = placed.hasChain || isOneCluster,
            .isLevelFixed = isLevelFixed_ });
}

/// Gives a file the place of its content. What is to be doubted of it.
FATWalker::Placed FATWalker::placeFile(FileNode& node, std::uint32_t start, DirectoryState state)
{
    if (node.size == 0) {
        node.data = ExtentList {};
        return {};
    }
    if (!heap_.contains(start))
        return { .doubts = Doubt::invalidStartCluster };
    if (node.status == EntryStatus::existing)
        return { .doubts = fillFromChain(node, start) ? Doubts() : Doubt::brokenChain };
    // The folder of a fragment may be lost while its files were never deleted: their chains still
    // stand in the FAT.
    const bool mayHaveChain = state == DirectoryState::fragment && !context_.fatUnavailable()
        && !claims.contains(start);
    if (mayHaveChain && fillFromChain(node, start))
        return { .doubts = {}, .hasChain = true };
    return { .doubts = fillContiguous(node, start) };
}

/// Gives the node what its chain holds. True when that is all of it.
bool FATWalker::fillFromChain(FileNode& node, std::uint32_t start)
{
    const std::uint64_t needed = heap_.clustersFor(node.size);
    const auto found = limitedChain(start, needed);
    node.data = heap_.extents(found.clusters, node.size);
    if (node.status == EntryStatus::existing)
        for (const auto cluster : found.clusters)
            claims.liveClusters.insert(cluster);
    return found.clusters.size() >= needed;
}

/// A deleted file's chain is gone. Most files lie in one piece, so this one is taken to.
Doubts FATWalker::fillContiguous(FileNode& node, std::uint32_t start)
{
    const auto extent = heap_.contiguous(start, node.size);
    const bool canBeWhole = node.size <= heap_.size();
    if (canBeWhole)
        node.data = ExtentList { extent };
    else if (isLevelFixed_)
        noteDoubts(node, Doubt::sizeBeyondVolume);
    else
        return Doubt::sizeBeyondVolume;
    ClusterUse use;
    use.checked = std::min(heap_.clustersFor(extent.length), maxFreeChecks);
    use.isFirstForeign = !context_.areFree(start, 1);
    // What lies behind the end of the volume cannot be the file's own either.
    const bool isCut = extent.length < node.size;
    use.foreign = isCut || !context_.areFree(start, use.checked) ? 1 : 0;
    return doubtsOf(use, fatReuse);
}
