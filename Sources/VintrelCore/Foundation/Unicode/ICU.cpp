// Composition and case for Unicode.h, from ICU.

#include "VintrelCore/Foundation/Unicode/Unicode.h"

#include <unicode/bytestream.h>
#include <unicode/normalizer2.h>
#include <unicode/stringpiece.h>
#include <unicode/uchar.h>

namespace Unicode {

namespace {

bool isValid(std::string_view text)
{
    while (!text.empty()) {
        const auto size = text.size();
        if (takeFirst(text) == replacement && size - text.size() == 1)
            return false;
    }
    return true;
}

} // namespace

char32_t foldedCase(char32_t codePoint)
{
    if (codePoint < 0x80)
        return codePoint >= 'A' && codePoint <= 'Z' ? codePoint + 0x20 : codePoint;
    return static_cast<char32_t>(u_tolower(static_cast<UChar32>(codePoint)));
}

std::string composed(std::string_view text)
{
    if (isASCII(text))
        return std::string(text);
    UErrorCode status = U_ZERO_ERROR;
    const auto* normalizer = icu::Normalizer2::getNFCInstance(status);
    if (U_FAILURE(status)
        || !isValid(text)) // ICU itself composes what is sound between broken bytes
        return std::string(text);
    std::string result;
    icu::StringByteSink<std::string> sink(&result);
    const icu::StringPiece piece(text.data(), static_cast<std::int32_t>(text.size()));
    normalizer->normalizeUTF8(0, piece, sink, nullptr, status);
    return U_FAILURE(status) ? std::string(text) : result;
}

} // namespace Unicode
