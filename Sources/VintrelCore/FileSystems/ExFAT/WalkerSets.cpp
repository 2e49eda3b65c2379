#include "VintrelCore/FileSystems/ExFAT/Walker.h"
#include "VintrelCore/Foundation/TimeConversion.h"
#include "VintrelCore/Model/Chance.h"
#include "VintrelCore/Model/FileData.h"
#include "VintrelCore/Model/FileNode.h"

#include <algorithm>
#include <chrono>
#include <utility>

// What a set of entries says: a file or folder, and where its content lies.

using namespace ExFATEntries;

namespace {

std::uint64_t lengthOf(const ExtentList& extents)
{
    std::uint64_t length = 0;
    for (const auto& extent : extents)
        length += extent.length;
    return length;
}

/// The content of a file of which only the first bytes were ever written: beyond these the format
/// promises zeros.
ExtentList writtenPart(ExtentList extents, std::uint64_t validSize, std::uint64_t size)
{
    std::uint64_t valid = std::min(validSize, size);
    const std::uint64_t promised = size - valid;
    for (auto& extent : extents) {
        extent.length = std::min(extent.length, valid);
        valid -= extent.length;
    }
    std::erase_if(extents, [](const Extent& extent) { return extent.length == 0; });
    if (promised > 0 && valid == 0)
        extents.push_back({ std::nullopt, promised });
    return extents;
}

/// When a file was written, at the earliest: systems that copy files give the new one the old date
/// of modification, but its own of creation.
std::optional<Date> writtenDate(const EntrySet& set)
{
    constexpr std::chrono::milliseconds tick { 10 };
    if (!set.file)
        return std::nullopt;
    auto created = TimeConversion::fromExFAT(set.file->created, set.file->createdOffset);
    auto modified = TimeConversion::fromExFAT(set.file->modified, set.file->modifiedOffset);
    if (created)
        *created += tick * set.file->createdTicks;
    if (modified)
        *modified += tick * set.file->modifiedTicks;
    return std::max(created, modified);
}

} // namespace

/// Whether content, of which the entry that says what it is is lost, is that of a directory.
bool ExFATWalker::hasDirectory(const StreamEntry& stream)
{
    if (stream.size == 0 || stream.size % heap_.clusterSize != 0
        || !heap_.contains(stream.firstCluster))
        return false;
    const auto start
        = source_.read(heap_.offsetOf(stream.firstCluster), soundSetsSize, ReadMode::thorough);
    return beginsDirectory(start) && !soundSets(start, 0).empty();
}

void ExFATWalker::addSet(Scan& scan, const EntrySet& set)
{
    if (!set.isSound && !isPlausible(set))
        return;
    const auto state = set.isDeleted ? DirectoryState::deleted : scan.directory.state;
    const bool isFolder = set.file ? set.file->isDirectory() : hasDirectory(set.stream);
    const auto status = statusIn(state);
    auto& node = scan.directory.folder->add(isFolder
            ? FileNode::makeFolder(set.name, status)
            : FileNode::makeFile(set.name, set.stream.size, status));
    node.fsID = set.stream.firstCluster;
    if (set.file) {
        node.created = TimeConversion::fromExFAT(set.file->created, set.file->createdOffset);
        node.modified = TimeConversion::fromExFAT(set.file->modified, set.file->modifiedOffset);
    }
    const bool isOfItsTime = !set.isDeleted || scan.directory.state == DirectoryState::deleted;
    if (isOfItsTime && set.stream.firstCluster != 0)
        scan.endOfContent = set.stream.firstCluster + heap_.clustersFor(set.stream.size);
    Doubts doubts = set.isSound ? Doubts() : Doubt::damagedDirectoryEntry;
    if (!isFolder) {
        const auto placed = placeFile(node, set.stream, state == DirectoryState::fragment);
        doubts.add(placed.doubts);
        if (status != EntryStatus::existing)
            claims.formerFiles.push_back({ .node = &node,
                .written = writtenDate(set),
                .isLost = state == DirectoryState::fragment,
                .isCertain = placed.isCertain });
        return judge(node, doubts);
    }
    if (const auto words = chanceOf(doubts).note)
        node.addNote(*words);
    if (set.stream.firstCluster != 0)
        scan.subfolders.push_back({ .folder = &node,
            .cluster = set.stream.firstCluster,
            .state = state,
            .depth = scan.directory.depth + 1,
            .size = set.stream.size,
            .isContiguous = set.stream.isContiguous() });
}

/// Gives a file the place of its content. What is to be doubted of it. `isLost`: by a set that is
/// in use, in a directory that no other one leads to.
ExFATWalker::Placed ExFATWalker::placeFile(FileNode& node, const StreamEntry& stream, bool isLost)
{
    if (node.size == 0) {
        node.data = ExtentList {};
        return {};
    }
    if (node.size > heap_.size())
        return { .doubts = Doubt::sizeBeyondVolume };
    if (!heap_.contains(stream.firstCluster))
        return { .doubts = Doubt::invalidStartCluster };

    const bool isLive = node.status == EntryStatus::existing;
    const bool hasChain = !stream.isContiguous() && !context_.fatUnavailable();
    auto extents
        = hasChain ? chainedExtents(stream.firstCluster, node.size, isLive) : ExtentList {};
    const bool isCertain
        = stream.isContiguous() || !extents.empty() || heap_.clustersFor(node.size) == 1;
    // Without a chain most files lie in one piece.
    if (extents.empty() && !(isLive && hasChain))
        extents = { heap_.contiguous(stream.firstCluster, node.size) };
    auto doubts = isLive ? doubtsOfLive(node.size, extents)
                         : doubtsOfDeleted(node.size, extents, isCertain, isLost);
    if (context_.fatUnavailable() && !isCertain)
        doubts.add(Doubt::guessedClusters);
    node.data = writtenPart(std::move(extents), stream.validSize, node.size);
    return { .doubts = doubts, .isCertain = isCertain };
}

/// Where the clusters of a file lie that has a chain. Of a deleted one only a whole chain counts.
ExtentList ExFATWalker::chainedExtents(std::uint32_t start, std::uint64_t size, bool isLive)
{
    if (!isLive)
        return standingChain(start, size);
    return heap_.extents(limitedChain(start, heap_.clustersFor(size)).clusters, size);
}

Doubts ExFATWalker::doubtsOfLive(std::uint64_t size, const ExtentList& extents)
{
    claim(extents, claims.liveClusters);
    return lengthOf(extents) < size ? Doubt::brokenChain : Doubts();
}

Doubts ExFATWalker::doubtsOfDeleted(
    std::uint64_t size, const ExtentList& extents, bool isCertain, bool isLost) const
{
    ClusterUse use;
    use.isFirstForeign = !areFree(heap_.clusterAt(*extents.front().offset), 1, isLost);
    // What lies behind the end of the volume cannot be the file's own either.
    use.foreign = lengthOf(extents) < size ? 1 : 0;
    for (const auto& extent : extents) {
        const std::uint64_t count
            = std::min(heap_.clustersFor(extent.length), maxFreeChecks - use.checked);
        use.foreign += areFree(heap_.clusterAt(*extent.offset), count, isLost) ? 0 : 1;
        use.checked += count;
    }
    auto doubts = doubtsOf(use, fatReuse);
    if (doubts.empty() && !isCertain && !context_.fatUnavailable())
        doubts = Doubt::brokenChain;
    if (context_.bitmapUnavailable() && !doubts.has(fatReuse.first))
        doubts.add(Doubt::unknownReuse);
    return doubts;
}

/// Whether clusters belong to nobody else, as far as is known by now. Those of a lost file may
/// still be marked as used: by itself.
bool ExFATWalker::areFree(std::uint32_t first, std::uint64_t count, bool isLost) const
{
    return isLost ? !claims.containsAny(first, count) : context_.areFree(first, count);
}

/// Where something deleted lay, when the FAT still holds all of its chain, with the end where the
/// size wants it: the FAT keeps it until somebody else writes there. Empty when it does not.
ExtentList ExFATWalker::standingChain(std::uint32_t start, std::uint64_t size)
{
    const std::uint64_t needed = heap_.clustersFor(size);
    const auto clusters = limitedChain(start, needed).clusters;
    const bool stands = !clusters.empty() && clusters.size() == needed
        && ExFATContext::isEndMark(context_.entry(clusters.back()));
    return stands ? heap_.extents(clusters, size) : ExtentList {};
}
