#include "VintrelCore/FileSystems/HFSPlus/BTree.h"

#include "VintrelCore/FileSystems/HFSPlus/Node.h"

#include <algorithm>
#include <array>

using namespace HFSPlusFormat;

std::optional<HFSPlusBTree> HFSPlusBTree::open(HFSPlusForkReader& file, const Kind& kind)
{
    const auto header = file.view(0, sizeof(HeaderNode)).load<HeaderNode>(0);
    if (!header || file.size() < minNodeSize)
        return std::nullopt;
    if (HFSPlusNode::isSize(header->nodeSize))
        return HFSPlusBTree(file, kind, header->nodeSize, *header);
    const auto nodeSize = kind.mayLackHeader ? guessNodeSize(file) : 0;
    return nodeSize != 0 ? std::optional(HFSPlusBTree(file, kind, nodeSize, {})) : std::nullopt;
}

HFSPlusBTree::HFSPlusBTree(
    HFSPlusForkReader& file, const Kind& kind, std::uint32_t nodeSize, const HeaderNode& header)
    : file_(file)
    , kind_(kind)
    , nodeSize_(nodeSize)
    , nodeCount_(
          static_cast<std::uint32_t>(std::min<std::uint64_t>(file.size() / nodeSize, maxNodes)))
    , header_(header)
    , nodes_(nodeCount_)
    , uses_(nodeCount_)
    , isIndex_(nodeCount_)
{
}

/// The size at whose multiples most leaves lie; 0 when none lie anywhere.
std::uint32_t HFSPlusBTree::guessNodeSize(HFSPlusForkReader& file)
{
    constexpr std::uint64_t searched = 67'108'864; // a piece this long has leaves, if any has
    constexpr std::array<std::uint32_t, 7> sizes { 4096, 8192, 512, 1024, 2048, 16'384, 32'768 };
    std::array<std::size_t, sizes.size()> counts {};
    for (std::uint64_t at = 0; at < std::min(file.size(), searched); at += minNodeSize)
        for (std::size_t i = 0; i < sizes.size(); ++i)
            if (at % sizes[i] == 0 && HFSPlusNode::looksLikeLeaf(file.view(at, sizes[i]), sizes[i]))
                ++counts[i];
    const auto best = std::ranges::max_element(counts); // of equal ones the first
    return *best > 0 ? sizes[static_cast<std::size_t>(best - counts.begin())] : 0;
}

ByteView HFSPlusBTree::bytesOf(std::uint32_t number)
{
    return file_.view(std::uint64_t { number } * nodeSize_, nodeSize_);
}

void HFSPlusBTree::forEachLeafRecord(const Body& body)
{
    readNodes(body);
    const auto lost = file_.lostParts();
    followChain(lost);
    isCut_ = isCut_ || kind_.isCapped || !hasHeader() || liveRecords() < header_.leafRecords;
    if (!isCut_)
        return;
    authority_ = findAuthority(lost);
    if (authority_ == Authority::none)
        for (auto& use : uses_)
            use = std::max(use, Use::assumed);
    salvageNodes(body);
}

void HFSPlusBTree::readNodes(const Body& body)
{
    for (std::uint32_t number = 0; number < nodeCount_; ++number) {
        const auto bytes = bytesOf(number);
        const auto descriptor = *bytes.load<NodeDescriptor>(0);
        auto& node = nodes_[number];
        node.next = descriptor.next;
        node.kind = descriptor.kind;
        node.recordCount = descriptor.recordCount;
        node.isBlank = bytes.isAllZero(0, sizeof(NodeDescriptor)) && !bytes.isAllZero();
        if (number == 0)
            continue;
        if (node.kind == leafKind)
            HFSPlusNode::forEachRecord(bytes, [&](ByteView record) {
                ++node.found;
                body(record, number);
            });
        else if (node.kind == indexKind && node.recordCount > 0)
            HFSPlusNode::forEachRecord(bytes, [&](ByteView record) {
                ++node.found;
                if (const auto pointer = HFSPlusNode::dataOf(record).load<IndexPointer>(0))
                    children_[number].push_back(pointer->childNode);
            });
    }
}

/// What is all zeros stands for a header node that is lost.
bool HFSPlusBTree::hasHeader() const { return header_.nodeSize != 0; }

/// Marks the leaves of the chain, and finds out whether it breaks off.
void HFSPlusBTree::followChain(const RangeSet& lost)
{
    const bool isEmpty = header_.depth == 0 && header_.leafRecords == 0; // it may name a first leaf
    std::uint32_t next = header_.firstLeafNode;
    while (next != 0 && next < nodeCount_ && uses_[next] != Use::live) {
        uses_[next] = Use::live;
        isCut_ = isCut_ || (!isEmpty && nodes_[next].kind != leafKind) || isLost(lost, next);
        next = nodes_[next].next;
    }
    const std::uint32_t last = header_.lastLeafNode;
    const bool isLastMissing = last != 0 && (last >= nodeCount_ || uses_[last] != Use::live);
    isCut_ = isCut_ || next >= nodeCount_ || isLastMissing;
}

bool HFSPlusBTree::isLost(const RangeSet& lost, std::uint32_t number) const
{
    const auto offset = std::uint64_t { number } * nodeSize_;
    return lost.intersects(offset, offset + nodeSize_);
}

HFSPlusBTree::Authority HFSPlusBTree::findAuthority(const RangeSet& lost)
{
    const bool isIndexWhole = markIndexed(lost);
    if (kind_.isCapped)
        return Authority::none;
    if (isIndexWhole)
        return Authority::index;
    return markMapped(lost) ? Authority::map : Authority::none;
}

/// Marks the leaves that the index leads to from the root. Whether all of the index is there.
bool HFSPlusBTree::markIndexed(const RangeSet& lost)
{
    constexpr std::uint32_t maxDepth = 16; // TN1150 has no bound; eight levels hold any catalog
    struct Position {
        std::uint32_t number, level; // level 1: a leaf
    };
    if (header_.depth == 0 || header_.depth > maxDepth)
        return false;
    bool isWhole = true;
    std::vector<bool> seen(nodeCount_);
    std::vector<Position> waiting { { header_.rootNode, header_.depth } };
    while (!waiting.empty()) {
        const auto [number, level] = waiting.back();
        waiting.pop_back();
        if (number == 0 || number >= nodeCount_) {
            isWhole = false;
            continue;
        }
        if (seen[number])
            continue;
        seen[number] = true;
        const auto& node = nodes_[number];
        const auto known = children_.find(number);
        if (known == children_.end() && (level == 1 || node.kind == leafKind)) {
            uses_[number] = Use::live;
            continue;
        }
        isIndex_[number] = true;
        isWhole = isWhole && known != children_.end() && node.found == node.recordCount
            && !isLost(lost, number);
        if (known != children_.end())
            for (const auto child : known->second)
                waiting.push_back({ child, std::max(level, 2u) - 1 });
    }
    return isWhole;
}

/// Marks the leaves whose nodes are in use by the map. False, and nothing marked, when the map is
/// lost, or lacks nodes that are known to be in use.
bool HFSPlusBTree::markMapped(const RangeSet& lost)
{
    const auto map = readMap(lost);
    const auto isUsed = [&](std::uint32_t number) { return number >= map.size() || map[number]; };
    if (map.empty() || !map[0])
        return false;
    for (std::uint32_t number = 1; number < nodeCount_; ++number)
        if (!isUsed(number) && (uses_[number] == Use::live || isIndex_[number]))
            return false;
    for (std::uint32_t number = 1; number < nodeCount_; ++number)
        if (isUsed(number) && !isIndex_[number]
            && (nodes_[number].kind == leafKind || nodes_[number].isBlank))
            uses_[number] = Use::live;
    return true;
}

/// Which nodes are in use, from the first one on as far as the map is there; empty when it is not.
std::vector<bool> HFSPlusBTree::readMap(const RangeSet& lost)
{
    constexpr int headerMapRecord = 2; // TN1150: the header node's third record
    std::vector<bool> map;
    std::vector<bool> seen(nodeCount_);
    for (std::uint32_t number = 0; number < nodeCount_ && !seen[number];) {
        seen[number] = true;
        if (isLost(lost, number) || nodes_[number].kind != (number == 0 ? headerKind : mapKind))
            break;
        int record = number == 0 ? 0 : headerMapRecord;
        HFSPlusNode::forEachRecord(bytesOf(number), [&](ByteView bytes) {
            if (record++ == headerMapRecord)
                for (const auto byte : bytes.span())
                    for (unsigned bit = 0x80; bit != 0; bit >>= 1)
                        map.push_back((byte & bit) != 0);
        });
        number = nodes_[number].next;
        if (number == 0)
            break;
    }
    return map;
}

/// Hands out what is left of damaged nodes that are, or may be, leaves of the tree.
void HFSPlusBTree::salvageNodes(const Body& body)
{
    for (std::uint32_t number = 1; number < nodeCount_; ++number) {
        auto& node = nodes_[number];
        const bool isCutLeaf = node.kind == leafKind && node.found < node.recordCount;
        const bool wasLeaf = node.kind != leafKind && (uses_[number] == Use::live || node.isBlank);
        if (uses_[number] == Use::givenUp || isIndex_[number] || (!isCutLeaf && !wasLeaf))
            continue;
        node.found = 0;
        HFSPlusNode::forEachRemainingRecord(
            bytesOf(number), kind_.recordLength, [&](ByteView record) {
                ++node.found;
                body(record, number);
            });
    }
}

std::uint64_t HFSPlusBTree::liveRecords() const
{
    std::uint64_t count = 0;
    for (std::uint32_t number = 1; number < nodeCount_; ++number)
        if (uses_[number] != Use::givenUp && !isIndex_[number])
            count += nodes_[number].found;
    return count;
}

HFSPlusTreeHealth HFSPlusBTree::health(const HFSPlusForkReader& file) const
{
    const auto found = liveRecords();
    const std::uint64_t stated = header_.leafRecords;
    return { .isCut = isCut_,
        .authority = authority_,
        .lostBytes = file.lostParts().total(),
        .missingRecords = found < stated ? stated - found : 0 };
}
