#include "VintrelCore/FileSystems/NTFS/AttributeList.h"

#include "VintrelCore/FileSystems/NTFS/Layout.h"
#include "VintrelCore/FileSystems/NTFS/MappedStream.h"

#include <algorithm>
#include <iterator>
#include <unordered_set>

namespace NTFSParser {

namespace {

struct ListEntry {
    LE32 type;                          //  0
    LE16 length;                        //  4
    std::uint8_t nameLength;            //  6
    std::uint8_t nameOffset;            //  7
    LE64 startVCN;                      //  8
    NTFSLayout::StoredReference record; // 16  where the attribute is
    LE16 id;                            // 24

    bool isWanted() const
    {
        return type == NTFSLayout::fileName || type == NTFSLayout::reparsePoint
            || type == NTFSLayout::data;
    }
};
static_assert(sizeof(ListEntry) == 26);

} // namespace

Bytes loadAttributeList(const NTFSContext& context, const MFTRecord& record)
{
    if (record.attributeListRuns.empty())
        return record.attributeList;
    const std::uint64_t size = std::min(record.attributeListSize, maxAttributeList);
    auto located = context.extents(record.attributeListRuns, size, size);
    Bytes list(static_cast<std::size_t>(size));
    MappedStream(std::move(located.extents)).read(context.source(), 0, list);
    return list;
}

std::vector<FileReference> extensionsIn(ByteView attributeList, std::uint64_t self)
{
    std::vector<FileReference> extensions;
    std::unordered_set<std::uint64_t> seen { self };
    std::int64_t at = 0;
    while (const auto entry = attributeList.load<ListEntry>(at)) {
        if (entry->length < sizeof(ListEntry))
            break;
        const FileReference reference = entry->record;
        if (entry->isWanted() && seen.insert(reference.number).second)
            extensions.push_back(reference);
        at += entry->length;
    }
    return extensions;
}

bool isExtensionOf(const MFTRecord& record, FileReference reference, const MFTRecord& base)
{
    return record.isExtension() && record.isTargetOf(reference) && base.isTargetOf(record.base);
}

void mergeExtension(MFTRecord& record, MFTRecord& extension)
{
    record.fixupOK = record.fixupOK && extension.fixupOK;
    std::ranges::move(extension.names, std::back_inserter(record.names));
    std::ranges::move(extension.data, std::back_inserter(record.data));
    std::ranges::move(extension.streams, std::back_inserter(record.streams));
    if (extension.reparseTag != 0) {
        record.reparseTag = extension.reparseTag;
        record.packing = extension.packing;
    }
    if (extension.reparseLCN)
        record.reparseLCN = extension.reparseLCN;
    extension.clear();
}

} // namespace NTFSParser
