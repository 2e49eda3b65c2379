#include "VintrelCore/Carving/Formats/Formats.h"
#include "VintrelCore/Foundation/Text.h"

#include <algorithm>
#include <bit>

// Text that has no mark: UTF-8 (RFC 3629), UTF-16 behind its byte order mark (RFC 2781), and
// ISO 8859-1. Nothing tells how long it is: it ends where the first byte comes that is none.

namespace Formats {

namespace {

constexpr std::uint64_t limit = 1'073'741'824;
constexpr std::size_t leastText = 4096; // less than that lies everywhere
constexpr std::size_t workPerByte = 2;

/// Takes the bytes of a text one after another.
class Decoder {
public:
    enum Encoding : std::uint8_t { utf8, latin1, utf16le, utf16be };

    explicit Decoder(Encoding encoding)
        : encoding_(encoding)
    {
    }

    /// False where no text of the encoding has this byte.
    bool take(std::uint8_t byte)
    {
        if (encoding_ == latin1)
            return isLatin1(byte);
        return encoding_ == utf8 ? takeUTF8(byte) : takeUTF16(byte);
    }
    /// How many of the last bytes that were taken are the beginning of a character that has not
    /// ended.
    std::uint64_t pending() const { return pending_; }

private:
    static bool isASCII(std::uint32_t unit)
    {
        return (unit >= 0x20 && unit < 0x7F) || (unit >= '\t' && unit <= '\r');
    }
    static bool isLatin1(std::uint8_t byte) { return isASCII(byte) || byte >= 0xA0; }

    bool takeUTF8(std::uint8_t byte)
    {
        if (pending_ == 0) {
            wanted_ = static_cast<unsigned>(std::countl_one(byte));
            if (wanted_ == 0)
                return isASCII(byte);
            const bool isFirst = byte >= 0xC2 && byte <= 0xF4;
            pending_ = isFirst ? 1 : 0;
            return isFirst;
        }
        if ((byte & 0xC0) != 0x80)
            return false;
        pending_ = pending_ + 1 < wanted_ ? pending_ + 1 : 0;
        return true;
    }

    bool takeUTF16(std::uint8_t byte)
    {
        constexpr std::uint32_t highSurrogate = 0xD800, lowSurrogate = 0xDC00;
        unit_ = (unit_ << 8 | byte) & 0xFFFF;
        if (++pending_ % 2 != 0)
            return true;
        const std::uint32_t unit
            = encoding_ == utf16be ? unit_ : (unit_ << 8 | unit_ >> 8) & 0xFFFF;
        const bool isSecond = pending_ == 4;
        const auto surrogate = unit & 0xFC00;
        const bool isCharacter = isASCII(unit) || (unit >= 0xA0 && unit < 0xFFFE);
        if (!isCharacter || isSecond != (surrogate == lowSurrogate)) {
            --pending_; // this byte is not taken
            return false;
        }
        pending_ = surrogate == highSurrogate ? pending_ : 0;
        return true;
    }

    Encoding encoding_;
    std::uint64_t pending_ = 0;
    unsigned wanted_ = 0;    ///< the bytes of a character in UTF-8
    std::uint32_t unit_ = 0; ///< the last two bytes
};

/// Where the text in this encoding ends that begins at `position`.
std::uint64_t behindText(RandomReader& file, Decoder::Encoding encoding, std::uint64_t position)
{
    Decoder decoder(encoding);
    while (position < limit) {
        const auto bytes = file.stretch(position).span();
        const auto end
            = std::ranges::find_if(bytes, [&](std::uint8_t byte) { return !decoder.take(byte); });
        const auto count = static_cast<std::size_t>(end - bytes.begin());
        file.addWork((count + 1) * workPerByte);
        position += count;
        if (end != bytes.end() || bytes.empty())
            break;
    }
    return position - decoder.pending();
}

/// Whether these bytes are more than a pattern that fills space.
bool isWritten(ByteView bytes)
{
    constexpr std::ptrdiff_t leastDifferent = 16;
    std::array<bool, 256> isUsed {};
    for (const auto byte : bytes.span())
        isUsed[byte] = true;
    return std::ranges::count(isUsed, true) >= leastDifferent;
}

/// Whether most of these bytes are ASCII. What is sound UTF-8 need not be, but nearly any bytes
/// pass for ISO 8859-1.
bool isMostlyASCII(ByteView bytes)
{
    const auto foreign
        = std::ranges::count_if(bytes.span(), [](std::uint8_t byte) { return byte >= 0x80; });
    return static_cast<std::size_t>(foreign) <= bytes.size() / 4;
}

/// The beginning of the text in one byte a character, what is not ASCII as question marks.
std::string beginning(ByteView bytes, Decoder::Encoding encoding)
{
    const bool isWide = encoding == Decoder::utf16le || encoding == Decoder::utf16be;
    const std::size_t step = isWide ? 2 : 1;
    std::string text;
    text.reserve(bytes.size() / step);
    for (std::size_t at = 0; at + step <= bytes.size(); at += step) {
        const auto place = static_cast<std::int64_t>(at);
        const auto wide = encoding == Decoder::utf16le ? bytes.u16le(place) : bytes.u16be(place);
        const unsigned unit = isWide ? wide : bytes.u8(place);
        text += unit < 0x80 ? static_cast<char>(unit) : '?';
    }
    return Text::lowerCase(text);
}

/// How many separators stand in a line outside of quotes.
std::ptrdiff_t separatorsIn(std::string_view line, char separator)
{
    bool isQuoted = false;
    return std::ranges::count_if(line, [&](char c) {
        isQuoted ^= c == '"';
        return c == separator && !isQuoted;
    });
}

/// Whether the lines are rows of a table: all have as many separators as the first one.
bool isTable(std::string_view text)
{
    constexpr int leastRows = 8;
    return std::ranges::any_of(std::string_view(";,\t"), [&](char separator) {
        auto rest = text;
        const auto wanted = separatorsIn(rest.substr(0, rest.find('\n')), separator);
        int rows = 0;
        for (auto end = rest.find('\n'); end != std::string_view::npos; end = rest.find('\n')) {
            if (separatorsIn(rest.substr(0, end), separator) != wanted)
                return false;
            rest.remove_prefix(end + 1);
            ++rows;
        }
        return wanted > 0 && rows >= leastRows;
    });
}

const char* kindOf(std::string_view text)
{
    constexpr std::size_t prolog = 512;
    const auto first = text.find_first_not_of("? \t\r\n"); // a byte order mark among them
    text.remove_prefix(std::min(first, text.size()));
    const auto has = [&](std::string_view tag) {
        return text.substr(0, prolog).find(tag) != std::string_view::npos;
    };
    if (text.starts_with('<') && (has("<html") || has("<!doctype html")))
        return "html";
    if (text.starts_with("<?xml"))
        return "xml";
    return isTable(text) ? "csv" : "txt";
}

Found inEncoding(const Candidate& candidate, Decoder::Encoding encoding, ByteView first)
{
    const auto end = behindText(candidate.file, encoding, 0);
    if (end < leastText || end >= limit)
        return std::nullopt;
    auto found = candidate.found(end, kindOf(beginning(first, encoding)));
    found.exact = false;
    return found;
}

} // namespace

Found plainText(const Candidate& candidate)
{
    auto& file = candidate.file;
    const auto first = file.bytes(0, leastText);
    const auto mark = ByteView(first).u16be(0);
    if (mark == 0xFFFE || mark == 0xFEFF)
        return inEncoding(candidate, mark == 0xFFFE ? Decoder::utf16le : Decoder::utf16be, first);
    if (!isWritten(first))
        return std::nullopt;
    auto found = inEncoding(candidate, Decoder::utf8, first);
    return found || !isMostlyASCII(first) ? found : inEncoding(candidate, Decoder::latin1, first);
}

} // namespace Formats
