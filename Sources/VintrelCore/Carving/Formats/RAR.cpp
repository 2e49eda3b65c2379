#include "VintrelCore/Carving/Formats/Formats.h"
#include "VintrelCore/Carving/Formats/SevenBits.h"
#include "VintrelCore/Foundation/CRC32.h"

#include <cstddef>

// Version 4: "RAR version 4.x - Technical information" (technote.txt). Version 5: "RAR 5.0 archive
// format". Both are technical notes of the program's makers.

namespace Formats {

namespace {

constexpr int maxBlocks = 1'000'000;

struct Block4 {
    LE16 checksum;     // 0
    std::uint8_t type; // 2
    LE16 flags;        // 3
    LE16 headerSize;   // 5
    LE32 dataSize;     // 7  only with the flag hasData4
};
static_assert(sizeof(Block4) == 11 && offsetof(Block4, dataSize) == 7);

constexpr std::uint8_t firstType4 = 0x72;
constexpr std::uint8_t fileType4 = 0x74;
constexpr std::uint8_t serviceType4 = 0x7A;
constexpr std::uint8_t endType4 = 0x7B;
constexpr std::uint16_t minHeader4 = 7;
constexpr std::uint16_t isLarge4 = 0x0100; // of files: the block has an upper half of the data size
constexpr std::uint16_t hasData4 = 0x8000;

/// A file's block as far as it decides where the next block lies.
struct FileBlock4 {
    Block4 common;                       //  0
    std::array<std::uint8_t, 21> unused; // 11
    LE32 highDataSize;                   // 32  only with the flag isLarge4
};
static_assert(sizeof(FileBlock4) == 36 && offsetof(FileBlock4, highDataSize) == 32);

/// Whether a block's header has the checksum that it states: the lower half of its other bytes'.
bool isSound4(RandomReader& file, std::uint64_t position, const Block4& block)
{
    CRC32 checksum;
    checksum.add(
        file.bytes(position + offsetof(Block4, type), block.headerSize - offsetof(Block4, type)));
    return (checksum.value() & 0xFFFF) == block.checksum;
}

Found version4(const Candidate& candidate)
{
    auto& file = candidate.file;
    std::uint64_t position = 7;
    bool isSound = true;
    bool hasFile = false;
    for (int count = 0; count < maxBlocks && candidate.fits(position + minHeader4); ++count) {
        const auto block = file.load<Block4>(position);
        if (block.type < firstType4 || block.type > endType4 || block.headerSize < minHeader4) {
            // Version 2 and older wrote no end block: the last one that is whole is the last one.
            return isSound && hasFile ? Found(candidate.proved(position, "rar")) : std::nullopt;
        }
        isSound = isSound && isSound4(file, position, block);
        hasFile |= block.type == fileType4;
        std::uint64_t dataSize
            = (block.flags & hasData4) != 0 ? std::uint64_t { block.dataSize } : 0;
        if ((block.type == fileType4 || block.type == serviceType4)
            && (block.flags & isLarge4) != 0)
            dataSize += std::uint64_t { file.load<FileBlock4>(position).highDataSize } << 32;
        if (dataSize > file.size())
            return std::nullopt;
        position += block.headerSize + dataSize;
        if (block.type == endType4)
            return candidate.proved(position, "rar");
    }
    return std::nullopt;
}

constexpr std::uint64_t checksumSize5 = 4;
constexpr std::uint64_t maxHeader5 = 2'097'152; // what the format allows
constexpr std::uint64_t hasExtra5 = 1;
constexpr std::uint64_t hasData5 = 2;
constexpr std::uint64_t endType5 = 5; // 1: archive, 2: file, 3: service, 4: encryption

/// Reads a number of seven bits a byte and moves behind it. None when it does not end in 63 bits.
std::optional<std::uint64_t> takeNumber(RandomReader& file, std::uint64_t& position)
{
    const auto number = readSevenBits([&] { return file.u8(position++); });
    return number.isEnded ? std::optional(number.value) : std::nullopt;
}

Found version5(const Candidate& candidate)
{
    auto& file = candidate.file;
    std::uint64_t position = 8;
    for (int count = 0; count < maxBlocks && candidate.fits(position + checksumSize5 + 3);
         ++count) {
        position += checksumSize5;
        const auto headerSize = takeNumber(file, position);
        const std::uint64_t header = position;
        const auto type = takeNumber(file, position);
        const auto flags = takeNumber(file, position);
        if (!headerSize || !type || !flags || *headerSize < 2 || *headerSize > maxHeader5
            || *type < 1 || *type > endType5 || (count == 0 && *type > 4))
            return std::nullopt;
        if ((*flags & hasExtra5) != 0 && !takeNumber(file, position))
            return std::nullopt;
        const auto dataSize = (*flags & hasData5) != 0 ? takeNumber(file, position) : 0;
        if (!dataSize || *dataSize > file.size())
            return std::nullopt;
        position = header + *headerSize + *dataSize;
        if (*type == endType5)
            return candidate.proved(position, "rar");
    }
    return std::nullopt;
}

} // namespace

Found rar(const Candidate& candidate)
{
    using namespace std::string_view_literals;
    if (candidate.file.matches(0, "Rar!\x1A\x07\0"sv))
        return version4(candidate);
    if (candidate.file.matches(0, "Rar!\x1A\x07\x01\0"sv))
        return version5(candidate);
    return std::nullopt;
}

} // namespace Formats
