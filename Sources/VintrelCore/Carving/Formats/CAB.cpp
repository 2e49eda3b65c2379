#include "VintrelCore/Carving/Formats/Formats.h"

#include <algorithm>
#include <cstddef>

// "Microsoft Cabinet Format": a header with the cabinet's size, folders of data blocks.

namespace Formats {

namespace {

struct Header {
    std::array<std::uint8_t, 4> signature;   //  0  "MSCF"
    LE32 reserved1, size, reserved2;         //  4, 8, 12
    LE32 filesOffset, reserved3;             // 16, 20
    std::uint8_t versionMinor, versionMajor; // 24, 25  3 and 1
    LE16 folders, files, flags;              // 26, 28, 30
    LE16 setID, number;                      // 32, 34
};
static_assert(sizeof(Header) == 36 && offsetof(Header, folders) == 26);

/// Where a program may reserve room in all structures of one kind.
struct Reserve {
    LE16 header;               // 0
    std::uint8_t folder, data; // 2, 3
};
static_assert(sizeof(Reserve) == 4);

struct Folder {
    LE32 dataOffset;          // 0
    LE16 dataBlocks, packing; // 4, 6
};
static_assert(sizeof(Folder) == 8);

struct DataBlock {
    LE32 checksum;           // 0
    LE16 size, unpackedSize; // 4, 6
};
static_assert(sizeof(DataBlock) == 8);

enum Flag : std::uint16_t { hasPrevious = 1, hasNext = 2, hasReserve = 4 };

/// Where the folders begin, behind the names of the cabinets around this one; none when a name does
/// not end.
std::optional<std::uint64_t> behindHeader(RandomReader& file, const Header& header)
{
    constexpr std::uint64_t maxName = 256;
    std::uint64_t position = sizeof header;
    if ((header.flags & hasReserve) != 0)
        position += sizeof(Reserve) + file.load<Reserve>(position).header;
    const int names = ((header.flags & hasPrevious) != 0 ? 2 : 0)
        + ((header.flags & hasNext) != 0 ? 2 : 0); // of the cabinet and of its disk
    for (int name = 0; name < names; ++name) {
        const auto end = file.find(std::uint8_t { 0 }, position, position + maxName);
        if (!end)
            return std::nullopt;
        position = *end + 1;
    }
    return position;
}

/// Where the last data block of all folders ends.
std::uint64_t behindData(
    RandomReader& file, const Header& header, const Reserve& reserve, std::uint64_t position)
{
    std::uint64_t end = 0;
    for (unsigned i = 0; i < header.folders && !file.isExhausted(); ++i) {
        const auto folder = file.load<Folder>(position);
        position += sizeof folder + reserve.folder;
        std::uint64_t block = folder.dataOffset;
        for (unsigned n = 0; n < folder.dataBlocks && block < header.size; ++n)
            block += sizeof(DataBlock) + reserve.data + file.load<DataBlock>(block).size;
        end = std::max(end, block);
    }
    return end;
}

} // namespace

Found cabinet(const Candidate& candidate)
{
    auto& file = candidate.file;
    const auto header = file.load<Header>(0);
    if (header.reserved1 != 0 || header.reserved2 != 0 || header.versionMajor != 1
        || header.folders == 0 || header.files == 0 || header.filesOffset < sizeof header
        || header.filesOffset >= header.size)
        return std::nullopt;
    const bool reserves = (header.flags & hasReserve) != 0;
    const auto reserve = reserves ? file.load<Reserve>(sizeof header) : Reserve {};
    const auto folders = behindHeader(file, header);
    if (!folders)
        return std::nullopt;
    auto found = candidate.found(header.size, "cab");
    found.isProved
        = candidate.fits(header.size) && behindData(file, header, reserve, *folders) == header.size;
    return found;
}

} // namespace Formats
