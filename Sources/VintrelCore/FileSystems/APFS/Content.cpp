#include "VintrelCore/FileSystems/APFS/Content.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Model/AppleAttributes.h"
#include "VintrelCore/Model/Chance.h"

#include <algorithm>
#include <map>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

namespace {

/// Appends to a list of extents; neighbours on the source become one.
void append(ExtentList& extents, Extent extent)
{
    if (!extents.empty()) {
        auto& last = extents.back();
        const bool meets
            = last.offset && extent.offset && *last.offset + last.length == *extent.offset;
        if (meets || (!last.offset && !extent.offset)) {
            last.length += extent.length;
            return;
        }
    }
    extents.push_back(extent);
}

/// Of versions of a file's extents that cover each other the newest parts, by logical address. What
/// an extent covers is cut at `size`.
std::vector<APFSFileRecords::Extent> newestParts(
    std::span<const APFSFileRecords::Extent> versions, std::uint64_t size, std::uint64_t blockSize)
{
    std::vector<APFSFileRecords::Extent> byAge(versions.begin(), versions.end());
    std::ranges::stable_sort(
        byAge, [](const auto& one, const auto& other) { return one.leaf.xid > other.leaf.xid; });
    std::map<std::uint64_t, APFSFileRecords::Extent> parts; // apart from each other
    for (const auto& version : byAge) {
        if (version.logical >= size)
            continue;
        const std::uint64_t end
            = version.logical + std::min(version.length, size - version.logical);
        std::uint64_t at = version.logical;
        auto next = parts.upper_bound(at);
        if (next != parts.begin())
            at = std::max(at, std::prev(next)->second.logical + std::prev(next)->second.length);
        // Each gap that is filled is gone, so that all turns together are no more than there are
        // versions, twice.
        while (at < end) {
            const std::uint64_t partEnd = next == parts.end() ? end : std::min(end, next->first);
            if (partEnd > at) {
                auto part = version;
                const std::uint64_t skipped = at - version.logical;
                part.logical = at;
                part.length = partEnd - at;
                if (part.block != 0)
                    part.block += skipped / blockSize;
                parts.emplace_hint(next, at, part);
            }
            if (next == parts.end())
                break;
            at = next->second.logical + next->second.length;
            ++next;
        }
    }
    std::vector<APFSFileRecords::Extent> result;
    result.reserve(parts.size());
    for (const auto& [at, part] : parts)
        result.push_back(part);
    return result;
}

} // namespace

void APFSContent::fill(FileNode& node, const APFSFileRecords& records, const APFSFileRecords* live,
    const APFSFileRecords::Inode& inode)
{
    using Kind = APFSFileRecords::Attribute::Kind;
    node.size = inode.size;
    const auto* compression = records.attribute(inode.id, Kind::compression);
    if (inode.isCompressed || (compression != nullptr && inode.size == 0)) {
        if (compression != nullptr)
            node.size = compression->size;
        if (inode.isDataless)
            judge(node, Doubt::onlyInCloud);
        else
            fillCompressed(node, records, live, inode);
        return;
    }
    if (inode.isDataless) {
        judge(node, Doubt::onlyInCloud);
        return;
    }
    if (inode.isSymlink()) {
        fillSymlink(node, records, inode);
        return;
    }
    fillExtents(node, records, live, inode, inode.privateID);
}

void APFSContent::attach(
    FileNode& node, const APFSFileRecords& records, const APFSFileRecords::Inode& inode)
{
    using Kind = APFSFileRecords::Attribute::Kind;
    const bool isUnpacked = contentAs<DecmpfsContent>(node.data) != nullptr;
    for (const auto& attribute : records.attributesOf(inode.id)) {
        const bool isOther = attribute.kind == Kind::other;
        const bool isContent = attribute.kind == Kind::symlink || (isUnpacked && !isOther);
        if (isContent || (isOther && AppleAttributes::isHidden(records.text(attribute.name))))
            continue;
        const auto count = records.extentsOf(attribute.streamID).size()
            + attribute.content.length / sizeof(Extent);
        if ((attribute.kind == Kind::resourceFork && attribute.size == 0)
            || !state_.extentBudget().take(1 + count))
            continue;
        if (attribute.kind == Kind::resourceFork && !inode.isCompressed)
            AppleAttributes::noteResourceFork(node, attribute.size);
        auto attachment = attachmentFor(records, attribute, inode);
        // What became of a deleted file's blocks is known of its content alone.
        if (node.status != EntryStatus::existing && attribute.streamID != 0
            && !inode.leaf.isHeldBySnapshot)
            attachment.recoverability
                = std::min(attachment.recoverability, Recoverability::unknown);
        node.attach(std::move(attachment));
    }
}

Attachment APFSContent::attachmentFor(const APFSFileRecords& records,
    const APFSFileRecords::Attribute& attribute, const APFSFileRecords::Inode& inode)
{
    using Kind = APFSFileRecords::Attribute::Kind;
    const bool isFork = attribute.kind == Kind::resourceFork;
    const auto name = attribute.kind == Kind::compression ? AppleAttributes::compression
                                                          : records.text(attribute.name);
    Attachment attachment { .kind
        = isFork ? Attachment::Kind::resourceFork : Attachment::Kind::attribute,
        .name = std::string(name),
        .data = {} };
    if (attribute.streamID == 0) {
        const auto content = records.text(attribute.content);
        attachment.data = Bytes(content.begin(), content.end());
        attachment.size = content.size();
        return attachment;
    }
    auto layout = layOut(records.extentsOf(attribute.streamID), attribute.size, inode);
    if (!layout.isComplete)
        attachment.recoverability = Recoverability::partial;
    attachment.data = std::move(layout.extents);
    attachment.size = attribute.size;
    return attachment;
}

void APFSContent::fillCompressed(FileNode& node, const APFSFileRecords& records,
    const APFSFileRecords* live, const APFSFileRecords::Inode& inode)
{
    using Kind = APFSFileRecords::Attribute::Kind;
    const auto bytesOf = [&](const APFSFileRecords::Attribute& attribute) {
        const auto text = records.text(attribute.content);
        return Bytes(text.begin(), text.end());
    };
    const auto* compression = records.attribute(inode.id, Kind::compression);
    auto bytes = compression != nullptr ? bytesOf(*compression) : Bytes {};
    const auto header = Decmpfs::decode(bytes);
    const auto* fork = records.attribute(inode.id, Kind::resourceFork);
    if (!header || !Decmpfs::canUnpack(header->method) || (header->isInFork && fork == nullptr)
        || !state_.extentBudget().take(1 + bytes.size() / sizeof(Extent))) {
        judge(node, Doubt::compressedByAPFS);
        return;
    }
    bytes.erase(bytes.begin(), bytes.begin() + Decmpfs::headerSize);
    DecmpfsContent content { *header, std::move(bytes) };
    if (!header->isInFork || fork->streamID == 0) {
        if (header->isInFork)
            content.bytes = bytesOf(*fork);
        judge(node, {});
    } else {
        // Judged as if the fork were the file.
        node.size = fork->size;
        fillExtents(node, records, live, inode, fork->streamID);
        content.fork = std::get<ExtentList>(std::move(node.data));
        node.size = header->size;
    }
    node.data = std::move(content);
}

void APFSContent::fillSymlink(
    FileNode& node, const APFSFileRecords& records, const APFSFileRecords::Inode& inode)
{
    const auto* link = records.attribute(inode.id, APFSFileRecords::Attribute::Kind::symlink);
    auto target = link != nullptr ? records.text(link->content) : std::string_view();
    // A link may have many names, and each is a node with the target in it.
    if (!state_.extentBudget().take(1 + target.size() / sizeof(Extent)))
        target = {};
    node.size = target.size();
    node.data = Bytes(target.begin(), target.end());
    judge(node, target.empty() ? Doubts(Doubt::missingLinkTarget) : Doubts());
}

void APFSContent::fillExtents(FileNode& node, const APFSFileRecords& records,
    const APFSFileRecords* live, const APFSFileRecords::Inode& inode, std::uint64_t owner)
{
    auto stored = records.extentsOf(owner);
    const bool isShared = stored.empty() && live != nullptr && !live->extentsOf(owner).empty();
    if (isShared) // a clone that still exists has them
        stored = live->extentsOf(owner);
    if (!state_.extentBudget().take(stored.size())) {
        node.data = ExtentList {};
        judge(node, Doubt::overclaimedBlocks);
        return;
    }
    auto layout = layOut(stored, node.size, inode);
    node.data = std::move(layout.extents);
    const bool exists = node.status == EntryStatus::existing;
    if (!exists && !isShared && !layout.isHeldBySnapshot)
        claim(node, stored, inode);
    if (exists && !layout.older.empty())
        noteDoubts(node, Doubt::olderRecord);
    for (const auto& blocks : layout.older)
        if (exists && !inode.isCloned) // a clone shares them with others
            state_.chances().judgeStandInLater(node, blocks);
    if (!layout.isComplete) {
        const auto partly = exists ? Doubt::partlyUnknownBlocks : Doubt::lostBlocks;
        judge(node, stored.empty() ? Doubt::unknownBlocks : partly);
    } else if (exists || isShared || layout.isHeldBySnapshot) {
        judge(node, {});
        if (layout.isHeldBySnapshot && !exists)
            node.addNote("Bevaret i et snapshot");
    } else {
        state_.chances().judgeLater(node);
    }
}

/// Tells which blocks a deleted file had, for the chances of other deleted ones.
void APFSContent::claim(FileNode& node, std::span<const APFSFileRecords::Extent> stored,
    const APFSFileRecords::Inode& inode)
{
    const auto& blocks = state_.blocks();
    bool isStart = true;
    for (const auto& part : newestParts(stored, node.size, blocks.blockSize())) {
        const auto offset = blocks.isValid(part.block) ? blocks.offsetOf(part.block) : std::nullopt;
        if (!offset)
            continue;
        const std::uint64_t onSource = std::min(part.length, blocks.source().size() - *offset);
        state_.chances().addClaim({ &node, { *offset, *offset + onSource }, part.leaf.xid,
            std::exchange(isStart, false), inode.isCloned });
    }
}

APFSContent::Layout APFSContent::layOut(std::span<const APFSFileRecords::Extent> stored,
    std::uint64_t size, const APFSFileRecords::Inode& inode)
{
    auto& blocks = state_.blocks();
    Layout layout { .extents = {}, .isHeldBySnapshot = inode.leaf.isHeldBySnapshot };
    const auto addHole = [&](std::uint64_t length) {
        append(layout.extents, { std::nullopt, length });
        layout.isComplete = layout.isComplete && inode.isSparse;
    };
    std::uint64_t at = 0;
    for (const auto& part : newestParts(stored, size, blocks.blockSize())) {
        if (part.logical > at)
            addHole(part.logical - at);
        const auto offset = blocks.isValid(part.block) ? blocks.offsetOf(part.block) : std::nullopt;
        append(layout.extents, { offset, part.length });
        const bool isHole = part.block == 0;
        const bool isOnSource = offset && part.length <= blocks.source().size() - *offset;
        layout.isComplete = layout.isComplete && (isHole || isOnSource);
        layout.isHeldBySnapshot = layout.isHeldBySnapshot && part.leaf.isHeldBySnapshot;
        if (offset && part.leaf.isStandIn)
            layout.older.push_back(blocks.blocksAt(*offset, part.length));
        at = part.logical + part.length;
    }
    if (at < size)
        addHole(size - at);
    return layout;
}
