#include "VintrelCore/Carving/Formats/Formats.h"

namespace Formats {

Found riff(const Candidate& candidate)
{
    constexpr std::uint64_t leastSize = 44; // a wave file without a sample
    constexpr struct {
        std::string_view form;
        const char* ext;
    } forms[] = { { "WAVE", "wav" }, { "AVI ", "avi" }, { "WEBP", "webp" } };

    auto& file = candidate.file;
    const std::uint64_t length = file.u32le(4);
    const std::uint64_t size = 8 + length + length % 2; // chunks are padded to an even length
    if (size < leastSize)
        return std::nullopt;
    for (const auto& [form, ext] : forms)
        if (file.matches(8, form))
            return candidate.found(size, ext);
    return std::nullopt;
}

} // namespace Formats
