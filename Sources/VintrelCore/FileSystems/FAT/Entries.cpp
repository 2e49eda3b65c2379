#include "VintrelCore/FileSystems/FAT/Entries.h"

#include "VintrelCore/Foundation/Unicode/Unicode.h"

#include <algorithm>
#include <string_view>

namespace FATEntries {

namespace {

void appendPart(std::string& text, std::span<const std::uint8_t> bytes, bool isLowerCase)
{
    for (const auto byte : bytes) {
        if (byte == ' ')
            continue;
        auto character = byte >= 0x20 && byte <= 0x7E ? static_cast<char>(byte) : '_';
        if (isLowerCase && character >= 'A' && character <= 'Z')
            character = static_cast<char>(character + ('a' - 'A'));
        text += character;
    }
}

/// The byte that stands for the letter in the short names of western European systems (code page
/// 850), in upper case. None outside the letters of Latin-1.
std::optional<std::uint8_t> codePage850(char16_t letter)
{
    // U+00C0 … U+00DE: À Á Â Ã Ä Å Æ Ç È É Ê Ë Ì Í Î Ï Ð Ñ Ò Ó Ô Õ Ö × Ø Ù Ú Û Ü Ý Þ; their lower
    // case lies 20h higher.
    constexpr std::uint8_t bytes[] = { 0xB7, 0xB5, 0xB6, 0xC7, 0x8E, 0x8F, 0x92, 0x80, 0xD4, 0x90,
        0xD2, 0xD3, 0xDE, 0xD6, 0xD7, 0xD8, 0xD1, 0xA5, 0xE3, 0xE0, 0xE2, escapedE5, 0x99, 0x9E,
        0x9D, 0xEB, 0xE9, 0xEA, 0x9A, 0xED, 0xE8 };
    if (letter >= 0xE0 && letter <= 0xFE)
        letter = static_cast<char16_t>(letter - 0x20);
    if (letter < 0xC0 || letter > 0xDE)
        return std::nullopt;
    return bytes[letter - 0xC0];
}

bool hasChecksumWith(ShortName name, std::uint8_t firstByte, std::uint8_t expected)
{
    name[0] = firstByte;
    return checksum(name) == expected;
}

/// Whether some first byte makes the name of a deleted entry match the checksum of its long name's
/// pieces.
bool canHaveChecksum(const ShortName& stored, char16_t firstLetter, std::uint8_t expected)
{
    for (std::uint8_t candidate = 0x20; candidate <= 0x7E; ++candidate)
        if (hasChecksumWith(stored, candidate, expected))
            return true;
    const auto letter = codePage850(firstLetter);
    return letter && hasChecksumWith(stored, *letter, expected);
}

bool isNamePiece(const LongNamePiece& piece)
{
    return piece.attributes == longNameAttributes && piece.type == 0 && piece.firstCluster == 0;
}

bool isInSequence(const std::vector<LongNamePiece>& pieces)
{
    if (!pieces.front().isLast())
        return false;
    auto expected = static_cast<int>(pieces.size());
    return std::ranges::all_of(
        pieces, [&](const auto& piece) { return piece.sequence() == expected--; });
}

} // namespace

void LongNamePiece::appendTo(std::u16string& name) const
{
    for (const auto& units : { std::span<const LE16>(units1), std::span<const LE16>(units2),
             std::span<const LE16>(units3) })
        for (const char16_t unit : units) {
            if (unit == 0x0000 || unit == 0xFFFF) // the end of the name, or what fills it up
                return;
            name += unit;
        }
}

std::uint8_t checksum(const ShortName& name)
{
    std::uint8_t sum = 0;
    for (const auto byte : name)
        sum = static_cast<std::uint8_t>((sum >> 1 | sum << 7) + byte);
    return sum;
}

std::string formatShortName(const ShortName& name, std::uint8_t caseFlags, bool isDeleted)
{
    const std::span bytes(name);
    std::string text;
    appendPart(text, bytes.first<8>(), (caseFlags & 0x08) != 0);
    if (isDeleted && !text.empty())
        text[0] = '_';
    std::string extension;
    appendPart(extension, bytes.last<3>(), (caseFlags & 0x10) != 0);
    if (!extension.empty())
        text.append(".").append(extension);
    return text;
}

std::optional<std::string> assembleLongName(
    const std::vector<LongNamePiece>& pieces, const ShortName& stored, bool isDeleted)
{
    if (pieces.empty() || pieces.size() > maxPieces)
        return std::nullopt;
    const std::uint8_t expected = pieces.front().checksum;
    for (const auto& piece : pieces)
        if (piece.isDeleted() != isDeleted || piece.checksum != expected)
            return std::nullopt;

    std::u16string units;
    for (auto piece = pieces.rbegin(); piece != pieces.rend(); ++piece)
        piece->appendTo(units);
    if (units.empty())
        return std::nullopt;

    const bool isOurs = isDeleted
        ? canHaveChecksum(stored, units.front(), expected)
        : (checksum(stored) == expected
              || (stored[0] == escapedE5 && hasChecksumWith(stored, deletedMark, expected)))
            && isInSequence(pieces);
    return isOurs ? std::optional(Unicode::fromUTF16(units)) : std::nullopt;
}

bool isPlausible(const ShortName& name, bool isDeleted)
{
    constexpr std::string_view forbidden = "\"*+,/:;<=>?[\\]|";
    if (std::ranges::all_of(name, [](auto byte) { return byte == ' '; }))
        return false;
    return std::ranges::all_of(std::span(name).subspan(isDeleted ? 1 : 0), [&](std::uint8_t byte) {
        return (byte >= 0x20 || byte == escapedE5)
            && forbidden.find(static_cast<char>(byte)) == std::string_view::npos;
    });
}

std::uint32_t firstCluster(const ShortEntry& entry)
{
    return std::uint32_t { entry.firstClusterHigh } << 16 | entry.firstClusterLow;
}

bool isSubfolder(const ShortEntry& entry)
{
    return (entry.attributes & (volumeLabelFlag | directoryFlag)) == directoryFlag
        && entry.name[0] != '.';
}

std::optional<std::uint32_t> ownCluster(ByteView sector)
{
    const auto self = sector.load<ShortEntry>(0);
    const auto above = sector.load<ShortEntry>(entrySize);
    if (!self || !above || self->name != dotName || above->name != dotDotName
        || (self->attributes & directoryFlag) == 0 || (above->attributes & directoryFlag) == 0)
        return std::nullopt;
    return firstCluster(*self);
}

bool holdsNamePieces(ByteView sector)
{
    for (std::int64_t at = 0; const auto piece = sector.load<LongNamePiece>(at); at += entrySize)
        if (!isNamePiece(*piece))
            return false;
    return true;
}

bool continuesDirectory(ByteView sector)
{
    bool hasShortEntry = false;
    for (std::int64_t at = 0; const auto entry = sector.load<ShortEntry>(at); at += entrySize) {
        if (entry->name[0] == endOfDirectory)
            return hasShortEntry && sector.isAllZero(at);
        const auto piece = *sector.load<LongNamePiece>(at);
        const bool isPiece = piece.attributes == longNameAttributes;
        if (isPiece ? !isNamePiece(piece) : !canBeShortEntry(*entry))
            return false;
        hasShortEntry = hasShortEntry || !isPiece;
    }
    return hasShortEntry;
}

} // namespace FATEntries
