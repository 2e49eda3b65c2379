#include "VintrelCore/FileSystems/HFSPlus/Context.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Foundation/Unicode/Unicode.h"
#include "VintrelCore/Model/FileNode.h"
#include "VintrelCore/Model/FileTypes.h"
#include "VintrelCore/Model/Volume.h"
#include "VintrelCore/Model/WorkProgress.h"

#include <algorithm>

using namespace HFSPlusFormat;

namespace {

/// What the metadata files may take of memory.
constexpr std::uint64_t maxExtentsFile = 268'435'456;
constexpr std::uint64_t maxAllocationFile = 536'870'912;
constexpr std::uint64_t maxCatalogFile = 1'073'741'824;

} // namespace

HFSContext::HFSContext(DiskSource& source, std::uint64_t base, const VolumeHeader& header)
    : source_(source)
    , base_(base)
    , header_(header)
    , blockSize_(header.start.blockSize)
{
}

std::unique_ptr<Volume> HFSContext::build(const std::string& origin, WorkProgress* progress)
{
    if (progress != nullptr)
        progress->report(0, "Læser HFS+-katalog …");
    loadOverflow();
    allocation_ = readFork(header_.allocationFile, allocationFileID, maxAllocationFile);
    if (isDamaged(allRuns(header_.allocationFile, allocationFileID), 0, allocation_.size())
        && ByteView(allocation_).isAllZero())
        allocation_.clear(); // nothing of it was readable
    loadCatalog();
    if (entries_.empty())
        return nullptr;

    const auto root = entries_.find(rootFolderID);
    auto volume = std::make_unique<Volume>(FileSystemType::hfsplus,
        root != entries_.end() ? nameOf(root->second) : std::string(), base_,
        header_.start.totalBlocks * blockSize_, FileNode::makeFolder("", EntryStatus::existing),
        origin);
    volume->root->fsID = rootFolderID;
    if (header_.start.signature == signatureHFSX)
        volume->notes.emplace_back("HFSX (versalfølsom)");
    if (allocation_.empty())
        volume->notes.emplace_back("Allokeringsfilen kunne ikke læses.");
    indexHardLinks();
    linkTree(*volume->root);
    volume->root->sortChildren();
    return volume;
}

void HFSContext::loadOverflow()
{
    auto tree = HFSPlusTree::open(readFork(header_.extentsFile, extentsFileID, maxExtentsFile));
    if (!tree)
        return;
    const auto runs = inlineRuns(header_.extentsFile);
    tree->forEachLeafRecord(
        [&](std::uint64_t offset, std::uint64_t length) { return isDamaged(runs, offset, length); },
        [this](ByteView record, bool isLive) {
            const auto key = record.load<OverflowKey>(0);
            if (!isLive || !key || key->key.length != overflowKeyLength
                || key->forkType != dataForkType)
                return;
            OverflowRuns found { .start = key->startBlock, .runs = {} };
            for (std::int64_t at = sizeof(OverflowKey), i = 0; i < 8;
                 ++i, at += sizeof(ExtentDescriptor))
                if (const auto extent = record.load<ExtentDescriptor>(at);
                    extent && extent->blockCount != 0)
                    found.runs.push_back({ extent->startBlock, extent->blockCount });
            overflow_[key->fileID].push_back(std::move(found));
        });
    for (auto& [id, records] : overflow_)
        std::ranges::stable_sort(records, {}, &OverflowRuns::start);
}

void HFSContext::loadCatalog()
{
    catalog_ = HFSPlusTree::open(readFork(header_.catalogFile, catalogFileID, maxCatalogFile));
    if (!catalog_)
        return;
    const auto runs = allRuns(header_.catalogFile, catalogFileID);
    catalog_->forEachLeafRecord(
        [&](std::uint64_t offset, std::uint64_t length) { return isDamaged(runs, offset, length); },
        [this](ByteView record, bool isLive) { addToCatalog(record, isLive); });
}

void HFSContext::addToCatalog(ByteView record, bool isLive)
{
    const auto key = record.load<CatalogKey>(0);
    if (!key || key->key.length < minCatalogKeyLength || key->nameLength > maxNameLength
        || key->key.length < 2u * key->nameLength + minCatalogKeyLength)
        return;
    const auto data = dataOf(record);
    const auto type = data.u16be(offsetof(CatalogItem, type));
    if ((type != folderType && type != fileType)
        || (type == fileType && data.size() < sizeof(CatalogFile)))
        return;
    const auto id = data.u32be(offsetof(CatalogItem, id));
    if (id < rootFolderID)
        return;

    const CatalogEntry found { .parent = key->parentID,
        .modified = data.u32be(offsetof(CatalogItem, modified)),
        .at = static_cast<std::uint32_t>(record.data() - catalog_->bytes().data()),
        .length = static_cast<std::uint16_t>(record.size()),
        .isLive = isLive,
        .isFolder = type == folderType,
        .node = nullptr };
    const auto [known, isNew] = entries_.emplace(id, found);
    if (isNew)
        return;
    const bool isBetter
        = isLive != known->second.isLive ? isLive : found.modified > known->second.modified;
    if (isBetter)
        known->second = found;
}

Bytes HFSContext::readFork(const ForkData& fork, std::uint32_t fileID, std::uint64_t cap) const
{
    // The claimed size is held to what the extents have room for, and that to what the source
    // holds, before memory is asked for.
    const auto runs = allRuns(fork, fileID);
    std::uint64_t room = 0;
    for (const auto& run : runs) {
        if (room >= cap)
            break;
        room += run.count * blockSize_;
    }
    Bytes bytes(static_cast<std::size_t>(
        std::min<std::uint64_t>({ cap, fork.logicalSize, room, source_.size() })));
    std::span<std::uint8_t> rest(bytes);
    for (const auto& run : runs) {
        const auto piece = rest.first(
            static_cast<std::size_t>(std::min<std::uint64_t>(rest.size(), run.count * blockSize_)));
        if (const auto offset = offsetOf(run.start))
            source_.readReporting(*offset, piece, ReadMode::thorough);
        rest = rest.subspan(piece.size());
    }
    return bytes;
}

/// Whether some of a range of a file that was read is known to be unreadable.
bool HFSContext::isDamaged(const Runs& runs, std::uint64_t offset, std::uint64_t length) const
{
    for (const auto& run : runs) {
        const std::uint64_t runLength = run.count * blockSize_;
        if (offset < runLength && length > 0) {
            const std::uint64_t count = std::min(length, runLength - offset);
            if (const auto start = offsetOf(run.start);
                start && source_.hasBadSectors(*start + offset, count))
                return true;
            length -= count;
            offset = runLength;
        }
        offset -= std::min(offset, runLength);
    }
    return false;
}

HFSContext::Runs HFSContext::inlineRuns(const ForkData& fork)
{
    Runs runs;
    for (const auto& extent : fork.extents)
        if (extent.blockCount != 0)
            runs.push_back({ extent.startBlock, extent.blockCount });
    return runs;
}

HFSContext::Runs HFSContext::allRuns(const ForkData& fork, std::uint32_t fileID) const
{
    auto runs = inlineRuns(fork);
    const auto records = overflow_.find(fileID);
    if (records == overflow_.end())
        return runs;
    std::uint64_t covered = 0;
    for (const auto& run : runs)
        covered += run.count;
    for (const auto& record : records->second) {
        if (record.start != covered)
            continue;
        for (const auto& run : record.runs)
            covered += run.count;
        runs.insert(runs.end(), record.runs.begin(), record.runs.end());
    }
    return runs;
}

std::optional<std::uint64_t> HFSContext::offsetOf(std::uint32_t block) const
{
    const std::uint64_t offset = block * blockSize_; // below 2^52
    if (base_ >= source_.size() || offset >= source_.size() - base_)
        return std::nullopt;
    return base_ + offset;
}

bool HFSContext::isAllocated(std::uint64_t block) const
{
    return (ByteView(allocation_).u8(static_cast<std::int64_t>(block / 8)) & 0x80 >> block % 8)
        != 0;
}

/// A record's data begins behind its key, at an even offset.
ByteView HFSContext::dataOf(ByteView record)
{
    const std::int64_t keyEnd = record.u16be(0) + 2;
    return record.sub(keyEnd + keyEnd % 2, static_cast<std::int64_t>(record.size()));
}

ByteView HFSContext::dataOf(const CatalogEntry& entry) const
{
    return dataOf(catalog_->bytes().sub(entry.at, entry.length));
}
