#include "VintrelCore/FileSystems/HFSPlus/Parser.h"

#include "VintrelCore/Disk/DiskSource.h"
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

std::vector<std::uint64_t> startsByAlternate(ByteView header, std::uint64_t offset)
{
    return HFSPlusVolumeHeader::startsByAlternate(header, offset);
}

bool isConfirmed(DiskSource& source, std::uint64_t offset, ByteView header)
{
    const auto stored = HFSPlusVolumeHeader::decode(header);
    if (!stored)
        return false;
    const auto& first = stored->catalogFile.extents.front();
    const std::uint64_t catalog
        = std::uint64_t { first.startBlock } * stored->start.blockSize; // below 2^52
    if (first.blockCount == 0 || offset >= source.size() || catalog >= source.size() - offset)
        return false;
    auto node = source.read(offset + catalog, minNodeSize, ReadMode::thorough);
    return ByteView(node).u8(offsetof(NodeDescriptor, kind)) == headerKind
        && HFSPlusNode::isSize(ByteView(node).u16be(offsetof(HeaderNode, nodeSize)));
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
