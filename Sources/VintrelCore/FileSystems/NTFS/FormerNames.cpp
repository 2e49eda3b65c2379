#include "VintrelCore/FileSystems/NTFS/FormerNames.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/NTFS/IndexBlock.h"
#include "VintrelCore/FileSystems/NTFS/Journal.h"
#include "VintrelCore/FileSystems/NTFS/MappedStream.h"
#include "VintrelCore/Foundation/ByteRange.h"
#include "VintrelCore/Foundation/Rounding.h"

#include <algorithm>
#include <vector>

namespace {

/// Of a journal so much of its end is read. Systems keep 32 MiB unless they are told otherwise.
constexpr std::uint64_t maxJournal = 268'435'456;
constexpr std::uint64_t journalPiece = 1'048'576;

/// Of all indices together so much is read.
constexpr std::uint64_t maxIndices = 134'217'728;
constexpr std::uint64_t usualIndexBlock = 4096;

constexpr std::uint64_t maxNumber = std::uint64_t { 1 } << 48;

std::uint64_t keyOf(FileReference file) { return file.number << 16 | file.sequence; }

/// The parts of a stream that are no holes, in whole pages, as bytes of the stream.
std::vector<ByteRange> storedRanges(const ExtentList& extents)
{
    std::vector<ByteRange> ranges;
    std::uint64_t start = 0;
    for (const auto& extent : extents) {
        const std::uint64_t end = start + extent.length;
        if (extent.offset && !ranges.empty() && ranges.back().end == start)
            ranges.back().end = end;
        else if (extent.offset)
            ranges.push_back({ roundDown(start, NTFSJournal::pageSize), end });
        start = end;
    }
    return ranges;
}

/// Leaves out so much of the front that the rest is not more than `most`.
void keepEnd(std::vector<ByteRange>& ranges, std::uint64_t most)
{
    std::uint64_t size = 0;
    for (auto range = ranges.rbegin(); range != ranges.rend(); ++range) {
        const auto length = std::min(range->end - range->start, most - size);
        range->start = roundDown(range->end - length, NTFSJournal::pageSize);
        size += length;
    }
}

} // namespace

void NTFSFormerNames::want(FileReference file)
{
    if (file.number != 0 && file.number < maxNumber && file.sequence != 0
        && answers_.try_emplace(keyOf(file)).second)
        ++missing_;
}

NTFSFormerNames::Answer* NTFSFormerNames::answerFor(FileReference file)
{
    const auto answer = answers_.find(keyOf(file));
    return answer != answers_.end() ? &answer->second : nullptr;
}

void NTFSFormerNames::set(Answer& answer, Name name, bool isDOS)
{
    if (name.name.empty())
        return;
    missing_ -= answer.name.name.empty() ? 1 : 0;
    answer = { std::move(name), isDOS };
}

void NTFSFormerNames::readJournal(DiskSource& source, const ExtentList& journal)
{
    auto ranges = storedRanges(journal);
    keepEnd(ranges, maxJournal);
    const MappedStream stream(journal);
    Bytes piece;
    for (const auto& range : ranges)
        for (std::uint64_t at = range.start; at < range.end; at += journalPiece) {
            piece.resize(static_cast<std::size_t>(std::min(journalPiece, range.end - at)));
            stream.read(source, at, piece);
            NTFSJournal::forEachChange(piece, [this](NTFSJournal::Change& change) {
                if (auto* const answer = answerFor(change.file))
                    set(*answer, { std::move(change.name), change.parent }, false);
            });
        }
}

void NTFSFormerNames::readIndices(const NTFSContext& context, std::span<const RunList> indices)
{
    std::vector<const RunList*> inOrder; // of the disk
    inOrder.reserve(indices.size());
    for (const auto& index : indices)
        inOrder.push_back(&index);
    std::ranges::stable_sort(
        inOrder, {}, [](const RunList* index) { return index->front().lcn.value_or(0); });
    std::uint64_t budget = maxIndices;
    for (const auto* index : inOrder)
        if (isWanting())
            readIndex(context, *index, budget);
}

void NTFSFormerNames::readIndex(
    const NTFSContext& context, const RunList& index, std::uint64_t& budget)
{
    const auto size
        = std::min(budget, saturatingMultiply(clusterCount(index), context.geometry().clusterSize));
    budget -= size;
    const MappedStream stream(context.extents(index, size, size).extents);
    Bytes block(usualIndexBlock);
    for (std::uint64_t at = 0; at < size; at += block.size()) {
        block.resize(usualIndexBlock);
        if (!stream.read(context.source(), at, block).isOnSource)
            continue;
        const auto blockSize = NTFSParser::sizeOfIndexBlock(block);
        if (blockSize && *blockSize != block.size()) {
            block.resize(*blockSize);
            stream.read(context.source(), at, block);
        }
        readBlock(block);
    }
}

void NTFSFormerNames::readLooseIndices(DiskSource& source, std::span<const std::uint64_t> offsets)
{
    Bytes block;
    for (std::uint64_t read = 0; const auto offset : offsets) {
        if (read >= maxIndices || !isWanting())
            return;
        block.resize(usualIndexBlock);
        source.readReporting(offset, std::span(block), ReadMode::thorough);
        const auto size = NTFSParser::sizeOfIndexBlock(block);
        if (!size)
            continue;
        read += *size;
        if (*size != block.size()) {
            block.resize(*size);
            source.readReporting(offset, std::span(block), ReadMode::thorough);
        }
        readBlock(block);
    }
}

void NTFSFormerNames::readBlock(std::span<std::uint8_t> block)
{
    NTFSParser::forEachIndexEntry(block, [this](FileReference file, FNInfo& name) {
        auto* const answer = answerFor(file);
        if (answer != nullptr && (answer->name.name.empty() || (answer->isDOS && !name.isDOS())))
            set(*answer, { std::move(name.name), name.parent }, name.isDOS());
    });
}

const NTFSFormerNames::Name* NTFSFormerNames::find(FileReference file) const
{
    const auto answer = answers_.find(keyOf(file));
    return answer != answers_.end() && !answer->second.name.name.empty() ? &answer->second.name
                                                                         : nullptr;
}
