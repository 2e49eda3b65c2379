#include "VintrelCore/FileSystems/NTFS/Rebuild/ListedGroups.h"

#include <algorithm>

namespace NTFSRebuild {

void ListedGroups::dropRepeated(RecordReader& reader, RecordGroup& group, bool hasPlace) const
{
    if (groups_.empty())
        return;
    RecordGroup left;
    bool hasNews = false;
    MFTRecord record;
    for (const auto& loose : group) {
        const bool isFile = loose.number >= NTFSParser::firstUserRecord
            && reader.read(loose, record) && !record.names.empty();
        const bool isNew = isFile && !isRepeated(reader, loose, record, hasPlace);
        hasNews = hasNews || isNew;
        if (!isFile || isNew || record.isDirectory)
            left.push_back(loose);
    }
    group = hasNews ? std::move(left) : RecordGroup();
}

bool ListedGroups::isRepeated(
    RecordReader& reader, const LooseRecord& loose, const MFTRecord& record, bool hasPlace) const
{
    MFTRecord other;
    return std::ranges::any_of(groups_, [&](const Listed& listed) {
        const auto same = listed.records.find(loose.number);
        return (listed.hasPlace || !hasPlace) && same != listed.records.end()
            && reader.read(same->second, other) && describeSameState(record, other)
            && firstLCN(record) == firstLCN(other);
    });
}

void ListedGroups::add(const RecordGroup& group, bool hasPlace)
{
    Listed listed { .records = {}, .hasPlace = hasPlace };
    for (const auto& loose : group)
        listed.records.try_emplace(loose.number, loose);
    groups_.push_back(std::move(listed));
}

} // namespace NTFSRebuild
