#include "VintrelCore/Foundation/Text.h"
#include "VintrelCore/Scanning/Partitions.h"

namespace PartitionTable {

std::string guid(ByteView bytes, std::int64_t at)
{
    // The position of each byte in the text; -1 is a hyphen.
    constexpr int order[]
        = { 3, 2, 1, 0, -1, 5, 4, -1, 7, 6, -1, 8, 9, -1, 10, 11, 12, 13, 14, 15 };
    std::string text;
    for (const int position : order) {
        if (position < 0) {
            text += '-';
            continue;
        }
        text += Text::hex(bytes.u8(at + position), 2);
    }
    return text;
}

std::string gptTypeName(std::string_view guid)
{
    constexpr struct {
        std::string_view guid, name;
    } types[] = {
        { "EBD0A0A2-B9E5-4433-87C0-68B6B72699C7", "Microsoft basisdata" },
        { "48465300-0000-11AA-AA11-00306543ECAC", "Apple HFS+" },
        { "7C3457EF-0000-11AA-AA11-00306543ECAC", "Apple APFS" },
        { "C12A7328-F81F-11D2-BA4B-00A0C93EC93B", "EFI-system" },
        { "E3C9E316-0B5C-4DB8-817D-F92DF00215AE", "Microsoft reserveret" },
        { "DE94BBA4-06D1-4D40-A16A-BFD50179D6AC", "Windows gendannelse" },
        { "0FC63DAF-8483-4772-8E79-3D69D8477DE4", "Linux" },
        { "426F6F74-0000-11AA-AA11-00306543ECAC", "Apple Boot" },
        { "52637672-7900-11AA-AA11-00306543ECAC", "Apple Recovery" },
        { "69646961-6700-11AA-AA11-00306543ECAC", "Apple APFS ISC" },
    };
    for (const auto& type : types)
        if (type.guid == guid)
            return std::string(type.name);
    return "GPT " + std::string(guid.substr(0, 8));
}

std::string mbrTypeName(std::uint8_t type)
{
    constexpr struct {
        std::uint8_t type;
        std::string_view name;
    } types[] = {
        { 0x01, "FAT12" },
        { 0x04, "FAT16" },
        { 0x06, "FAT16" },
        { 0x07, "NTFS/exFAT" },
        { 0x0B, "FAT32" },
        { 0x0C, "FAT32" },
        { 0x0E, "FAT16" },
        { 0x17, "NTFS (skjult)" },
        { 0x1B, "FAT32 (skjult)" },
        { 0x1C, "FAT32 (skjult)" },
        { 0x27, "Windows gendannelse" },
        { 0x82, "Linux swap" },
        { 0x83, "Linux" },
        { 0xAB, "Apple Boot" },
        { 0xAF, "Apple HFS+" },
        { 0xEE, "GPT-beskyttelse" },
    };
    for (const auto& row : types)
        if (row.type == type)
            return std::string(row.name);
    return "Type 0x" + Text::hex(type, 2);
}

} // namespace PartitionTable
