#include "VintrelCore/FileSystems/APFS/Role.h"

#include "VintrelCore/Foundation/Text.h"

#include <algorithm>
#include <bit>
#include <string_view>
#include <utility>

std::string APFSParser::roleName(std::uint16_t role)
{
    constexpr std::pair<std::uint16_t, std::string_view> names[] = { { 1, "System" },
        { 2, "Bruger" }, { 4, "Gendannelse" }, { 8, "VM" }, { 16, "Preboot" }, { 64, "Data" } };
    for (const auto& [number, name] : names)
        if (number == role)
            return std::string(name);
    constexpr int bitsPerDigit = 4;
    const int digits = (static_cast<int>(std::bit_width(role)) + bitsPerDigit - 1) / bitsPerDigit;
    return "0x" + Text::hex(role, std::max(digits, 1));
}
