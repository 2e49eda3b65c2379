// Composition and case for Unicode.h, from utf8proc.

#include "VintrelCore/Foundation/Unicode/Unicode.h"

#include <utf8proc.h>

#include <cstdlib>
#include <memory>

namespace Unicode {

char32_t foldedCase(char32_t codePoint)
{
    if (codePoint < 0x80)
        return codePoint >= 'A' && codePoint <= 'Z' ? codePoint + 0x20 : codePoint;
    return static_cast<char32_t>(utf8proc_tolower(static_cast<utf8proc_int32_t>(codePoint)));
}

std::string composed(std::string_view text)
{
    if (isASCII(text))
        return std::string(text);
    utf8proc_uint8_t* bytes = nullptr;
    const auto length = utf8proc_map(reinterpret_cast<const utf8proc_uint8_t*>(text.data()),
        static_cast<utf8proc_ssize_t>(text.size()), &bytes,
        static_cast<utf8proc_option_t>(UTF8PROC_STABLE | UTF8PROC_COMPOSE));
    if (length < 0)
        return std::string(text);
    const std::unique_ptr<utf8proc_uint8_t, decltype(&std::free)> owner(bytes, &std::free);
    return { reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(length) };
}

} // namespace Unicode
