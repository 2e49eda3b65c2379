#include "VintrelCore/Carving/Formats/Formats.h"

#include <algorithm>

// RED documents its format nowhere; what is known of it is that it consists of boxes, the last of
// which says that a clip, a part of one or a stream ends.

namespace Formats {

namespace {

struct BoxHeader {
    BE32 size;                        // 0  with this header
    std::array<std::uint8_t, 4> type; // 4
};
static_assert(sizeof(BoxHeader) == 8);

constexpr std::uint64_t limit = std::uint64_t { 1 } << 40;
constexpr int maxBoxes = 10'000'000;

bool isType(ByteView type)
{
    return type.u8(0) == 'R' && std::ranges::all_of(type.span(), [](std::uint8_t byte) {
        return (byte >= 'A' && byte <= 'Z') || (byte >= '0' && byte <= '9');
    });
}

} // namespace

Found r3d(const Candidate& candidate)
{
    constexpr std::array<std::string_view, 3> lastTypes { "REOB", "REOF", "REOS" };
    auto& file = candidate.file;
    std::uint64_t position = 0;
    bool hasPictures = false;
    for (int count = 0; count < maxBoxes && position < limit; ++count) {
        const auto box = file.load<BoxHeader>(position);
        const ByteView type(box.type);
        if (box.size < sizeof box || !isType(type) || !candidate.fits(position + box.size))
            break;
        position += box.size;
        hasPictures |= type.matches("REDV", 0);
        if (std::ranges::any_of(lastTypes, [&](auto last) { return type.matches(last, 0); }))
            return hasPictures ? Found(candidate.proved(position, "r3d")) : std::nullopt;
    }
    return std::nullopt;
}

} // namespace Formats
