#include "VintrelCore/FileSystems/HFSPlus/Parser.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/HFSPlus/Catalog.h"
#include "VintrelCore/FileSystems/HFSPlus/Context.h"
#include "VintrelCore/FileSystems/HFSPlus/Forks.h"
#include "VintrelCore/FileSystems/HFSPlus/Node.h"
#include "VintrelCore/FileSystems/HFSPlus/VolumeHeader.h"

using namespace HFSPlusFormat;

namespace HFSPlusParser {

std::optional<FileSystemType> probe(ByteView head)
{
    return isVolumeHeader(head.sub(volumeHeaderOffset, sizeof(VolumeHeader)))
        ? std::optional(FileSystemType::hfsplus)
        : std::nullopt;
}

bool isVolumeHeader(ByteView header)
{
    return HFSPlusVolumeHeader::decodeStart(header).has_value();
}

bool looksLikeTreeHeader(ByteView sector)
{
    constexpr std::uint16_t recordCount = 3; // TN1150: header, user data and map
    const auto header = sector.load<HeaderNode>(0);
    return header && HFSPlusNode::looksLikeHeader(sector)
        && header->descriptor.recordCount == recordCount
        && (header->maxKeyLength == maxCatalogKeyLength
            || header->maxKeyLength == overflowKeyLength);
}

bool looksLikeCatalogLeaf(ByteView sector)
{
    const auto descriptor = sector.load<NodeDescriptor>(0);
    return descriptor && descriptor->kind == leafKind && descriptor->height == 1
        && descriptor->recordCount != 0 && descriptor->recordCount < maxNodeSize / 8
        && HFSPlusCatalog::recordLength(
               sector.sub(sizeof(NodeDescriptor), static_cast<std::int64_t>(sector.size())))
        != 0;
}

std::unique_ptr<Volume> parse(DiskSource& source, std::uint64_t offset, const std::string& origin,
    WorkProgress* progress, std::optional<ByteView> found)
{
    if (offset >= source.size()) // also keeps every place on the volume within 64 bits
        return nullptr;
    const auto own = found
        ? Bytes()
        : source.read(offset + volumeHeaderOffset, sizeof(VolumeHeader), ReadMode::thorough);
    const auto header = HFSPlusVolumeHeader::decode(found.value_or(own));
    return header ? HFSContext(source, offset, *header).build(origin, progress) : nullptr;
}

bool addUsedRanges(DiskSource& source, const Volume& volume, std::vector<ByteRange>& ranges)
{
    const auto* context = dynamic_cast<const HFSPlusVolumeContext*>(volume.deepContext.get());
    return context != nullptr
        && HFSPlusForks(source, volume.offset, context->header).addUsedRanges(ranges);
}

} // namespace HFSPlusParser
