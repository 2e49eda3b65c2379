#include "VintrelCore/FileSystems/Ext/Inode.h"

#include "VintrelCore/FileSystems/Ext/Checksums.h"

#include <algorithm>
#include <array>
#include <chrono>

using namespace ExtFormat;

namespace {

constexpr std::int64_t extraOffset = sizeof(Inode);
constexpr std::size_t checksumLowOffset = offsetof(Inode, checksumLow);
constexpr std::size_t checksumHighOffset = sizeof(Inode) + offsetof(InodeExtra, checksumHigh);
constexpr std::uint16_t sizeWithHighChecksum = 4; // of what is in use of InodeExtra
constexpr std::uint16_t sizeWithModified = 12;
constexpr std::uint16_t sizeWithCreated = 24;

constexpr std::uint32_t attributesMagic = 0xEA02'0000;
constexpr std::uint8_t systemAttribute = 7; // "Extended Attributes", name index of "system."
constexpr std::size_t maxInodeAttributes = 64;

/// "Inode Timestamps": the lowest two bits of the extra field extend the seconds.
std::optional<Date> dateOf(std::uint32_t seconds, std::uint32_t extra)
{
    if (seconds == 0 && extra == 0)
        return std::nullopt;
    constexpr std::int64_t lastSecond = 9'000'000'000; // nanoseconds since 1970 hold no more
    const std::int64_t whole
        = static_cast<std::int32_t>(seconds) + (static_cast<std::int64_t>(extra & 3) << 32);
    if (whole > lastSecond)
        return std::nullopt;
    const std::uint32_t fraction = std::min(extra >> 2, 999'999'999U);
    return Date(std::chrono::seconds(whole)) + std::chrono::nanoseconds(fraction);
}

bool hasHighChecksum(ByteView slot)
{
    return slot.load<InodeExtra>(extraOffset).value_or(InodeExtra {}).size >= sizeWithHighChecksum;
}

/// The slot with zeros in the place of its checksum.
Bytes withoutChecksum(ByteView slot)
{
    Bytes bytes(slot.span().begin(), slot.span().end());
    std::fill_n(bytes.begin() + checksumLowOffset, 2, std::uint8_t { 0 });
    if (hasHighChecksum(slot))
        std::fill_n(bytes.begin() + checksumHighOffset, 2, std::uint8_t { 0 });
    return bytes;
}

bool fitsChecksum(
    const ExtGeometry& geometry, std::uint32_t number, const Inode& inode, ByteView slot)
{
    if (!geometry.hasChecksums())
        return true;
    constexpr std::array<std::uint8_t, 2> zeros {};
    const bool hasHigh = hasHighChecksum(slot);
    const auto low = static_cast<std::int64_t>(checksumLowOffset);
    auto sum = ExtInodes::seedOf(geometry, number, inode.generation);
    sum = ExtChecksums::crc32c(sum, slot.sub(0, low));
    sum = ExtChecksums::crc32c(sum, zeros);
    sum = ExtChecksums::crc32c(
        sum, slot.sub(low + 2, hasHigh ? 4 : static_cast<std::int64_t>(slot.size())));
    if (hasHigh) {
        sum = ExtChecksums::crc32c(sum, zeros);
        sum = ExtChecksums::crc32c(sum, slot.sub(low + 8, static_cast<std::int64_t>(slot.size())));
    }
    if (!hasHigh)
        return (sum & 0xFFFF) == inode.checksumLow;
    const auto high = slot.u16le(static_cast<std::int64_t>(checksumHighOffset));
    return sum == (std::uint32_t { high } << 16 | inode.checksumLow);
}

std::array<std::uint8_t, sizeof(LE32)> bytesOf(LE32 number)
{
    return std::bit_cast<std::array<std::uint8_t, sizeof(LE32)>>(number);
}

/// The state of the inode's checksum when the seed and the number have gone into it.
std::optional<std::uint32_t> stateBehindNumber(const ExtGeometry& geometry, ByteView slot)
{
    const auto inode = slot.load<Inode>(0);
    if (!inode || geometry.inodeSize <= sizeof(Inode) || !hasHighChecksum(slot))
        return std::nullopt;
    const auto high = slot.u16le(static_cast<std::int64_t>(checksumHighOffset));
    const auto state = ExtChecksums::rewind32c(
        std::uint32_t { high } << 16 | inode->checksumLow, withoutChecksum(slot));
    return ExtChecksums::rewind32c(state, bytesOf(inode->generation));
}

/// "Extended Attributes": struct ext4_xattr_entry.
struct AttributeEntry {
    std::uint8_t nameLength; //  0
    std::uint8_t nameIndex;  //  1
    LE16 valueOffset;        //  2  from the first entry on
    LE32 valueInode;         //  4
    LE32 valueSize;          //  8
    LE32 hash;               // 12
};
static_assert(sizeof(AttributeEntry) == 16);

/// The value of "system.data" among the attributes that lie in the slot; empty when there is none.
ByteView inlineRest(ByteView slot)
{
    const auto extra = slot.load<InodeExtra>(extraOffset).value_or(InodeExtra {});
    const auto attributes
        = slot.sub(extraOffset + extra.size, static_cast<std::int64_t>(slot.size()));
    if (attributes.u32le(0) != attributesMagic)
        return {};
    const auto entries = attributes.sub(sizeof(LE32), static_cast<std::int64_t>(slot.size()));
    std::int64_t at = 0;
    for (std::size_t count = 0; count < maxInodeAttributes; ++count) {
        const auto entry = entries.load<AttributeEntry>(at);
        if (!entry || entry->nameLength == 0)
            break;
        if (entry->nameIndex == systemAttribute && entry->nameLength == 4
            && entries.matches("data", at + static_cast<std::int64_t>(sizeof(AttributeEntry))))
            return entries.sub(entry->valueOffset, entry->valueSize);
        at += static_cast<std::int64_t>(sizeof(AttributeEntry))
            + std::int64_t { (entry->nameLength + 3) / 4 } * 4;
    }
    return {};
}

/// When the file was deleted. One that was still open then, as its system went down, has the number
/// of the next such inode there ("Index Nodes", i_dtime).
std::uint32_t deletionOf(const ExtGeometry& geometry, const Inode& inode)
{
    const bool isNumber = inode.links == 0 && inode.deleted <= geometry.inodeCount();
    return isNumber ? 0 : std::uint32_t { inode.deleted };
}

} // namespace

ExtInode ExtInode::decode(const ExtGeometry& geometry, std::uint32_t number, ByteView slot)
{
    const auto raw = slot.load<Inode>(0).value_or(Inode {});
    const auto extra = geometry.inodeSize > sizeof(Inode)
        ? slot.load<InodeExtra>(extraOffset).value_or(InodeExtra {})
        : InodeExtra {};
    ExtInode inode { .number = number,
        .generation = raw.generation,
        .flags = raw.flags,
        .deleted = deletionOf(geometry, raw),
        .mode = raw.mode,
        .links = raw.links,
        .isSound = raw.mode == 0 || fitsChecksum(geometry, number, raw, slot),
        .size = raw.sizeLow,
        .sectors = raw.sectorsLow | std::uint64_t { raw.sectorsHigh } << 32,
        .attributesBlock = raw.attributesLow | std::uint64_t { raw.attributesHigh } << 32,
        .changed = raw.changed,
        .modified = dateOf(
            raw.modified, extra.size >= sizeWithModified ? std::uint32_t { extra.modified } : 0),
        .map = raw.blocks };
    if (inode.isFile() || geometry.superblock.revision != 0)
        inode.size |= inode.isLink() ? 0 : std::uint64_t { raw.sizeHigh } << 32;
    if ((inode.flags & hugeFlag) != 0)
        inode.sectors *= geometry.blockSize / 512;
    if (extra.size >= sizeWithCreated)
        inode.created = dateOf(extra.created, extra.createdExtra);
    return inode;
}

bool ExtInode::hasKind() const
{
    switch (kind()) {
    case 0x1000: // FIFO
    case 0x2000: // character device
    case directoryMode:
    case 0x6000: // block device
    case fileMode:
    case linkMode:
    case 0xC000: // socket
        return true;
    default:
        return false;
    }
}

bool ExtInode::isFastLink() const
{
    return isLink() && !isInline() && !hasExtents() && size < map.size();
}

namespace ExtInodes {

std::uint32_t seedOf(const ExtGeometry& geometry, std::uint32_t number, std::uint32_t generation)
{
    return ExtChecksums::crc32c(
        ExtChecksums::crc32c(geometry.checksumSeed, LE32(number)), LE32(generation));
}

std::optional<std::uint32_t> volumeSeedOf(
    const ExtGeometry& geometry, std::uint32_t number, ByteView slot)
{
    const auto state = stateBehindNumber(geometry, slot);
    return state ? std::optional(ExtChecksums::rewind32c(*state, bytesOf(LE32(number))))
                 : std::nullopt;
}

/// Four bytes take the register to where it came from over the same number of zeros, when they are
/// added to it.
std::optional<std::uint32_t> numberOf(const ExtGeometry& geometry, ByteView slot)
{
    const auto state = stateBehindNumber(geometry, slot);
    return state
        ? std::optional(ExtChecksums::rewind32c(*state, bytesOf(LE32(0))) ^ geometry.checksumSeed)
        : std::nullopt;
}

Bytes inlineContent(const ExtInode& inode, ByteView slot)
{
    Bytes content(inode.map.begin(), inode.map.end());
    const auto rest = inlineRest(slot);
    content.insert(content.end(), rest.span().begin(), rest.span().end());
    content.resize(static_cast<std::size_t>(std::min<std::uint64_t>(inode.size, content.size())));
    return content;
}

} // namespace ExtInodes
