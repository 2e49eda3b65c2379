#include "VintrelCore/Carver/Formats.h"

#include <algorithm>

namespace Formats {

Found rtf(const Candidate& candidate)
{
    constexpr std::uint64_t limit = 256 * 1'048'576;
    constexpr std::size_t pieceSize = 1024; // what a zero byte, the usual end of a lost text, makes look at in vain

    constexpr std::size_t workPerByte = 2; // one at a time is slower than a search

    auto& file = candidate.file;
    if (!file.matches(0, "{\\rtf"))
        return std::nullopt;
    int depth = 0;
    bool isEscaped = false;
    for (std::uint64_t position = 0; position < limit;) {
        auto bytes = file.stretch(position).span();
        bytes = bytes.first(std::min(bytes.size(), pieceSize));
        if (bytes.empty())
            return std::nullopt;
        for (std::size_t i = 0; i < bytes.size(); ++i) {
            const auto byte = bytes[i];
            if (byte == 0)
                return std::nullopt;
            if (isEscaped)
                isEscaped = false;
            else if (byte == '\\')
                isEscaped = true;
            else if (byte == '{')
                ++depth;
            else if (byte == '}' && --depth == 0)
                return candidate.found(position + i + 1, "rtf");
        }
        file.addWork(bytes.size() * workPerByte);
        position += bytes.size();
    }
    return std::nullopt;
}

} // namespace Formats
