#include "VintrelCore/FileSystems/Ext/Recognition.h"

#include "VintrelCore/Carving/Carver.h"
#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/Disk/PieceSource.h"
#include "VintrelCore/Foundation/Rounding.h"

namespace {

/// Each block was a part of one file at a time: more claims come from made-up disks.
constexpr std::uint64_t filesOfBlock = 4;

/// The blocks of a file, the last one whole; empty where it has holes.
std::vector<ByteRange> blocksOf(const ExtentList& extents, std::uint64_t blockSize)
{
    std::vector<ByteRange> pieces;
    pieces.reserve(extents.size());
    for (const auto& [offset, length] : extents) {
        if (!offset)
            return {};
        pieces.push_back({ *offset, *offset + unitsFor(length, blockSize) * blockSize });
    }
    return pieces;
}

} // namespace

ExtRecognition::ExtRecognition(const ExtContext& context)
    : context_(context)
    , bytesLeft_(saturatingMultiply(context.geometry().volumeSize(), filesOfBlock))
{
}

std::string ExtRecognition::recognise(FileNode& node)
{
    constexpr std::int64_t headSize = 4096;
    const auto blockSize = context_.geometry().blockSize;
    auto* const extents = std::get_if<ExtentList>(&node.data);
    if (extents == nullptr || node.size > bytesLeft_)
        return {};
    auto pieces = blocksOf(*extents, blockSize);
    if (pieces.empty())
        return {};
    bytesLeft_ -= node.size;
    const auto file = sourceOfPieces(context_.blocks().source(), std::move(pieces));
    const auto known
        = Carver(*file, carvedCategories()).check(file->read(0, headSize, ReadMode::fast), 0);
    const bool fits = known && known->exact && !known->isCut && known->size >= node.size
        && file->size() - known->size < blockSize;
    if (!fits)
        return {};
    extents->back().length += known->size - node.size;
    node.size = known->size;
    if (!node.modified)
        node.modified = known->date;
    return known->ext;
}

void ExtRecognition::recogniseAll(ExtFiles& files)
{
    for (auto index = files.livingCount; index < files.entries.size(); ++index) {
        auto& entry = files.entries[index];
        const bool isWanted = entry.kind == ExtFormat::fileMode && entry.node->size > 0
            && entry.doubts.has(Doubt::unknownSize) && !entry.doubts.has(Doubt::lostBlocks);
        if (isWanted && !recognise(*entry.node).empty())
            entry.doubts = {};
    }
}
