#include "VintrelCore/Carving/Formats/Formats.h"

#include <algorithm>

// "Rich Text Format (RTF) Specification" 1.9.1: groups in braces, and control words after a
// backslash.

namespace Formats {

namespace {

constexpr std::uint64_t limit = 268'435'456;
constexpr std::size_t pieceSize = 1024;
constexpr std::size_t workPerByte = 2; // one at a time is slower than a search

/// The bytes that mean something; all others are text.
constexpr auto isSpecial = [] {
    std::array<bool, 256> special {};
    for (const auto byte : { '\0', '\\', '{', '}' })
        special[static_cast<std::uint8_t>(byte)] = true;
    return special;
}();

} // namespace

Found rtf(const Candidate& candidate)
{
    auto& file = candidate.file;
    if (!file.matches(0, "{\\rtf"))
        return std::nullopt;
    int depth = 0;
    std::uint64_t position = 0;
    while (position < limit) {
        auto bytes = file.stretch(position).span();
        bytes = bytes.first(std::min(bytes.size(), pieceSize));
        if (bytes.empty())
            return std::nullopt;
        file.addWork(bytes.size() * workPerByte);
        std::size_t at = 0;
        for (; at < bytes.size(); ++at) {
            const auto byte = bytes[at];
            if (!isSpecial[byte])
                continue;
            if (byte == 0)
                return std::nullopt;
            if (byte == '\\') // the next byte stands for itself
                ++at;
            else if (byte == '{')
                ++depth;
            else if (--depth == 0)
                return candidate.proved(position + at + 1, "rtf");
        }
        position += at; // beyond the piece where its last byte escapes the next one
    }
    return std::nullopt;
}

} // namespace Formats
