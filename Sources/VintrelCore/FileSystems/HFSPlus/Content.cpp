#include "VintrelCore/FileSystems/HFSPlus/Content.h"

#include "VintrelCore/Foundation/Decmpfs.h"
#include "VintrelCore/Model/AppleAttributes.h"

#include <algorithm>
#include <string_view>
#include <utility>

using namespace HFSPlusFormat;

namespace {

/// What the attachments of a volume may take of memory. Only hard links, of which each has those of
/// its file, can need more than the attributes file is long.
constexpr std::uint64_t maxAttachedBytes = 268'435'456;

bool isCompressed(const CatalogFile& file) { return (file.item.ownerFlags & compressedFlag) != 0; }

/// The Finder's information without what macOS keeps in it for itself and gives to no program.
Bytes shownFinderInfo(ByteView stored)
{
    constexpr std::int64_t typeSize = 8; // and creator
    constexpr std::int64_t classicSize = 16;
    constexpr std::int64_t flagsAt = 24, flagsSize = 4;
    constexpr std::string_view symbolicLink = "slnkrhap"; // TN1150: type and creator
    Bytes shown(finderInfoSize);
    const auto copy = [&](std::int64_t at, std::int64_t length) {
        std::ranges::copy(stored.sub(at, length).span(), shown.begin() + at);
    };
    const bool isLink = stored.matches(symbolicLink, 0);
    copy(isLink ? typeSize : 0, isLink ? classicSize - typeSize : classicSize);
    copy(flagsAt, flagsSize);
    return shown;
}

std::uint64_t memoryOf(const Attachment& attachment)
{
    const auto* bytes = std::get_if<Bytes>(&attachment.data);
    const auto* extents = extentsOf(attachment.data);
    return sizeof(Attachment) + attachment.name.size() + (bytes != nullptr ? bytes->size() : 0)
        + (extents != nullptr ? extents->size() * sizeof(Extent) : 0);
}

} // namespace

void HFSPlusContent::fill(FileNode& node, const CatalogFile& file, const Owner& owner)
{
    node.size = file.dataFork.logicalSize;
    if (isCompressed(file)) {
        node.data = ExtentList {};
        judge(node, Doubt::compressedByHFS);
        attachCompressed(node, file, owner);
        return;
    }
    auto layout = layOut(file.dataFork, Fork::data, node.size, owner);
    node.data = std::move(layout.extents);
    judge(node, layout.doubts);
}

/// Attaches the content where it can be unpacked.
void HFSPlusContent::attachCompressed(FileNode& node, const CatalogFile& file, const Owner& owner)
{
    auto bytes = attributes_.content(owner.id, owner.isLive, AppleAttributes::compression)
                     .value_or(Bytes {});
    const auto header = Decmpfs::decode(bytes);
    if (!header || !Decmpfs::canUnpack(header->method)
        || (header->isInFork && file.resourceFork.logicalSize == 0))
        return;
    DecmpfsContent content { *header, {} };
    Doubts doubts;
    if (header->isInFork) {
        auto layout
            = layOut(file.resourceFork, Fork::resource, file.resourceFork.logicalSize, owner);
        content.fork = std::move(layout.extents);
        doubts = layout.doubts;
    } else {
        bytes.erase(bytes.begin(), bytes.begin() + Decmpfs::headerSize);
        content.bytes = std::move(bytes);
    }
    attach(node,
        { .kind = Attachment::Kind::packedContent,
            .recoverability = chanceOf(doubts).level,
            .name = {},
            .data = std::move(content),
            .size = header->size });
}

/// The extents overflow file describes a deleted file's later pieces no longer.
HFSPlusContent::Layout HFSPlusContent::layOut(
    const ForkData& fork, Fork kind, std::uint64_t size, const Owner& owner) const
{
    const auto stored = owner.isLive ? forks_.allExtents(fork, owner.id, kind)
                                     : HFSPlusForks::inlineExtents(fork);
    bool isOnSource = true;
    Layout layout { .extents = piecesOf(stored, size, isOnSource), .doubts = {} };
    const bool isKnown = layout.extents.size() <= stored.size();
    if (owner.isLive && (!isKnown || !isOnSource))
        layout.doubts = Doubt::missingExtents;
    else if (!owner.isLive)
        layout.doubts = isKnown ? doubtsOfDeleted(stored, size) : Doubt::missingLaterExtents;
    return layout;
}

/// The pieces of a fork up to its size, the last one a hole when the extents end before.
/// `isOnSource` becomes false when one of them does not lie wholly on the source.
ExtentList HFSPlusContent::piecesOf(
    const HFSPlusExtents& stored, std::uint64_t size, bool& isOnSource) const
{
    ExtentList pieces;
    for (const auto& extent : stored) {
        if (size == 0)
            break;
        pieces.push_back(forks_.pieceOf(extent, size));
        size -= pieces.back().length;
        isOnSource = isOnSource && forks_.isOnSource(pieces.back());
    }
    if (size > 0)
        pieces.push_back({ std::nullopt, size });
    return pieces;
}

/// Without any of the allocation file the volume's note says why nothing is known.
Doubts HFSPlusContent::doubtsOfDeleted(const HFSPlusExtents& stored, std::uint64_t size) const
{
    auto doubts = doubtsOf(forks_.useOf(stored, size), appleReuse);
    if (doubts.has(Doubt::unknownAllocation) && forks_.hasAllocation())
        doubts.add(Doubt::unknownReuse);
    return doubts;
}

void HFSPlusContent::attachFork(FileNode& node, const CatalogFile& file, const Owner& owner)
{
    const std::uint64_t size = file.resourceFork.logicalSize;
    if (size == 0 || packedContentOf(node) != nullptr)
        return; // such a fork is the file's content
    if (!isCompressed(file))
        AppleAttributes::noteResourceFork(node, size);
    auto layout = layOut(file.resourceFork, Fork::resource, size, owner);
    attach(node,
        { .kind = Attachment::Kind::resourceFork,
            .recoverability = chanceOf(layout.doubts).level,
            .name = {},
            .data = std::move(layout.extents),
            .size = size });
}

void HFSPlusContent::attachAttributes(FileNode& node, ByteView finderInfo, const Owner& owner)
{
    auto shown = shownFinderInfo(finderInfo);
    if (!ByteView(shown).isAllZero())
        attach(node, attachmentFor({ std::string(AppleAttributes::finderInfo), std::move(shown) }));
    const bool isUnpacked = packedContentOf(node) != nullptr;
    for (auto& attribute : attributes_.attributesOf(owner.id, owner.isLive))
        if (!AppleAttributes::isHidden(attribute.name)
            && !(isUnpacked && attribute.name == AppleAttributes::compression))
            attach(node, attachmentFor(std::move(attribute)));
}

Attachment HFSPlusContent::attachmentFor(HFSPlusAttributes::Attribute attribute) const
{
    Attachment attachment {
        .kind = Attachment::Kind::attribute, .name = std::move(attribute.name), .data = {}
    };
    if (auto* bytes = std::get_if<Bytes>(&attribute.content)) {
        attachment.size = bytes->size();
        attachment.data = std::move(*bytes);
        return attachment;
    }
    const auto& fork = std::get<HFSPlusAttributes::Fork>(attribute.content);
    bool isOnSource = true;
    auto pieces = piecesOf(fork.extents, fork.size, isOnSource);
    if (!isOnSource || pieces.size() > fork.extents.size())
        attachment.recoverability = Recoverability::partial;
    attachment.size = fork.size;
    attachment.data = std::move(pieces);
    return attachment;
}

void HFSPlusContent::attach(FileNode& node, Attachment attachment)
{
    const auto memory = memoryOf(attachment);
    isFull_ = isFull_ || memory > maxAttachedBytes - attachedBytes_;
    if (isFull_)
        return;
    attachedBytes_ += memory;
    node.attach(std::move(attachment));
}
