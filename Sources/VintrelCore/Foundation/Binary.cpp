#include "VintrelCore/Foundation/Binary.h"

#include "VintrelCore/Foundation/Unicode/Unicode.h"

#include <algorithm>

std::uint64_t ByteView::uintLE(std::int64_t at, int width) const
{
    if (width < 1 || width > 8 || !holds(at, static_cast<std::size_t>(width)))
        return 0;
    std::uint64_t value = 0;
    for (int i = width - 1; i >= 0; --i)
        value = value << 8 | bytes_[static_cast<std::size_t>(at + i)];
    return value;
}

std::int64_t ByteView::intLE(std::int64_t at, int width) const
{
    if (width < 1 || width > 8)
        return 0;
    const int unused = 64 - 8 * width;
    return static_cast<std::int64_t>(uintLE(at, width) << unused) >> unused;
}

ByteView ByteView::sub(std::int64_t at, std::int64_t length) const
{
    if (length < 1 || at < 0 || static_cast<std::uint64_t>(at) >= bytes_.size())
        return {};
    const auto start = static_cast<std::size_t>(at);
    const auto wanted = static_cast<std::uint64_t>(length);
    return bytes_.subspan(
        start, static_cast<std::size_t>(std::min<std::uint64_t>(wanted, bytes_.size() - start)));
}

std::string ByteView::ascii(std::int64_t at, std::int64_t length) const
{
    std::string text;
    for (const auto byte : sub(at, length).span()) {
        if (byte == 0)
            break;
        text += byte >= 32 && byte <= 126 ? static_cast<char>(byte) : '_';
    }
    return text;
}

template <class Unit> std::string ByteView::utf16(std::int64_t at, std::int64_t chars) const
{
    if (chars < 1 || at < 0 || static_cast<std::uint64_t>(at) >= bytes_.size())
        return {};
    const auto available = (static_cast<std::int64_t>(bytes_.size()) - at) / 2;
    const auto count = static_cast<std::size_t>(std::min(chars, available));
    std::string text(count, '\0');
    std::size_t plain = 0; // nearly all names are ASCII, which needs no second buffer
    for (; plain < count; ++plain) {
        const auto unit = *load<Unit>(at + static_cast<std::int64_t>(2 * plain));
        if (unit >= 0x80)
            break;
        text[plain] = static_cast<char>(unit);
    }
    if (plain == count)
        return text;
    std::u16string units(count, u'\0');
    for (auto& unit : units) {
        unit = load<Unit>(at).value_or(Unit {});
        at += 2;
    }
    return Unicode::fromUTF16(units);
}

std::string ByteView::utf16le(std::int64_t at, std::int64_t chars) const
{
    return utf16<LE16>(at, chars);
}

std::string ByteView::utf16be(std::int64_t at, std::int64_t chars) const
{
    return utf16<BE16>(at, chars);
}

bool ByteView::matches(ByteView pattern, std::int64_t at) const
{
    if (pattern.empty())
        return at >= 0;
    return holds(at, pattern.size())
        && std::memcmp(bytes_.data() + at, pattern.data(), pattern.size()) == 0;
}

bool ByteView::isAllZero(std::int64_t at, std::int64_t length) const
{
    const auto range = sub(at, length).span();
    // Compared with itself one byte on: as fast as memcmp, and no second buffer of zeros.
    return range.empty()
        || (range.front() == 0
            && std::memcmp(range.data(), range.data() + 1, range.size() - 1) == 0);
}

bool ByteView::isAllZero(std::int64_t at) const
{
    return isAllZero(at, static_cast<std::int64_t>(bytes_.size()));
}

std::optional<std::int64_t> ByteView::firstIndex(ByteView pattern, std::int64_t from) const
{
    from = std::max<std::int64_t>(from, 0);
    if (pattern.empty() || !holds(from, pattern.size()))
        return std::nullopt;
    const auto found = std::search(
        bytes_.begin() + from, bytes_.end(), pattern.bytes_.begin(), pattern.bytes_.end());
    if (found == bytes_.end())
        return std::nullopt;
    return found - bytes_.begin();
}
