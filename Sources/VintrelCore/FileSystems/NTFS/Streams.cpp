#include "VintrelCore/FileSystems/NTFS/Streams.h"

#include "VintrelCore/FileSystems/NTFS/Content.h"
#include "VintrelCore/Foundation/Text.h"
#include "VintrelCore/Model/Chance.h"

#include <algorithm>
#include <map>

namespace NTFSStreams {

namespace {

/// What systems and browsers mark files with, as the zone that a download came from, is smaller.
constexpr std::uint64_t minSize = 1025;

/// Of the streams of a file so many are named.
constexpr std::size_t maxNoted = 3;

bool isStream(const Attachment& attachment) { return attachment.kind == Attachment::Kind::stream; }

} // namespace

void attach(const NTFSContext& context, MFTRecord& record, FileNode& node)
{
    if (record.streams.empty() || node.isDirectory())
        return;
    std::map<std::string, std::vector<DataFragment>> fragments;
    for (auto& stream : record.streams)
        fragments[std::move(stream.name)].push_back(std::move(stream.data));
    record.streams.clear();
    for (auto& [name, parts] : fragments) {
        auto content = NTFSContent::assemble(context, parts);
        if (content.size >= minSize)
            node.attach({ .kind = Attachment::Kind::stream,
                .recoverability = chanceOf(content.doubts).level,
                .name = name,
                .data = std::move(content.data),
                .size = content.size });
    }
}

void judgeDeleted(FileNode& node, const AllocationMap& map, const NTFSGeometry& geometry)
{
    if (!node.attachments)
        return;
    for (auto& attachment : *node.attachments)
        judgeFurther(attachment, doubtsOf(map.useOf(attachment.data, geometry), ntfsReuse));
}

void note(FileNode& node)
{
    if (!node.attachments)
        return;
    Text::ShortList names(maxNoted);
    for (const auto& attachment : *node.attachments)
        if (isStream(attachment))
            names.add(attachment.name);
    if (names.count() > 0)
        node.addNote((names.count() == 1 ? "Har en navngiven datastrøm (--streams): "
                                         : "Har navngivne datastrømme (--streams): ")
            + names.text());
}

} // namespace NTFSStreams
