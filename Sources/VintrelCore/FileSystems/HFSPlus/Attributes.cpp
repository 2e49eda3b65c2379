#include "VintrelCore/FileSystems/HFSPlus/Attributes.h"

#include "VintrelCore/FileSystems/HFSPlus/Node.h"

#include <algorithm>
#include <map>
#include <tuple>

using namespace HFSPlusFormat;

namespace {

/// What is read of the file, and what may be kept of it in memory. Most attributes have less than a
/// hundred bytes.
constexpr std::uint64_t maxFileBytes = 1'073'741'824;
constexpr std::uint64_t maxKeptBytes = 134'217'728;

/// How long the record is that begins with these bytes; 0 when none does.
std::size_t recordLength(ByteView bytes)
{
    const auto key = bytes.load<AttributeKey>(0);
    if (!key || key->nameLength == 0 || key->nameLength > maxAttributeNameLength
        || key->key.length != 2u * key->nameLength + minAttributeKeyLength)
        return 0;
    const auto keyEnd = sizeof(RecordKey) + key->key.length;
    const auto data = HFSPlusNode::dataOf(bytes);
    std::size_t length = 0;
    switch (data.u32be(0)) {
    case attributeDataType:
        length = sizeof(AttributeData)
            + std::size_t { data.load<AttributeData>(0).value_or(AttributeData {}).size };
        if (length < data.size())
            length += length % 2; // the next record begins at an even offset
        break;
    case attributeForkType:
        length = sizeof(AttributeFork);
        break;
    case attributeExtentsType:
        length = sizeof(AttributeExtents);
        break;
    default:
        return 0;
    }
    return length <= data.size() ? keyEnd + length : 0;
}

std::string nameOf(ByteView record)
{
    const auto key = record.load<AttributeKey>(0).value_or(AttributeKey {});
    return record.utf16be(sizeof(AttributeKey), key.nameLength);
}

Bytes contentOf(ByteView data)
{
    const auto head = data.load<AttributeData>(0).value_or(AttributeData {});
    const auto content = data.sub(sizeof(AttributeData), head.size).span();
    return { content.begin(), content.end() };
}

std::uint64_t blocksIn(const HFSPlusExtents& extents)
{
    std::uint64_t count = 0;
    for (const auto& extent : extents)
        count += extent.blockCount;
    return count;
}

/// Adds the extents of a record to those of its attribute, when they follow on.
void addExtents(HFSPlusAttributes::Fork& fork, ByteView record, std::uint64_t& covered)
{
    const auto key = record.load<AttributeKey>(0).value_or(AttributeKey {});
    const auto more = HFSPlusNode::dataOf(record).load<AttributeExtents>(0);
    if (!more || key.startBlock != covered)
        return;
    for (const auto& stored : more->extents)
        if (stored.blockCount != 0) {
            fork.extents.push_back({ stored.startBlock, stored.blockCount });
            covered += stored.blockCount;
        }
}

} // namespace

HFSPlusAttributes::HFSPlusAttributes(const HFSPlusForks& forks, const VolumeHeader& header)
{
    auto file = forks.open(header.attributesFile, attributesFileID, maxFileBytes);
    isCapped_ = file.size() == maxFileBytes && header.attributesFile.logicalSize > maxFileBytes;
    auto tree = HFSPlusBTree::open(file, { .recordLength = recordLength, .isCapped = isCapped_ });
    if (!tree) {
        health_ = { .isUnusable = header.attributesFile.logicalSize != 0,
            .lostBytes = file.lostParts().total() };
        return;
    }
    tree->forEachLeafRecord([this](ByteView record, std::uint32_t node) { add(record, node); });
    health_ = tree->health(file);
    for (auto& entry : entries_)
        entry.use = tree->useOf(entry.node);
    std::ranges::stable_sort(entries_, [](const Entry& one, const Entry& other) {
        return std::tuple(one.fileID, other.use) < std::tuple(other.fileID, one.use);
    });
}

void HFSPlusAttributes::add(ByteView record, std::uint32_t node)
{
    const auto key = record.load<AttributeKey>(0);
    if (!key || recordLength(record) == 0)
        return;
    if (records_.size() + record.size() > maxKeptBytes) {
        isCapped_ = true;
        return;
    }
    entries_.push_back({ .fileID = key->fileID,
        .node = node,
        .at = records_.size(),
        .length = static_cast<std::uint16_t>(record.size()) });
    records_.insert(records_.end(), record.span().begin(), record.span().end());
}

std::span<const HFSPlusAttributes::Entry> HFSPlusAttributes::entriesOf(
    std::uint32_t fileID, bool isLive) const
{
    const auto first = std::ranges::lower_bound(entries_, fileID, {}, &Entry::fileID);
    auto end = std::ranges::upper_bound(first, entries_.end(), fileID, {}, &Entry::fileID);
    if (isLive)
        end = std::find_if(
            first, end, [](const Entry& entry) { return entry.use == HFSPlusBTree::Use::givenUp; });
    return { first, end };
}

std::vector<HFSPlusAttributes::Attribute> HFSPlusAttributes::attributesOf(
    std::uint32_t fileID, bool isLive) const
{
    struct Known {
        std::size_t index;     // of the attribute
        std::uint64_t covered; // blocks of its fork that have extents
    };
    std::vector<Attribute> attributes;
    std::map<std::string, Known> known;
    for (const auto& entry : entriesOf(fileID, isLive)) {
        const auto record = recordOf(entry);
        const auto data = HFSPlusNode::dataOf(record);
        const auto [place, isNew]
            = known.try_emplace(nameOf(record), Known { attributes.size(), 0 });
        auto& [name, attribute] = *place;
        if (data.u32be(0) == attributeExtentsType) {
            if (isNew)
                known.erase(place); // the attribute itself is not there
            else if (auto* fork = std::get_if<Fork>(&attributes[attribute.index].content))
                addExtents(*fork, record, attribute.covered);
            continue;
        }
        if (!isNew)
            continue;
        if (const auto stored = data.load<AttributeFork>(0);
            stored && stored->type == attributeForkType) {
            Fork fork { stored->fork.logicalSize, HFSPlusForks::inlineExtents(stored->fork) };
            attribute.covered = blocksIn(fork.extents);
            attributes.push_back({ name, std::move(fork) });
        } else {
            attributes.push_back({ name, contentOf(data) });
        }
    }
    return attributes;
}

std::optional<Bytes> HFSPlusAttributes::content(
    std::uint32_t fileID, bool isLive, std::string_view name) const
{
    for (const auto& entry : entriesOf(fileID, isLive)) {
        const auto record = recordOf(entry);
        const auto data = HFSPlusNode::dataOf(record);
        if (data.u32be(0) == attributeDataType && nameOf(record) == name)
            return contentOf(data);
    }
    return std::nullopt;
}

ByteView HFSPlusAttributes::recordOf(const Entry& entry) const
{
    return ByteView(records_).sub(static_cast<std::int64_t>(entry.at), entry.length);
}
