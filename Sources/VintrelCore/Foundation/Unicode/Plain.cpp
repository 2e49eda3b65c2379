// Stands in for composition and case of Unicode.h where the system has no Unicode library.

#include "VintrelCore/Foundation/Unicode/Unicode.h"

namespace Unicode {

char32_t foldedCase(char32_t codePoint)
{
    return codePoint >= 'A' && codePoint <= 'Z' ? codePoint + 0x20 : codePoint;
}

std::string composed(std::string_view text) { return std::string(text); }

} // namespace Unicode
