#include "VintrelCore/ExFAT/Walker.h"

#include "VintrelCore/DiskSource.h"

#include <algorithm>
#include <bit>

using namespace ExFATEntries;

namespace {

/// The format's own limit for a directory.
constexpr std::uint64_t maxDirectorySize = 0x10000000;

} // namespace

ExFATWalker::ExFATWalker(ExFATContext& context, WorkProgress* progress)
    : context_(context)
    , heap_(context.geometry().heap)
    , progress_(progress)
    , walk_(context.source(), heap_, context.entryCount(), progress)
{
}

ExFATWalker::Pending ExFATWalker::rootDirectory(FileNode* root) const
{
    return { .folder = root,
        .cluster = context_.geometry().rootCluster,
        .size = 0,
        .isContiguous = false,
        .isDeleted = false,
        .depth = 0 };
}

void ExFATWalker::walkRoot(FileNode& root)
{
    findBitmap();
    queue_.add(rootDirectory(&root));
    while (!isCancelled(progress_)) {
        const auto next = queue_.take();
        if (!next)
            return;
        readDirectory(*next);
    }
}

/// The bitmap's entry stands in the root directory, and the chances of what is listed before it depend on it too.
void ExFATWalker::findBitmap()
{
    for (const auto& extent : extentsOf(rootDirectory(nullptr))) {
        for (std::uint64_t at = 0; at < extent.length; at += entrySize) {
            RawEntry entry {};
            context_.source().readReporting(*extent.offset + at, std::span(entry), ReadMode::thorough);
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
    directory.isDeleted ? readDeleted(scan) : readLive(scan);
    if (const auto last = scan.collector.finish())
        addSet(scan, *last);
    queue_.add(scan.subfolders, directory.isDeleted, [](const Pending& subfolder) { return subfolder.isDeleted; });
}

void ExFATWalker::readLive(Scan& scan)
{
    for (const auto& extent : extentsOf(scan.directory))
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
            const bool isReused = !context_.bitmapUnavailable() && !context_.areFree(heap_.clusterAt(offset), 1);
            if (isReused || !(isFirst ? beginsDirectory(start) : continuesDirectory(start))) {
                if (isFirst)
                    scan.directory.folder->addNote("Mappens indhold er overskrevet");
                return;
            }
            isFirst = false;
            if (!readRange(scan, offset, heap_.clusterSize))
                return;
        }
    }
}

/// The whole clusters in which a directory lies.
ExtentList ExFATWalker::extentsOf(const Pending& directory)
{
    const std::uint64_t size = directory.size != 0 ? std::min(directory.size, maxDirectorySize) : maxDirectorySize;
    const std::uint64_t wholeSize = heap_.clustersFor(size) * heap_.clusterSize;
    if (!heap_.contains(directory.cluster))
        return {};
    if (!directory.isContiguous && !context_.fatUnavailable()) {
        if (!directory.isDeleted)
            return heap_.extents(limitedChain(directory.cluster, heap_.clustersFor(size)).clusters, wholeSize);
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
    }
    return true;
}

void ExFATWalker::addSet(Scan& scan, const EntrySet& set)
{
    if (!set.isSound && !isPlausible(set))
        return;
    const bool isDeleted = set.isDeleted || scan.directory.isDeleted;
    const bool isFolder = set.file && set.file->isDirectory();
    const auto status = isDeleted ? EntryStatus::deleted : EntryStatus::existing;
    auto& node = scan.directory.folder->add(
        isFolder ? FileNode::makeFolder(set.name, status) : FileNode::makeFile(set.name, set.stream.size, status));
    node.fsID = set.stream.firstCluster;
    if (set.file) {
        node.created = TimeConversion::fromExFAT(set.file->created, set.file->createdOffset);
        node.modified = TimeConversion::fromExFAT(set.file->modified, set.file->modifiedOffset);
    }
    if (!set.isSound)
        node.addNote("Mappeposten er beskadiget");
    if (!isFolder)
        fillFileData(node, set);
    else if (set.stream.firstCluster != 0)
        scan.subfolders.push_back({ .folder = &node,
            .cluster = set.stream.firstCluster,
            .size = set.stream.size,
            .isContiguous = set.stream.isContiguous(),
            .isDeleted = isDeleted,
            .depth = scan.directory.depth + 1 });
}

void ExFATWalker::fillFileData(FileNode& node, const EntrySet& set)
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
        placeFile(node, set.stream);
    }
    if (!set.isSound)
        node.recoverability = std::min(node.recoverability, Recoverability::partial);
}

void ExFATWalker::placeFile(FileNode& node, const StreamEntry& stream)
{
    const bool isDeleted = node.status != EntryStatus::existing;
    const bool hasChain = !stream.isContiguous() && !context_.fatUnavailable();
    ExtentList extents;
    if (hasChain)
        extents = isDeleted
            ? standingChain(stream.firstCluster, node.size)
            : heap_.extents(limitedChain(stream.firstCluster, heap_.clustersFor(node.size)).clusters, node.size);
    const bool isCertain = stream.isContiguous() || !extents.empty() || heap_.clustersFor(node.size) == 1;
    // Without a chain most files lie in one piece.
    if (extents.empty() && (isDeleted || !hasChain))
        extents = { heap_.contiguous(stream.firstCluster, node.size) };

    std::uint64_t placed = 0;
    for (const auto& extent : extents)
        placed += extent.length;
    if (isDeleted) {
        estimateDeleted(node, extents, isCertain);
    } else {
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

void ExFATWalker::estimateDeleted(FileNode& node, const ExtentList& extents, bool isCertain)
{
    std::uint64_t placed = 0;
    std::uint64_t checked = 0;
    bool areFree = true;
    for (const auto& extent : extents) {
        const std::uint64_t count = std::min(heap_.clustersFor(extent.length), DirectoryWalk::maxFreeChecks - checked);
        areFree = areFree && context_.areFree(heap_.clusterAt(*extent.offset), count);
        checked += count;
        placed += extent.length;
    }
    if (context_.bitmapUnavailable() || (context_.fatUnavailable() && !isCertain)) {
        node.recoverability = Recoverability::unknown;
    } else if (!context_.areFree(heap_.clusterAt(*extents.front().offset), 1)) {
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

/// Where something deleted lay, when the FAT still holds all of its chain, with the end where the size wants it: the
/// FAT keeps it until somebody else writes there. Empty when it does not.
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
    return walk_.chain(maxClusters, [&](std::uint64_t limit) { return context_.chain(start, limit); });
}
