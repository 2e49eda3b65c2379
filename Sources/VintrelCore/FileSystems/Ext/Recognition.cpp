#include "VintrelCore/FileSystems/Ext/Recognition.h"

#include "VintrelCore/Carving/Carver.h"
#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/Disk/PieceSource.h"
#include "VintrelCore/Foundation/Rounding.h"

namespace {

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

namespace ExtRecognition {

std::string recognise(const ExtContext& context, FileNode& node)
{
    constexpr std::int64_t headSize = 4096;
    const auto blockSize = context.geometry().blockSize;
    auto* const extents = std::get_if<ExtentList>(&node.data);
    auto pieces = extents != nullptr ? blocksOf(*extents, blockSize) : std::vector<ByteRange>();
    if (pieces.empty())
        return {};
    const auto file = sourceOfPieces(context.blocks().source(), std::move(pieces));
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

void recogniseAll(const ExtContext& context, ExtFiles& files)
{
    for (auto index = files.livingCount; index < files.entries.size(); ++index) {
        auto& entry = files.entries[index];
        const bool isWanted = entry.kind == ExtFormat::fileMode && entry.node->size > 0
            && entry.doubts.has(Doubt::unknownSize) && !entry.doubts.has(Doubt::lostBlocks);
        if (isWanted && !recognise(context, *entry.node).empty())
            entry.doubts = {};
    }
}

} // namespace ExtRecognition
