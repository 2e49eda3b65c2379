#include "VintrelCore/Carving/Formats/Formats.h"

#include <cstddef>

// [MS-PST], Outlook Personal Folders: a header with the file's size and the places of two trees'
// roots, which are pages that say what they are. OST files are the same. It does not describe the
// pages of 4 KiB that Outlook 2013 and later give to OST files: what is known of them is where
// their types stand.

namespace Formats {

namespace {

struct Header {
    std::array<std::uint8_t, 4> magic;       // 0  "!BDN"
    LE32 checksum;                           // 4
    std::array<std::uint8_t, 2> clientMagic; // 8  "SM", or "SO"
    LE16 version;                            // 10
};
static_assert(sizeof(Header) == 12);

/// What the header of the old form says of the file, at byte 164.
struct NarrowRoot {
    LE32 reserved, fileSize, lastMap, freeBytes, freePageBytes; //  0
    LE32 nodeTreeID, nodeTree;                                  // 20, 24
    LE32 blockTreeID, blockTree;                                // 28, 32
};
static_assert(sizeof(NarrowRoot) == 36 && offsetof(NarrowRoot, blockTree) == 32);

/// The same in the form with Unicode, at byte 180.
struct WideRoot {
    LE32 reserved;                                    //  0
    LE64 fileSize, lastMap, freeBytes, freePageBytes; //  4, 12, 20, 28
    LE64 nodeTreeID, nodeTree;                        // 36, 44
    LE64 blockTreeID, blockTree;                      // 52, 60
};
static_assert(sizeof(WideRoot) == 68 && offsetof(WideRoot, blockTree) == 60);

constexpr std::uint64_t narrowRootOffset = 164;
constexpr std::uint64_t wideRootOffset = 180;
constexpr std::uint64_t limit = std::uint64_t { 1 } << 40;

/// Whether a page of this type lies at `position`: its type stands twice behind `trailer` bytes.
bool isPage(RandomReader& file, std::uint64_t position, std::uint64_t trailer, std::uint16_t type)
{
    return position < limit && file.u16le(position + trailer) == type;
}

template <class Root>
Found withRoot(const Candidate& candidate, std::uint64_t offset, std::uint64_t trailer)
{
    constexpr std::uint16_t blockTreePage = 0x8080;
    constexpr std::uint16_t nodeTreePage = 0x8181;
    auto& file = candidate.file;
    const auto root = file.load<Root>(offset);
    if (root.fileSize < sizeof(Header) || root.fileSize >= limit || root.nodeTree >= root.fileSize
        || root.blockTree >= root.fileSize || !isPage(file, root.nodeTree, trailer, nodeTreePage)
        || !isPage(file, root.blockTree, trailer, blockTreePage))
        return std::nullopt;
    return candidate.found(root.fileSize, "pst");
}

} // namespace

Found pst(const Candidate& candidate)
{
    constexpr std::uint64_t narrowTrailer = 500;
    constexpr std::uint64_t wideTrailer = 496;
    constexpr std::uint64_t largeTrailer = 4072;
    constexpr std::uint16_t firstWide = 20;
    constexpr std::uint16_t lastWide = 23;
    const auto header = candidate.file.load<Header>(0);
    if (header.version == 14 || header.version == 15)
        return withRoot<NarrowRoot>(candidate, narrowRootOffset, narrowTrailer);
    if (header.version >= firstWide && header.version <= lastWide)
        return withRoot<WideRoot>(candidate, wideRootOffset, wideTrailer);
    if (header.version != 36 && header.version != 37)
        return std::nullopt;
    const auto found = withRoot<WideRoot>(candidate, wideRootOffset, largeTrailer);
    return found ? found : withRoot<WideRoot>(candidate, wideRootOffset, wideTrailer);
}

} // namespace Formats
