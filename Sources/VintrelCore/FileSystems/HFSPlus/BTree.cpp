#include "VintrelCore/FileSystems/HFSPlus/BTree.h"

#include <bit>

using namespace HFSPlusFormat;

std::optional<HFSPlusBTree> HFSPlusBTree::open(Bytes bytes)
{
    const auto header = ByteView(bytes).load<HeaderNode>(0);
    if (!header || bytes.size() < minNodeSize)
        return std::nullopt;
    const std::uint32_t nodeSize = header->nodeSize;
    if (nodeSize < minNodeSize || nodeSize > maxNodeSize || !std::has_single_bit(nodeSize))
        return std::nullopt;
    return HFSPlusBTree(std::move(bytes), *header);
}

HFSPlusBTree::HFSPlusBTree(Bytes bytes, const HeaderNode& header)
    : bytes_(std::move(bytes))
    , nodeSize_(header.nodeSize)
    , nodeCount_(static_cast<std::uint32_t>(bytes_.size() / nodeSize_))
    , firstLeaf_(header.firstLeafNode)
    , root_(header.rootNode)
{
}

void HFSPlusBTree::forEachLeafRecord(
    const std::function<bool(std::uint64_t, std::uint64_t)>& isDamaged, const Body& body) const
{
    std::vector<bool> live(nodeCount_);
    bool isCut = false;
    for (std::uint32_t next = firstLeaf_; next != 0 && next < nodeCount_ && !live[next];) {
        live[next] = true;
        isCut = isCut || isDamaged(std::uint64_t { next } * nodeSize_, nodeSize_);
        next = descriptor(next)->next;
    }
    if (isCut)
        markIndexed(live);

    for (std::uint32_t number = 1; number < nodeCount_; ++number)
        if (descriptor(number)->kind == leafKind)
            forEachRecord(number, [&](ByteView record) { body(record, live[number]); });
}

/// Marks the leaves that the index leads to from the root.
void HFSPlusBTree::markIndexed(std::vector<bool>& live) const
{
    std::vector<bool> seen(nodeCount_);
    std::vector<std::uint32_t> pending { root_ };
    while (!pending.empty()) {
        const std::uint32_t number = pending.back();
        pending.pop_back();
        if (number == 0 || number >= nodeCount_ || seen[number])
            continue;
        seen[number] = true;
        const auto kind = descriptor(number)->kind;
        if (kind == leafKind)
            live[number] = true;
        else if (kind == indexKind)
            forEachRecord(number, [&](ByteView record) {
                if (const auto pointer = dataOf(record).load<IndexPointer>(0))
                    pending.push_back(pointer->childNode);
            });
    }
}

ByteView HFSPlusBTree::dataOf(ByteView record)
{
    const std::int64_t keyEnd = std::int64_t { sizeof(RecordKey) }
        + record.load<RecordKey>(0).value_or(RecordKey {}).length;
    return record.sub(keyEnd + keyEnd % 2, static_cast<std::int64_t>(record.size()));
}

std::optional<NodeDescriptor> HFSPlusBTree::descriptor(std::uint32_t number) const
{
    return node(number).load<NodeDescriptor>(0);
}

ByteView HFSPlusBTree::node(std::uint32_t number) const
{
    return ByteView(bytes_).sub(std::int64_t { number } * nodeSize_, nodeSize_);
}

/// Goes through the records of a node. Their offsets stand backwards at its end; the first one that
/// does not ascend or lies outside the node ends them.
template <class Visit> void HFSPlusBTree::forEachRecord(std::uint32_t number, Visit visit) const
{
    const auto bytes = node(number);
    const std::int64_t count = descriptor(number)->recordCount;
    if (count == 0 || count >= nodeSize_ / 8)
        return;
    const std::int64_t offsetTable = std::int64_t { nodeSize_ } - 2 * (count + 1);
    const auto offsetOf = [&](std::int64_t record) -> std::int64_t {
        return bytes.u16be(std::int64_t { nodeSize_ } - 2 * (record + 1));
    };
    std::int64_t previous = static_cast<std::int64_t>(sizeof(NodeDescriptor)) - 1;
    for (std::int64_t record = 0; record < count; ++record) {
        const auto start = offsetOf(record);
        const auto end = offsetOf(record + 1);
        if (start <= previous || end <= start || end > offsetTable)
            return;
        visit(bytes.sub(start, end - start));
        previous = start;
    }
}
