#include "VintrelCore/FileSystems/HFSPlus/Node.h"

#include <algorithm>
#include <bit>
#include <vector>

using namespace HFSPlusFormat;

namespace {

constexpr std::int64_t firstRecord = sizeof(NodeDescriptor);
constexpr std::int64_t bytesPerRecord = 8; ///< no node has more records than one in so many bytes

std::int64_t sizeOf(ByteView node) { return static_cast<std::int64_t>(node.size()); }

std::int64_t recordOffset(ByteView node, std::int64_t record)
{
    return node.u16be(sizeOf(node) - 2 * (record + 1));
}

/// Where records of a damaged node may lie.
struct Remains {
    std::vector<std::int64_t> starts { firstRecord }; ///< ascending
    std::int64_t end;                                 ///< where free space begins
    std::int64_t count;                               ///< at most so many records
};

Remains remainsOf(ByteView node)
{
    const std::int64_t most = sizeOf(node) / bytesPerRecord;
    const std::int64_t stated
        = node.load<NodeDescriptor>(0).value_or(NodeDescriptor {}).recordCount;
    const bool isCountKnown = stated > 0 && stated < most;
    Remains remains { .end = sizeOf(node), .count = isCountKnown ? stated : most };
    for (std::int64_t record = 0; record <= remains.count; ++record) {
        const auto offset = recordOffset(node, record);
        const bool isInside = offset > remains.starts.back() && offset < sizeOf(node) - 2 * record;
        if (isInside)
            remains.starts.push_back(offset);
        else if (offset != 0 && offset != firstRecord)
            break; // behind a table of unknown length lie records
    }
    // The last offset is that of free space, in which old records lie.
    const auto last = remains.starts.back();
    if (last != firstRecord && (!isCountKnown || recordOffset(node, stated) == last)) {
        remains.end = last;
        remains.starts.pop_back();
    }
    return remains;
}

} // namespace

namespace HFSPlusNode {

bool isSize(std::uint32_t size)
{
    return size >= minNodeSize && size <= maxNodeSize && std::has_single_bit(size);
}

void forEachRecord(ByteView node, const Visit& visit)
{
    const std::int64_t count = node.load<NodeDescriptor>(0).value_or(NodeDescriptor {}).recordCount;
    if (count == 0 || count >= sizeOf(node) / bytesPerRecord)
        return;
    const std::int64_t offsetTable = sizeOf(node) - 2 * (count + 1);
    std::int64_t previous = firstRecord - 1;
    for (std::int64_t record = 0; record < count; ++record) {
        const auto start = recordOffset(node, record);
        const auto end = recordOffset(node, record + 1);
        if (start <= previous || end <= start || end > offsetTable)
            return;
        visit(node.sub(start, end - start));
        previous = start;
    }
}

void forEachRemainingRecord(ByteView node, RecordLength lengthOf, const Visit& visit)
{
    auto [starts, end, count] = remainsOf(node);
    std::int64_t visited = 0;
    for (const auto start : starts) {
        if (start < visited)
            continue; // inside a record that was visited
        visited = start;
        for (; count > 0; --count) {
            const auto length
                = static_cast<std::int64_t>(lengthOf(node.sub(visited, end - visited)));
            if (length == 0)
                break;
            visit(node.sub(visited, length));
            visited += length;
        }
    }
}

ByteView dataOf(ByteView record)
{
    const std::int64_t keyEnd = std::int64_t { sizeof(RecordKey) }
        + record.load<RecordKey>(0).value_or(RecordKey {}).length;
    return record.sub(keyEnd + keyEnd % 2, static_cast<std::int64_t>(record.size()));
}

bool looksLikeHeader(ByteView node)
{
    const auto header = node.load<HeaderNode>(0);
    return header && header->descriptor.kind == headerKind && isSize(header->nodeSize);
}

bool looksLikeLeaf(ByteView node, std::uint32_t nodeSize)
{
    const auto descriptor = node.load<NodeDescriptor>(0);
    if (!descriptor || node.size() < nodeSize || descriptor->kind != leafKind
        || descriptor->height != 1 || descriptor->recordCount == 0 || descriptor->reserved != 0)
        return false;
    const auto bytes = node.sub(0, nodeSize);
    std::uint32_t count = 0;
    forEachRecord(bytes, [&](ByteView) { ++count; });
    return count == descriptor->recordCount && recordOffset(bytes, 0) == firstRecord;
}

} // namespace HFSPlusNode
